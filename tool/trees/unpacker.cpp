#include "unpacker.h"

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "directory.h"
#include "planted_journal.h"
#include "selection.h"
#include "sparse_file.h"
#include "store_walk.h"
#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/inspected_store.h"
#include "tool/files/new_file.h"
#include "tool/files/output.h"
#include "tool/files/write_limits.h"
#include "tool/manifest/checksum_list.h"
#include "tool/manifest/tree_restorer.h"
#include "unpack_quota.h"

namespace tool {

namespace {

// Nothing is made outside the directory, whatever names the store holds and whatever links lie
// there. Each entry that can't be unpacked is named on standard error, and the others go on.
class Unpacker {
 public:
  enum class Purpose {
    make,
    announce,  // say what would be made
    measure    // in silence
  };

  // `manifest`: null: none.
  Unpacker(Purpose purpose, const UnpackOptions& options, const Selection& selection,
           const Manifest* manifest, hxcrate::Store store, Progress& progress)
      : purpose_(purpose),
        options_(options),
        selection_(selection),
        manifest_(manifest),
        tree_(manifest, options.restored),
        walk_(std::move(store), &selection),
        quota_(options.store, options.maxEntries, options.maxBytes),
        ownBytes_(options.maxBytes),
        pump_(&progress) {}

  ExitCode unpack() {
    if (isMaking() || ::access(options_.directory.c_str(), F_OK) == 0) {
      cursor_.emplace(options_.directory);
      tree_.start(cursor_->descriptor());
      if (isTopNew_) tree_.noteFolder(cursor_->descriptor(), "", "");
      top_ = cursor_->path();
      tidyUp();
    }
    try {
      takeAll();
      if (manifest_ != nullptr) makeLinks();
    } catch (const QuotaFailure&) {
      if (purpose_ != Purpose::measure) throw;
    }
    if (isMaking()) {
      tree_.finishFolders([&](const std::string& target, const auto& finish) {
        attempt([&] { finish(target.empty() ? options_.directory : cursor_->pathTo(target)); });
      });
      // At once for all that was made.
      if (::syncfs(cursor_->descriptor().number()) != 0)
        throw systemFailure(options_.directory, "sync");
      told_.finish();
    }
    if (purpose_ == Purpose::announce) announce();
    return outcome_;
  }

  // The directory was made for this; before anything is unpacked.
  void noteTop() { isTopNew_ = true; }

  std::int64_t bytes() const { return quota_.bytes(); }
  std::int64_t items() const { return items_; }
  std::int64_t growth() const { return growth_; }  // less what is replaced

 private:
  bool isMaking() const { return purpose_ == Purpose::make; }

  void takeAll() {
    for (auto event = walk_.next(); event != StoreWalk::Event::end; event = walk_.next()) {
      throwIfInterrupted();
      if (event == StoreWalk::Event::leave) {
        leaveStore();
      } else {
        take(event);
        if (purpose_ == Purpose::measure) ownBytes_.require(walk_.container(), quota_.bytes());
      }
    }
  }

  void take(StoreWalk::Event event) {
    try {
      if (isConsumed()) return;
      const std::optional<std::string> target = targetOf(walk_.place());
      if (!target) return event == StoreWalk::Event::store ? passThrough() : void();
      if (!isFileName(walk_.name())) throw refusal("no file can have this name");
      quota_.takeEntry(walk_.place());
      event == StoreWalk::Event::item ? unpackItem() : enterStore();
      if (isMaking() && options_.isTold) {
        tell(walk_.place(), event == StoreWalk::Event::store ? "/\n" : "\n");
      }
    } catch (const QuotaFailure&) {
      throw;
    } catch (const TargetFailure&) {
      throw;
    } catch (const hxcrate::Error& error) {
      leaveOut(Failure(ExitCode::partial, error.store(), error.member(), error.reason()));
      ownBytes_.requireRead(walk_.container());
    } catch (const Failure& failure) {
      if (failure.isOfWholeDisk()) throw;
      leaveOut(failure);
    }
  }

  // The manifest is told of in what it gives the others, unless it is asked for by its name.
  bool isConsumed() const {
    return manifest_ != nullptr && walk_.place() == kManifestName &&
           std::ranges::count(options_.paths, kManifestName) == 0;
  }

  // Where in the directory what lies at `place` is unpacked; nothing: nowhere.
  std::optional<std::string> targetOf(std::string_view place) const {
    for (std::int64_t left = options_.stripped; left > 0; --left) {
      const std::size_t slash = place.find('/');
      if (slash == std::string_view::npos) return std::nullopt;
      place.remove_prefix(slash + 1);
    }
    return std::string(place);
  }

  // Into a store that is no folder.
  void passThrough() {
    walk_.enter();
    ++passed_;
  }

  void tell(const std::string& place, const char* end) {
    Progress::erase();
    told_.writeName(place);
    told_.write(end);
  }

  void leaveOut(const Failure& failure) {
    if (purpose_ != Purpose::measure) failure.print();
    outcome_ = ExitCode::partial;
  }

  Failure refusal(const char* reason) const {
    return {ExitCode::partial, options_.store, walk_.place(), reason};
  }

  // Where nothing is made the directories that do not exist are gone through by their number.
  bool isSomewhere() const { return cursor_.has_value() && missing_ == 0; }

  void enterStore() {
    const std::string name = walk_.name();
    const std::string place = walk_.place();
    walk_.enter();
    try {
      enterDirectory(name, place);
      ++entered_;
    } catch (...) {
      walk_.abandon();
      throw;
    }
  }

  // The folders of stores that were passed through are never entered, and they are the outermost.
  void leaveStore() {
    if (entered_ == 0) {
      --passed_;
      return;
    }
    --entered_;
    if (isSomewhere()) return cursor_->leave();
    if (missing_ > 0) --missing_;
  }

  void enterDirectory(const std::string& name, const std::string& place) {
    if (!isSomewhere()) {
      ++missing_;
      return;
    }
    const std::string path = cursor_->pathTo(name);
    const bool isNew = isMaking() && makeDirectory(name, place, path);
    if (cursor_->enter(name)) {
      if (isNew) tree_.noteFolder(cursor_->descriptor(), place, *targetOf(place));
      return tidyUp();
    }
    if (!isMaking() && errno == ENOENT) {
      requireWritableHere(path);
      ++missing_;
      return;
    }
    if (errno != ENOTDIR && errno != ELOOP) throw systemFailure(path, "open directory");
    throw Failure(ExitCode::partial, path, "", "exists already and is no directory");
  }

  // False: it is there. What gets a mode later is nobody else's until then.
  bool makeDirectory(const std::string& name, const std::string& place, const std::string& path) {
    const mode_t mode = tree_.find(place, false) != nullptr ? 0700 : 0777;
    if (::mkdirat(cursor_->descriptor().number(), name.c_str(), mode) == 0) return true;
    if (errno != EEXIST) throw systemFailure(path, "create directory");
    return false;
  }

  void unpackItem() {
    hxcrate::Reader reader = walk_.container().read(walk_.name());
    quota_.takeBytes(walk_.place(), reader.size());
    growth_ += reader.size();
    ++items_;
    isSomewhere() ? unpackInto(*cursor_, reader) : requireNoJournal(Descriptor());
  }

  void unpackInto(const DirectoryCursor& place, hxcrate::Reader& reader) {
    const std::string& name = walk_.name();
    const std::string path = place.pathTo(name);
    requireNoJournal(place.descriptor());
    const auto existing = inspect(place.descriptor(), name);
    if (existing) requireReplaceable(*existing, path);
    if (existing) growth_ -= existing->st_size;
    if (!isMaking()) return requireWritableHere(path);
    const MemberAttributes* const attributes = tree_.find(walk_.place(), true);
    if (attributes != nullptr && !existing &&
        tree_.linkInstead(place, name, walk_.place(), *attributes, reader, pump_)) {
      return;
    }
    NewFile file(place.descriptor(), name, path, {existing});
    if (attributes == nullptr || existing) {
      pump_.move(BytePump::kEverything, takeFrom(reader), giveTo(file.descriptor(), path));
      // Its rights are those of what it replaces.
      if (attributes != nullptr) AttributeRestorer::giveTime(file.descriptor(), path, *attributes);
    } else {
      writeWithAttributes(file, *attributes, reader);
    }
    if (!(existing ? file.deliver() : file.deliverUnsynced())) {
      throw Failure(ExitCode::partial, path, "", "exists already");
    }
    struct stat status {};
    if (options_.overwrite && ::fstat(file.descriptor().number(), &status) == 0)
      made_.emplace(status.st_dev, status.st_ino);
  }

  // All that it gets it has before it has a name.
  void writeWithAttributes(const NewFile& file, const MemberAttributes& attributes,
                           hxcrate::Reader& reader) {
    ::fchmod(file.descriptor().number(), S_IRUSR | S_IWUSR);
    SparseFile sparse(file.descriptor());
    pump_.move(BytePump::kEverything, takeFrom(reader), [&](std::span<const std::byte> bytes) {
      if (!sparse.write(bytes)) throw systemFailure(file.path(), "write");
    });
    if (!sparse.finish()) throw systemFailure(file.path(), "write");
    attempt([&] {
      tree_.restore(file.descriptor(), file.path(), walk_.place(), *targetOf(walk_.place()),
                    attributes);
    });
  }

  // What fails is told of, and the others go on.
  template <typename Action>
  void attempt(Action action) {
    try {
      action();
    } catch (const Failure& failure) {
      if (failure.isOfWholeDisk() || dynamic_cast<const QuotaFailure*>(&failure) != nullptr) throw;
      leaveOut(failure);
    }
  }

  // When all files are there, so that none is ever written through one of them.
  void makeLinks() {
    for (const auto& [place, member] : manifest_->members()) {
      const bool isMeant = member.type == MemberAttributes::Type::symbolicLink &&
                           selection_.judge(place, false) == Selection::Verdict::yes;
      const std::optional<std::string> target = targetOf(place);
      if (!isMeant || !target) continue;
      throwIfInterrupted();
      quota_.takeEntry(place);
      if (!isMaking()) continue;
      attempt([&, &place = place, &member = member] {
        tree_.makeSymbolicLink(*target, cursor_->pathTo(*target), member, options_.withJournals);
        if (options_.isTold) tell(place, "\n");
      });
    }
  }

  void requireNoJournal(const Descriptor& directory) const {
    if (options_.withJournals) return;
    if (!isPlantedJournal(walk_.container(), walk_.name(), directory)) return;
    throw refusal("would be taken for the journal of the store beside it; --journals unpacks it");
  }

  // As what is made would show. Where nothing can be made in the directory that was asked for, that
  // is the failure of the whole.
  void requireWritableHere(const std::string& path) const {
    try {
      requireWritable(cursor_->descriptor(), path);
    } catch (const Failure& failure) {
      if (cursor_->path() == top_) throw TargetFailure(failure);
      throw;
    }
  }

  void tidyUp() const {
    if (isMaking()) hxcrate::removeLeftovers(cursor_->descriptor().number());
  }

  void requireReplaceable(const struct stat& existing, const std::string& path) const {
    const bool isOwn = made_.contains({existing.st_dev, existing.st_ino});
    if (options_.overwrite && S_ISREG(existing.st_mode) && !isOwn) return;
    const char* reason = isOwn                ? "was made of another item just now"
                         : options_.overwrite ? "exists already and is no regular file"
                                              : "exists already";
    throw Failure(ExitCode::partial, path, "", reason);
  }

  void announce() const {
    complain(options_.directory, "",
             fmt::format("would get {} entries, {} bytes", quota_.entries(), quota_.bytes()));
  }

  const Purpose purpose_;
  const UnpackOptions& options_;
  const Selection& selection_;
  const Manifest* manifest_;
  TreeRestorer tree_;
  std::optional<DirectoryCursor> cursor_;
  std::string top_;                         // where that began
  std::set<std::pair<dev_t, ino_t>> made_;  // files, which nothing else of the store may replace
  StoreWalk walk_;
  UnpackQuota quota_;
  const OwnBytes ownBytes_;
  BytePump pump_;
  Output told_;
  bool isTopNew_ = false;
  std::size_t entered_ = 0;  // stores, of which the innermost are folders
  std::size_t passed_ = 0;   // and the others are not
  std::size_t missing_ = 0;
  std::int64_t growth_ = 0;
  std::int64_t items_ = 0;
  ExitCode outcome_ = ExitCode::fine;
};

// Throws what keeps the whole from being made.
void measure(const UnpackOptions& options, const Selection& selection, const Manifest* manifest,
             hxcrate::Store store, Progress& progress) {
  const Descriptor target = openOrAbove(options.directory);
  Unpacker unpacker(Unpacker::Purpose::measure, options, selection, manifest, std::move(store),
                    progress);
  unpacker.unpack();
  requireRoom(target, unpacker.growth(), options.directory);
  progress.expect(unpacker.bytes(), unpacker.items());
}

}  // namespace

ExitCode unpack(UnpackOptions& options) {
  ExitCode outcome = ExitCode::fine;
  hxcrate::Session session(waitingFor(options.wait));
  hxcrate::Store store = openWhatThereIs(session, options.store, outcome);
  // "/" is the store as a whole.
  if (std::ranges::count(options.paths, "") > 0) options.paths.clear();
  requireThere(store, options.paths);
  const Selection selection(options.selected, options.paths);
  const std::optional<Manifest> read =
      options.restored.isOff ? std::nullopt : readOwnManifest(store, outcome);
  const Manifest* const manifest = read ? &*read : nullptr;
  Progress progress("unpacking");
  hxcrate::Store again = session.open(options.store, hxcrate::Mode::read, {.acceptDamaged = true});
  measure(options, selection, manifest, std::move(again), progress);
  // What gets a mode later is nobody else's until then.
  const bool hasTop = manifest != nullptr && manifest->find("") != nullptr && options.stripped == 0;
  const bool isNew =
      !options.dryRun && ::mkdir(options.directory.c_str(), hasTop ? 0700 : 0777) == 0;
  if (!options.dryRun && !isNew && errno != EEXIST) {
    throw systemFailure(options.directory, "create directory");
  }
  const auto purpose = options.dryRun ? Unpacker::Purpose::announce : Unpacker::Purpose::make;
  Unpacker unpacker(purpose, options, selection, manifest, std::move(store), progress);
  if (isNew && hasTop) unpacker.noteTop();
  return worse(outcome, unpacker.unpack());
}

}  // namespace tool
