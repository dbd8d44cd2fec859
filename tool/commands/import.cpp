// hxcrate import: an archive becomes a store.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tool/archives/archive_input.h"
#include "tool/archives/planned_tree.h"
#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/new_store.h"
#include "tool/manifest/manifest.h"
#include "tool/trees/unpack_quota.h"

namespace tool {

namespace {

using Type = MemberAttributes::Type;
using Verdict = Selection::Verdict;

struct ImportOptions {
  std::string store;
  std::string archive;
  SelectionOptions selected;
  bool replace = false;
  bool skip = false;
  bool withAttributes = false;
  bool dryRun = false;
  std::int64_t maxEntries = kUnlimited;
  std::int64_t maxBytes = kUnlimited;
  std::int64_t wait = 0;  // seconds
  NewStore::Options made;
};

// The stores on the way to where the last member was made stay open for the next one.
class StorePath {
 public:
  explicit StorePath(hxcrate::Store& top) : top_(top) {}

  hxcrate::Writer create(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    enter(slash == std::string::npos ? "" : path.substr(0, slash));
    return current().create(path.substr(slash + 1));
  }

  void enter(const std::string& folder) {
    const auto differs = std::ranges::mismatch(folder, folder_).in1;
    const auto shared = static_cast<std::size_t>(differs - folder.begin());
    while (!nested_.empty() && !isIn(folder, nested_.back().length, shared))
      nested_.pop_back();
    for (std::size_t at = nested_.empty() ? 0 : nested_.back().length + 1; at < folder.size();) {
      const std::size_t end = std::min(folder.find('/', at), folder.size());
      hxcrate::Store next = current().openOrCreateStore(folder.substr(at, end - at));
      nested_.push_back({std::move(next), end});
      at = end + 1;
    }
    folder_ = folder;
  }

 private:
  // A path for each of them would take as much memory as the square of the depth.
  struct Level {
    hxcrate::Store store;
    std::size_t length;  // of its path, with which `folder_` begins
  };

  static bool isIn(const std::string& folder, std::size_t length, std::size_t shared) {
    return length <= shared && (folder.size() == length || folder[length] == '/');
  }
  hxcrate::Store& current() { return nested_.empty() ? top_ : nested_.back().store; }

  hxcrate::Store& top_;
  std::vector<Level> nested_;
  std::string folder_;  // the path of the innermost
};

// Goes through an archive once: into a store, or to see what would come of it.
class Importer {
 public:
  Importer(const ImportOptions& options, const Selection& selection, ArchiveInput& archive,
           hxcrate::Store* store, bool isTold, Progress& progress)
      : options_(options),
        selection_(selection),
        archive_(archive),
        store_(store),
        isTold_(isTold),
        pump_(&progress),
        quota_(archive.name(), options.maxEntries, options.maxBytes, ExitCode::inputOutput) {
    if (store != nullptr) path_.emplace(*store);
    if (options.withAttributes) manifest_.emplace();
  }

  void run() {
    while (archive_entry* entry = archive_.next()) {
      throwIfInterrupted();
      take(entry);
    }
    for (auto& [path, awaited] : awaited_)
      makeAwaited(path, awaited, false);
    if (manifest_) addManifest();
    for (std::int64_t i = 0; i < tree_.folders(); ++i)
      forecast_.addStore();
    if (refusals_ == 0) return;
    throw Failure(ExitCode::inputOutput, archive_.name(), "",
                  fmt::format("{} can't be kept, nothing was imported",
                              refusals_ == 1 ? "1 entry" : fmt::format("{} entries", refusals_)));
  }

  const SizeForecast& forecast() const { return forecast_; }
  ExitCode outcome() const { return outcome_; }

 private:
  // A file that has several names and gets its bytes with the last of them.
  struct Awaited {
    MemberAttributes member;
    std::vector<std::pair<std::string, MemberAttributes>> links;
  };

  void take(archive_entry* entry) {
    const char* const written = archive_entry_pathname(entry);
    const std::string shown = written == nullptr ? "" : written;
    const std::optional<std::string> path = pathInside(shown);
    const std::optional<MemberAttributes> member = attributesOf(entry);
    if (written == nullptr) return refuse("", "an entry without a name, or one in no characters");
    if (!path) return refuse(shown, "its path leads out of the store");
    const bool isFolder = member && member->type == Type::folder;
    const Verdict verdict = path->empty() ? Verdict::yes : selection_.judge(*path, isFolder);
    if (verdict == Verdict::no) return;
    if (const char* target = archive_entry_hardlink(entry)) return takeLink(*path, target, entry);
    if (!member) return leaveOut(*path, "skipped: no file, folder or link");
    if (member->type == Type::symbolicLink) return takeSymbolicLink(*path, *member);
    if (isFolder) return takeFolder(*path, *member, verdict);
    if (!admitFile(*path, *member)) return;
    if (archive_.isCpio() && member->size == 0 && archive_entry_nlink(entry) > 1) {
      sizes_.emplace(*path, 0);
      awaited_.emplace(*path, Awaited{*member, {}});
    } else {
      create(*path, *member);
    }
  }

  void leaveOut(const std::string& path, std::string_view reason) {
    if (!isTold_) complain(archive_.name(), path, reason);
    outcome_ = ExitCode::partial;
  }

  void refuse(const std::string& path, const std::string& reason) {
    if (options_.skip) return leaveOut(path, "skipped: " + reason);
    if (store_ != nullptr) {
      throw Failure(ExitCode::inputOutput, archive_.name(), path,
                    reason + "; nothing was imported");
    }
    complain(archive_.name(), path, reason);
    ++refusals_;
  }

  bool admitFile(const std::string& path, const MemberAttributes& member) {
    std::optional<std::string> fault;
    if (member.size > hxcrate::kItemCapacity) {
      fault = fmt::format("{} bytes, at most {} fit", member.size, hxcrate::kItemCapacity);
    } else if (path.empty() || (manifest_ && path == kManifestName)) {
      fault = "no file of the tree can have this name";
    } else {
      fault = tree_.addFile(path);
    }
    if (fault) refuse(path, *fault);
    countMembers(path);
    return !fault;
  }

  // With the folders that lead to it.
  void countMembers(const std::string& path) {
    while (quota_.entries() < tree_.members())
      quota_.takeEntry(path);
  }

  // One that is on the way comes with what it leads to.
  void takeFolder(const std::string& path, const MemberAttributes& member, Verdict verdict) {
    if (verdict == Verdict::yes) {
      if (const auto fault = tree_.addFolder(path)) return refuse(path, *fault);
      countMembers(path);
      if (path_) path_->enter(path);
    }
    folders_.insert_or_assign(path, member);
  }

  void takeSymbolicLink(const std::string& path, const MemberAttributes& member) {
    if (!manifest_) return leaveOut(path, "skipped: a symbolic link");
    if (admitFile(path, member)) manifest_->add(path, member);
  }

  // A further name of a file. Its bytes may come with it, and then those of its other names do.
  void takeLink(const std::string& path, const std::string& written, archive_entry* entry) {
    const std::optional<std::string> target = pathInside(written);
    if (!target || !sizes_.contains(*target)) {
      return refuse(path, "a hard link to no file that was taken before it: " + written);
    }
    archive_entry_set_filetype(entry, AE_IFREG);
    MemberAttributes member = *attributesOf(entry);
    if (!admitFile(path, member)) return;
    const auto known = firsts_.find(*target);
    const std::string first = known == firsts_.end() ? *target : known->second;
    firsts_.emplace(path, first);
    sizes_.emplace(path, 0);
    const bool hasBytes = archive_entry_size_is_set(entry) != 0 && member.size > 0;
    const std::int64_t size = member.size;
    member.type = Type::hardLink;
    member.target = first;
    const auto awaited = awaited_.find(first);
    if (awaited == awaited_.end()) return hasBytes ? create(path, member) : copy(path, member);
    awaited->second.links.emplace_back(path, member);
    if (!hasBytes) return;
    awaited->second.member.size = size;
    makeAwaited(first, awaited->second, true);
    awaited_.erase(awaited);
  }

  void makeAwaited(const std::string& path, Awaited& awaited, bool hasBytes) {
    create(path, awaited.member, hasBytes);
    for (auto& [link, member] : awaited.links)
      copy(link, member);
  }

  // From the entry's bytes, which may be more than it says.
  void create(const std::string& path, MemberAttributes member, bool hasBytes = true) {
    if (store_ != nullptr) {
      const std::int64_t most = std::min(quota_.bytesLeft(), BytePump::kEverything - 1) + 1;
      hxcrate::Writer writer = path_->create(path);
      const auto take = [&](std::span<std::byte> room) { return archive_.read(room); };
      member.size = hasBytes ? pump_.move(most, take, giveTo(writer)) : 0;
      writer.close();
    }
    quota_.takeBytes(path, member.size);
    add(path, member);
  }

  void copy(const std::string& path, MemberAttributes member) {
    member.size = sizes_.at(member.target);
    quota_.takeBytes(path, member.size);
    if (store_ != nullptr) {
      hxcrate::Reader reader = store_->read(member.target);
      hxcrate::Writer writer = path_->create(path);
      pump_.move(BytePump::kEverything, takeFrom(reader), giveTo(writer));
      writer.close();
    }
    add(path, member);
  }

  // What the store has by now tells how long it is and what its checksum is, which not all archives
  // do.
  void add(const std::string& path, const MemberAttributes& member) {
    sizes_.insert_or_assign(path, member.size);
    forecast_.addItem(member.size);
    if (!manifest_) return;
    manifest_->add(path, member);
    if (store_ == nullptr) return;
    hxcrate::Reader reader = store_->read(path);
    pump_.move(BytePump::kEverything, takeFrom(reader),
               [&](std::span<const std::byte> bytes) { manifest_->addBytes(bytes); });
  }

  void addManifest() {
    for (const auto& [path, member] : folders_)
      if (tree_.hasFolder(path)) manifest_->add(path, member);
    const std::string text = manifest_->finish();
    forecast_.addItem(static_cast<std::int64_t>(text.size()));
    if (path_) path_->create(std::string(kManifestName)).write(std::string_view(text));
  }

  const ImportOptions& options_;
  const Selection& selection_;
  ArchiveInput& archive_;
  hxcrate::Store* store_;  // null: only looking
  bool isTold_;            // what is left out was told of before
  BytePump pump_;
  UnpackQuota quota_;
  std::optional<StorePath> path_;
  std::optional<ManifestWriter> manifest_;
  PlannedTree tree_;
  SizeForecast forecast_;
  std::map<std::string, MemberAttributes> folders_;
  std::map<std::string, std::int64_t> sizes_;  // of files, bytes
  std::map<std::string, std::string> firsts_;  // of hard links: the name that came first
  std::map<std::string, Awaited> awaited_;
  ExitCode outcome_ = ExitCode::fine;
  std::int64_t refusals_ = 0;
};

// What can be read twice is looked through first: nothing is written then of what can't be kept or
// does not fit, and pages have the best size.
ExitCode import(const ImportOptions& options) {
  const NewStore target(options.store, options.replace, options.wait);
  const Selection selection(options.selected);
  ArchiveInput archive(options.archive);
  Progress progress("importing");
  SizeForecast forecast;
  ExitCode outcome = ExitCode::fine;
  const bool looksFirst = archive.canRewind() || options.dryRun;
  if (looksFirst) {
    Importer look(options, selection, archive, nullptr, false, progress);
    look.run();
    forecast = look.forecast();
    outcome = look.outcome();
  }
  if (options.dryRun) {
    target.announce(forecast, options.made);
    return outcome;
  }
  if (looksFirst) archive.rewind();
  progress.expect(looksFirst ? forecast.bytes() : -1);
  target.make(forecast, options.made, [&](hxcrate::Store& store) {
    Importer importer(options, selection, archive, &store, looksFirst, progress);
    importer.run();
    outcome = importer.outcome();
  });
  return outcome;
}

}  // namespace

void addImport(CommandLine& line) {
  const auto options = std::make_shared<ImportOptions>();
  CLI::App& words = line.add("import", "Make the new file STORE of what ARCHIVE holds",
                             "  hxcrate import docs.st docs.tar.gz\n"
                             "  tar c . | hxcrate import docs.st -",
                             [options] { return import(*options); });
  explain(words,
          "ARCHIVE is a tar, zip, cpio, 7z or another that libarchive reads, compressed or not.\n"
          "From a pipe, what can't be kept is found only when its turn comes, and pages have 1024\n"
          "bytes unless --page-size says else.");
  words.add_option("STORE", options->store, "the store file to make")->required();
  words.add_option("ARCHIVE", options->archive, "the archive; - for standard input")->required();
  addSelection(words, options->selected);
  words.add_flag("--attributes", options->withAttributes,
                 "keep modes, owners, times and links in an item .mtree");
  words.add_flag("--skip", options->skip, "leave out what can't be kept, and name it");
  addPageSize(words, options->made.pageSize, kPageSizeMeaning);
  addCount(words, "--max-entries", options->maxEntries, "refuse to make more items and stores");
  addCount(words, "--max-bytes", options->maxBytes, "refuse to make more bytes of items");
  words.add_flag("--replace", options->replace, "replace an existing STORE, once all is imported");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
