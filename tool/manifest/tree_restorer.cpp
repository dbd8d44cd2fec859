#include "tree_restorer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <span>

#include "tool/report/report.h"
#include "tool/trees/planted_journal.h"

namespace tool {

namespace {

using Type = MemberAttributes::Type;

// Not open, with errno set, when it can't be.
Descriptor openFolder(const Descriptor& top, std::string_view path) {
  Descriptor folder = openBeneath(top, ".", O_RDONLY | O_DIRECTORY);
  while (!path.empty() && folder.isOpen()) {
    const std::string name(path.substr(0, path.find('/')));
    path.remove_prefix(std::min(name.size() + 1, path.size()));
    folder = openBeneath(folder, name, O_RDONLY | O_DIRECTORY);
  }
  return folder;
}

// An entry and the folder that it lies in.
struct Entry {
  Descriptor folder;
  std::string name;
};

Entry locate(const Descriptor& top, const std::string& target) {
  const std::size_t slash = target.rfind('/');
  if (slash == std::string::npos) return {openFolder(top, ""), target};
  return {openFolder(top, std::string_view(target).substr(0, slash)), target.substr(slash + 1)};
}

// The reader stands at the start again behind it.
bool hasBytesOf(const Descriptor& file, hxcrate::Reader& reader, BytePump& pump) {
  std::vector<std::byte> there;
  std::int64_t length = 0;
  bool isEqual = true;
  pump.move(BytePump::kEverything, takeFrom(reader), [&](std::span<const std::byte> bytes) {
    there.resize(bytes.size());
    isEqual =
        isEqual && readAt(file, length, there) == bytes.size() && std::ranges::equal(bytes, there);
    length += static_cast<std::int64_t>(bytes.size());
  });
  reader.seek(0);
  struct stat status {};
  return isEqual && ::fstat(file.number(), &status) == 0 && status.st_size == length;
}

}  // namespace

TreeRestorer::TreeRestorer(const Manifest* manifest, const RestoreOptions& options)
    : manifest_(manifest), restorer_(options) {
  if (manifest_ == nullptr) return;
  for (const auto& [place, member] : manifest_->members())
    if (member.type == Type::hardLink) linked_[member.target] = {};
}

void TreeRestorer::start(const Descriptor& top) {
  top_ = openFolder(top, "");
}

const MemberAttributes* TreeRestorer::find(std::string_view place, bool isFile) const {
  const MemberAttributes* found = manifest_ == nullptr ? nullptr : manifest_->find(place);
  if (found == nullptr) return nullptr;
  return (isFile ? found->isFile() : found->type == Type::folder) ? found : nullptr;
}

TreeRestorer::LinkedFile* TreeRestorer::groupOf(const std::string& place,
                                                const MemberAttributes& member) {
  const auto found = linked_.find(member.type == Type::hardLink ? member.target : place);
  return found == linked_.end() ? nullptr : &found->second;
}

void TreeRestorer::restore(const Descriptor& file, const std::string& path,
                           const std::string& place, const std::string& target,
                           const MemberAttributes& member) {
  if (LinkedFile* const group = groupOf(place, member); group != nullptr && group->target.empty()) {
    if (::fstat(file.number(), &group->status) == 0) group->target = target;
  }
  restorer_.give(file, path, member);
}

void TreeRestorer::noteFolder(const Descriptor& folder, std::string_view place,
                              const std::string& target) {
  const MemberAttributes* const found = find(place, false);
  struct stat status {};
  if (found != nullptr && ::fstat(folder.number(), &status) == 0)
    folders_.push_back({target, found, status});
}

// Not open: it is there no more.
Descriptor TreeRestorer::openMade(const LinkedFile& made) const {
  const Entry entry = locate(top_, made.target);
  if (!entry.folder.isOpen()) return {};
  Descriptor file = openBeneath(entry.folder, entry.name, O_RDONLY | O_NONBLOCK);
  struct stat status {};
  const bool isIt = file.isOpen() && ::fstat(file.number(), &status) == 0 &&
                    S_ISREG(status.st_mode) && isSameFile(status, made.status);
  return isIt ? std::move(file) : Descriptor();
}

bool TreeRestorer::linkInstead(const DirectoryCursor& cursor, const std::string& name,
                               const std::string& place, const MemberAttributes& member,
                               hxcrate::Reader& reader, BytePump& pump) {
  const LinkedFile* const made = groupOf(place, member);
  if (made == nullptr || made->target.empty()) return false;
  const Descriptor file = openMade(*made);
  return file.isOpen() && hasBytesOf(file, reader, pump) &&
         ::linkat(AT_FDCWD, file.asPath().c_str(), cursor.descriptor().number(), name.c_str(),
                  AT_SYMLINK_FOLLOW) == 0;
}

void TreeRestorer::makeSymbolicLink(const std::string& target, const std::string& path,
                                    const MemberAttributes& member, bool withJournals) {
  const Entry entry = locate(top_, target);
  if (!entry.folder.isOpen()) throw systemFailure(path, "open its folder");
  if (!isFileName(entry.name)) {
    throw Failure(ExitCode::partial, path, "", "no file can have this name");
  }
  if (!withJournals) refuseJournalName(entry.folder, entry.name, path);
  if (::symlinkat(member.target.c_str(), entry.folder.number(), entry.name.c_str()) != 0) {
    if (errno != EEXIST) throw systemFailure(path, "create symbolic link");
    throw Failure(ExitCode::partial, path, "", "exists already");
  }
  restorer_.giveToLink(openBeneath(entry.folder, entry.name, O_PATH), path, member);
}

void TreeRestorer::finish(const Folder& folder, const std::string& path) {
  const Descriptor open = openFolder(top_, folder.target);
  struct stat status {};
  if (!open.isOpen() || ::fstat(open.number(), &status) != 0) {
    throw systemFailure(path, "open directory");
  }
  if (!isSameFile(status, folder.status)) {
    throw Failure(ExitCode::partial, path, "", "somebody gave its name to another directory");
  }
  restorer_.give(open, path, *folder.member);
}

}  // namespace tool
