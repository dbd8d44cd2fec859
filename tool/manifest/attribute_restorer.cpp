#include "attribute_restorer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <limits>

#include "account_names.h"
#include "tool/report/report.h"

namespace tool {

namespace {

constexpr mode_t kSetId = S_ISUID | S_ISGID;
constexpr mode_t kAllBits = 07777;

std::array<timespec, 2> timesOf(const MemberAttributes& member) {
  constexpr std::int64_t kNanoseconds = 1'000'000'000;
  timespec modified{0, UTIME_OMIT};
  if (member.modified) {
    modified.tv_nsec = (*member.modified % kNanoseconds + kNanoseconds) % kNanoseconds;
    modified.tv_sec = (*member.modified - modified.tv_nsec) / kNanoseconds;
  }
  return {timespec{0, UTIME_OMIT}, modified};
}

// The name's, if anybody has that here, for numbers differ from machine to machine. Nothing for a
// number that nobody can have, which to the system could mean the one that the file has.
template <typename Id, typename Find>
std::optional<Id> resolve(std::map<std::string, std::optional<Id>>& known, const std::string& name,
                          std::int64_t number, Find find) {
  const auto [entry, isNew] = known.try_emplace(name);
  if (isNew && !name.empty()) entry->second = find(name);
  if (entry->second) return entry->second;
  if (number < 0 || number >= std::numeric_limits<Id>::max()) return std::nullopt;
  return static_cast<Id>(number);
}

}  // namespace

void AttributeRestorer::give(const Descriptor& file, const std::string& path,
                             const MemberAttributes& member) {
  const int number = file.number();
  // First, for it takes set-id bits away.
  const bool isOwned = giveOwner(file, member);
  const Failure owner = systemFailure(path, "give it its owner");
  // A program of the wrong owner is not to run as that one.
  const mode_t bits = options_.setId && isOwned ? kAllBits : kAllBits & ~kSetId;
  const bool hasMode = ::fchmod(number, member.mode & bits) == 0;
  const Failure mode = systemFailure(path, "give it its mode");
  giveTime(file, path, member);
  if (!hasMode) throw Failure(mode);
  if (!isOwned) throw Failure(owner);
}

void AttributeRestorer::giveTime(const Descriptor& file, const std::string& path,
                                 const MemberAttributes& member) {
  if (::futimens(file.number(), timesOf(member).data()) != 0) {
    throw systemFailure(path, "give it its time");
  }
}

void AttributeRestorer::giveToLink(const Descriptor& link, const std::string& path,
                                   const MemberAttributes& member) {
  struct stat status {};
  if (!link.isOpen() || ::fstat(link.number(), &status) != 0) throw systemFailure(path, "open");
  if (!S_ISLNK(status.st_mode)) {
    throw Failure(ExitCode::partial, path, "", "somebody gave its name to another file");
  }
  if (!giveOwner(link, member)) throw systemFailure(path, "give it its owner");
  if (::utimensat(link.number(), "", timesOf(member).data(), AT_EMPTY_PATH) != 0) {
    throw systemFailure(path, "give it its time");
  }
}

bool AttributeRestorer::giveOwner(const Descriptor& file, const MemberAttributes& member) {
  if (!options_.sameOwner) return true;
  const auto user = resolve(users_, member.user, member.uid, findUser);
  const auto group = resolve(groups_, member.group, member.gid, findGroup);
  errno = EINVAL;
  return user && group && ::fchownat(file.number(), "", *user, *group, AT_EMPTY_PATH) == 0;
}

}  // namespace tool
