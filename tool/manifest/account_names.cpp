#include "account_names.h"

#include <grp.h>
#include <pwd.h>

#include <vector>

namespace tool {

namespace {

constexpr std::size_t kBufferSize = 64 * 1024;

// Asks the system for the record of an account by `get`, one of its functions, and takes what is
// wanted of it.
template <typename Record, typename Key, typename Get, typename Take>
auto lookUp(Key key, Get get, Take take) -> std::optional<decltype(take(Record{}))> {
  std::vector<char> buffer(kBufferSize);
  Record record{};
  Record* found = nullptr;
  if (get(key, &record, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) return {};
  return take(record);
}

}  // namespace

std::string nameOfUser(uid_t user) {
  const auto name = [](const passwd& record) { return std::string(record.pw_name); };
  return lookUp<passwd>(user, ::getpwuid_r, name).value_or("");
}

std::string nameOfGroup(gid_t group) {
  const auto name = [](const struct group& record) { return std::string(record.gr_name); };
  return lookUp<struct group>(group, ::getgrgid_r, name).value_or("");
}

std::optional<uid_t> findUser(const std::string& name) {
  const auto id = [](const passwd& record) { return record.pw_uid; };
  return lookUp<passwd>(name.c_str(), ::getpwnam_r, id);
}

std::optional<gid_t> findGroup(const std::string& name) {
  const auto id = [](const struct group& record) { return record.gr_gid; };
  return lookUp<struct group>(name.c_str(), ::getgrnam_r, id);
}

}  // namespace tool
