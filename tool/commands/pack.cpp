// hxcrate pack: a tree of directories becomes one store file.

#include <fcntl.h>

#include <exception>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/new_store.h"
#include "tool/manifest/attribute_recorder.h"
#include "tool/trees/directory.h"
#include "tool/trees/pack_source.h"

namespace tool {

namespace {

struct PackOptions {
  std::string store;
  SourceList::Options sources;
  ScanOptions scan;
  bool replace = false;
  bool dryRun = false;
  std::int64_t wait = 0;  // seconds
  NewStore::Options made;
};

bool isUnchanged(const struct stat& before, const struct stat& now) {
  return isSameFile(before, now) && before.st_size == now.st_size &&
         before.st_mtim.tv_sec == now.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == now.st_mtim.tv_nsec &&
         before.st_ctim.tv_sec == now.st_ctim.tv_sec &&
         before.st_ctim.tv_nsec == now.st_ctim.tv_nsec;
}

// By the numbers of their steps.
using LeftOut = std::set<std::size_t>;

// A file that changed or failed while it was read is in the store in part, and can't be taken out.
class SpoiltStore : public std::exception {};

// Where the steps of a scan lie in the store.
class PlaceCursor {
 public:
  std::string placeOf(const std::string& name) const {
    return place_.empty() ? name : place_ + "/" + name;
  }
  void enter(const std::string& name) { place_ = placeOf(name); }
  void leave() { place_.resize(place_.find('/') == place_.npos ? 0 : place_.rfind('/')); }

 private:
  std::string place_;
};

// Replays a scan, directory by directory, into a store. With `skip` what can't be read any more is
// named and left out.
class Packer {
 public:
  Packer(const SourceList& list, const ScanOptions& options, hxcrate::Store& store,
         Progress& progress)
      : cursor_(list.root), skip_(options.skip), builder_(store), pump_(&progress) {
    if (options.withAttributes) attributes_.emplace();
  }

  // All but the `leftOut`, to which it adds. Throws SpoiltStore at the end, when there is no more
  // to add.
  void pack(const Source& source, LeftOut& leftOut) {
    const std::vector<SourceStep>& steps = source.steps;
    if (attributes_ && source.top) attributes_->addFolder("", *source.top);
    for (std::size_t i = 0; i < steps.size(); ++i) {
      if (!leftOut.contains(i) && take(steps[i])) continue;
      leftOut.insert(i);
      if (steps[i].kind == SourceStep::Kind::enterDirectory) i = steps[i].end;
    }
    if (isSpoilt_) throw SpoiltStore();
    if (attributes_) builder_.create(kManifestName).write(attributes_->finish());
  }

 private:
  static constexpr std::int64_t kSmallFile = 256 * 1024;

  bool take(const SourceStep& step) {
    throwIfInterrupted();
    if (step.kind == SourceStep::Kind::leaveDirectory) leave();
    try {
      if (step.kind == SourceStep::Kind::enterDirectory) enter(step);
      if (step.kind == SourceStep::Kind::file) packFile(step);
      if (step.kind == SourceStep::Kind::link) {
        attributes_->addLink(places_.placeOf(step.name), step.status, step.target);
      }
      return true;
    } catch (const Failure& failure) {
      if (!skip_) throw;
      complainOfSkipped(failure.file(), failure.what());
      return false;
    }
  }

  void enter(const SourceStep& step) {
    if (!cursor_.enter(step.name)) throw systemFailure(cursor_.pathTo(step.name), "open");
    builder_.enter(step.name);
    if (attributes_) attributes_->addFolder(places_.placeOf(step.name), step.status);
    places_.enter(step.name);
  }

  void leave() {
    cursor_.leave();
    builder_.leave();
    places_.leave();
  }

  void packFile(const SourceStep& step) {
    const std::string path = cursor_.pathTo(step.name);
    // Not to wait, should it be a FIFO by now.
    const Descriptor file = openBeneath(cursor_.descriptor(), step.name, O_RDONLY | O_NONBLOCK);
    if (!file.isOpen()) throw systemFailure(path, "open");
    step.status.st_size <= kSmallFile ? packSmall(step, file, path) : packLarge(step, file, path);
  }

  // Has no item before it is known to be whole. Files that the system makes up while they are read
  // say that they have no bytes.
  void packSmall(const SourceStep& step, const Descriptor& file, const std::string& path) {
    small_.clear();
    pump_.move(std::max<std::int64_t>(step.status.st_size, 1), takeFrom(file, path),
               [&](std::span<const std::byte> bytes) {
                 small_.insert(small_.end(), bytes.begin(), bytes.end());
               });
    requireUnchanged(step, file, path, static_cast<std::int64_t>(small_.size()));
    hxcrate::Writer writer = builder_.create(step.name);
    writer.write(small_);
    writer.close();
    if (attributes_) attributes_->addFile(places_.placeOf(step.name), step.status);
    if (attributes_) attributes_->addBytes(small_);
  }

  void packLarge(const SourceStep& step, const Descriptor& file, const std::string& path) {
    hxcrate::Writer writer = builder_.create(step.name);
    if (attributes_) attributes_->addFile(places_.placeOf(step.name), step.status);
    const auto give = [&](std::span<const std::byte> bytes) {
      writer.write(bytes);
      if (attributes_) attributes_->addBytes(bytes);
    };
    try {
      requireUnchanged(step, file, path,
                       pump_.move(step.status.st_size, takeFrom(file, path), give));
    } catch (const Failure&) {
      isSpoilt_ = true;
      throw;
    }
    writer.close();
  }

  // What the file is after it was read shows that nobody wrote to it since it was found.
  static void requireUnchanged(const SourceStep& step, const Descriptor& file,
                               const std::string& path, std::int64_t read) {
    struct stat now {};
    if (::fstat(file.number(), &now) != 0) throw systemFailure(path, "inspect");
    if (read == step.status.st_size && isUnchanged(step.status, now)) return;
    throw Failure(ExitCode::inputOutput, path, "", "it changed while it was packed");
  }

  DirectoryCursor cursor_;
  const bool skip_;
  StoreBuilder builder_;
  PlaceCursor places_;
  std::optional<AttributeRecorder> attributes_;
  BytePump pump_;
  std::vector<std::byte> small_;
  bool isSpoilt_ = false;
};

// Of the manifest, which is as long without the bytes of the files. Throws a Failure for more than
// can be read.
std::int64_t manifestSize(const Source& source, const std::string& store) {
  AttributeRecorder attributes;
  PlaceCursor places;
  if (source.top) attributes.addFolder("", *source.top);
  for (const SourceStep& step : source.steps) {
    const std::string place = places.placeOf(step.name);
    switch (step.kind) {
      case SourceStep::Kind::enterDirectory:
        attributes.addFolder(place, step.status);
        places.enter(step.name);
        break;
      case SourceStep::Kind::leaveDirectory:
        places.leave();
        break;
      case SourceStep::Kind::file:
        attributes.addFile(place, step.status);
        break;
      case SourceStep::Kind::link:
        attributes.addLink(place, step.status, step.target);
        break;
    }
  }
  const std::size_t size = attributes.finish().size();
  if (size <= Manifest::kMostBytes) return static_cast<std::int64_t>(size);
  throw Failure(ExitCode::inputOutput, store, "", "too many files for --attributes");
}

SizeForecast forecastOf(const Source& source, const PackOptions& options) {
  SizeForecast forecast;
  for (const SourceStep& step : source.steps) {
    if (step.kind == SourceStep::Kind::enterDirectory) forecast.addStore();
    if (step.kind == SourceStep::Kind::file) forecast.addItem(step.status.st_size);
  }
  if (options.scan.withAttributes) forecast.addItem(manifestSize(source, options.store));
  return forecast;
}

// Again from the start, without them, if files spoilt the store.
void makeStore(const NewStore& target, const PackOptions& options, const SourceList& list,
               const Source& source, const SizeForecast& forecast, LeftOut& leftOut) {
  for (bool isMade = false; !isMade;) {
    Progress progress("packing");
    progress.expect(forecast.bytes(), forecast.items());
    try {
      target.make(forecast, options.made, [&](hxcrate::Store& store) {
        Packer(list, options.scan, store, progress).pack(source, leftOut);
      });
      isMade = true;
    } catch (const SpoiltStore&) {
    }
  }
}

ExitCode pack(const PackOptions& options) {
  if (options.sources.paths.empty() && options.sources.lists.empty()) {
    throw Failure(ExitCode::usage, "", "", "DIR is required (see hxcrate pack --help)");
  }
  const SourceList list(options.sources);
  const NewStore target(options.store, options.replace, options.wait);
  const Source source = scanTree(list, options.scan, target.existing());
  const SizeForecast forecast = forecastOf(source, options);
  LeftOut leftOut;
  if (options.dryRun) {
    target.announce(forecast, options.made);
  } else {
    makeStore(target, options, list, source, forecast, leftOut);
  }
  return source.isWhole && leftOut.empty() ? ExitCode::fine : ExitCode::partial;
}

}  // namespace

void addPack(CommandLine& line) {
  const auto options = std::make_shared<PackOptions>();
  CLI::App& words = line.add("pack", "Pack the tree below DIR into the new file STORE",
                             "  hxcrate pack docs.st docs\n"
                             "  hxcrate pack --replace --exclude '*.o' docs.st README src docs\n"
                             "  git ls-files -z | hxcrate pack --null -T - source.st",
                             [options] { return pack(*options); });
  explain(
      words,
      "Of one DIR the store gets what it holds; several, and those of a list, come into it with\n"
      "their whole paths, be they directories or files.");
  addFile(words, "STORE", options->store, "the store file to make");
  words.add_option("DIR", options->sources.paths, "the directory to pack, or several and files");
  words.add_option("-T", options->sources.lists, "also what FILE lists, one path a line")
      ->type_name("FILE")
      ->allow_extra_args(false);
  words.add_flag("--null", options->sources.nulSeparated, "paths in lists end with NUL");
  words.add_flag("--no-recursion", options->sources.isShallow,
                 "take directories that are listed or given alone, not what they hold");
  addSelection(words, options->scan.selected);
  words.add_flag("--attributes", options->scan.withAttributes,
                 "also modes, times, owners and links, as the item .mtree");
  words.add_flag("--skip", options->scan.skip,
                 "name what can't be kept or read and leave it out, rather than pack nothing");
  addPageSize(words, options->made.pageSize, kPageSizeMeaning);
  words.add_flag("--replace", options->replace, "replace an existing STORE, once all is packed");
  words.add_flag("--in-memory", options->made.inMemory,
                 "build it in memory and write it in one piece");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
