#include "attribute_recorder.h"

#include "account_names.h"

namespace tool {

void AttributeRecorder::addFolder(const std::string& place, const struct stat& status) {
  writer_.add(place, attributesOf(MemberAttributes::Type::folder, status));
}

void AttributeRecorder::addLink(const std::string& place, const struct stat& status,
                                const std::string& target) {
  MemberAttributes link = attributesOf(MemberAttributes::Type::symbolicLink, status);
  link.target = target;
  writer_.add(place, link);
}

void AttributeRecorder::addFile(const std::string& place, const struct stat& status) {
  MemberAttributes file = attributesOf(MemberAttributes::Type::file, status);
  file.size = status.st_size;
  if (status.st_nlink > 1) {
    const auto [first, isNew] = files_.try_emplace({status.st_dev, status.st_ino}, place);
    if (!isNew) {
      file.type = MemberAttributes::Type::hardLink;
      file.target = first->second;
    }
  }
  writer_.add(place, file);
}

MemberAttributes AttributeRecorder::attributesOf(MemberAttributes::Type type,
                                                 const struct stat& status) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  const auto user = users_.try_emplace(status.st_uid);
  if (user.second) user.first->second = nameOfUser(status.st_uid);
  const auto group = groups_.try_emplace(status.st_gid);
  if (group.second) group.first->second = nameOfGroup(status.st_gid);
  MemberAttributes member{.type = type,
                          .mode = status.st_mode & 07777u,
                          .uid = status.st_uid,
                          .gid = status.st_gid,
                          .user = user.first->second,
                          .group = group.first->second};
  std::int64_t time = 0;
  if (!__builtin_mul_overflow(status.st_mtim.tv_sec, kNanoseconds, &time) &&
      !__builtin_add_overflow(time, status.st_mtim.tv_nsec, &time)) {
    member.modified = time;
  }
  return member;
}

}  // namespace tool
