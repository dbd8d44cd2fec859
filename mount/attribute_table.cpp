#include "mount/attribute_table.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

namespace mounted {

namespace {

constexpr mode_t kPermissions = 07777;

std::int64_t findUser(const std::string& name) {
  const passwd* found = ::getpwnam(name.c_str());  // NOLINT(concurrency-mt-unsafe): at the start
  return found != nullptr ? std::int64_t{found->pw_uid} : -1;
}

std::int64_t findGroup(const std::string& name) {
  const group* found = ::getgrnam(name.c_str());  // NOLINT(concurrency-mt-unsafe): at the start
  return found != nullptr ? std::int64_t{found->gr_gid} : -1;
}

// By name, for numbers differ from one machine to the next; by number where no name is known here.
template <typename Names, typename Find>
std::uint32_t choose(Names& names, const std::string& name, std::int64_t number, Find find) {
  if (!name.empty()) {
    const auto [known, isNew] = names.try_emplace(name, -1);
    if (isNew) known->second = find(name);
    if (known->second >= 0) number = known->second;
  }
  return static_cast<std::uint32_t>(number);
}

}  // namespace

std::uint32_t AttributeTable::add(const tool::MemberAttributes& told, const Attributes& usual) {
  Attributes added = usual;
  const bool isLink = told.type == tool::MemberAttributes::Type::symbolicLink;
  if (isLink) {
    added.mode = S_IFLNK | 0777;
    added.extra = static_cast<std::uint32_t>(targets_.size());
    targets_.push_back(told.target);
  } else if (told.mode != 0) {
    added.mode = (usual.mode & S_IFMT) | (told.mode & kPermissions);
  }
  added.user = choose(users_, told.user, told.uid, findUser);
  added.group = choose(groups_, told.group, told.gid, findGroup);
  if (told.modified) added.modified = *told.modified;
  if (told.isFile() && told.sha256) {
    added.extra = static_cast<std::uint32_t>(checksums_.size());
    checksums_.push_back({*told.sha256, told.size});
  }
  attributes_.push_back(added);
  return static_cast<std::uint32_t>(attributes_.size() - 1);
}

}  // namespace mounted
