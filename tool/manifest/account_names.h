// The names of users and groups of this machine.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace tool {

// Empty where there is none.
std::string nameOfUser(uid_t user);
std::string nameOfGroup(gid_t group);

// Nothing where nobody has the name.
std::optional<uid_t> findUser(const std::string& name);
std::optional<gid_t> findGroup(const std::string& name);

}  // namespace tool
