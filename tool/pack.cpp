// hxcrate pack: a tree of directories becomes one store file.

#include <fcntl.h>

#include <memory>
#include <string>
#include <vector>

#include "byte_pump.h"
#include "command_line.h"
#include "directory.h"
#include "new_store.h"
#include "pack_source.h"

namespace tool {

namespace {

struct PackOptions {
  std::string store;
  std::string directory;
  bool replace = false;
  bool dryRun = false;
  NewStore::Options made;
};

bool isUnchanged(const struct stat& before, const struct stat& now) {
  return isSameFile(before, now) && before.st_size == now.st_size &&
         before.st_mtim.tv_sec == now.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == now.st_mtim.tv_nsec &&
         before.st_ctim.tv_sec == now.st_ctim.tv_sec &&
         before.st_ctim.tv_nsec == now.st_ctim.tv_nsec;
}

// Replays a scan, directory by directory, into a store.
class Packer {
 public:
  Packer(const std::string& directory, hxcrate::Store& store, Progress& progress)
      : cursor_(directory), builder_(store), pump_(&progress) {}

  void pack(const std::vector<SourceStep>& steps) {
    for (const SourceStep& step : steps) {
      switch (step.kind) {
        case SourceStep::Kind::enterDirectory:
          if (!cursor_.enter(step.name)) throw systemFailure(cursor_.pathTo(step.name), "open");
          builder_.enter(step.name);
          break;
        case SourceStep::Kind::leaveDirectory:
          cursor_.leave();
          builder_.leave();
          break;
        case SourceStep::Kind::file:
          packFile(step);
          break;
      }
    }
  }

 private:
  // What the file is after it was read shows that nobody wrote to it since it was found.
  void packFile(const SourceStep& step) {
    throwIfInterrupted();
    const std::string path = cursor_.pathTo(step.name);
    // Not to wait, should it be a FIFO by now.
    const Descriptor file(::openat(cursor_.descriptor().number(), step.name.c_str(),
                                   O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) throw systemFailure(path, "open");
    hxcrate::Writer writer = builder_.create(step.name);
    const std::int64_t size = step.status.st_size;
    // Files that the system makes up while they are read say that they have no bytes.
    const std::int64_t wanted = std::max<std::int64_t>(size, 1);
    const std::int64_t read = pump_.move(wanted, takeFrom(file, path), giveTo(writer));
    writer.close();
    struct stat now {};
    if (::fstat(file.number(), &now) != 0) throw systemFailure(path, "inspect");
    if (read == size && isUnchanged(step.status, now)) return;
    throw Failure(ExitCode::inputOutput, path, "", "it changed while it was packed");
  }

  DirectoryCursor cursor_;
  StoreBuilder builder_;
  BytePump pump_;
};

SizeForecast forecastOf(const std::vector<SourceStep>& steps) {
  SizeForecast forecast;
  for (const SourceStep& step : steps) {
    if (step.kind == SourceStep::Kind::enterDirectory) forecast.addStore();
    if (step.kind == SourceStep::Kind::file) forecast.addItem(step.status.st_size);
  }
  return forecast;
}

ExitCode pack(const PackOptions& options) {
  const NewStore target(options.store, options.replace);
  const Source source = scanTree(options.directory, target.existing());
  const ExitCode outcome = source.isWhole ? ExitCode::fine : ExitCode::partial;
  const SizeForecast forecast = forecastOf(source.steps);
  if (options.dryRun) {
    target.announce(forecast, options.made);
    return outcome;
  }
  Progress progress("packing");
  progress.expect(forecast.bytes());
  target.make(forecast, options.made, [&](hxcrate::Store& store) {
    Packer(options.directory, store, progress).pack(source.steps);
  });
  return outcome;
}

}  // namespace

void addPack(CommandLine& line) {
  const auto options = std::make_shared<PackOptions>();
  CLI::App& words = line.add("pack", "Pack the tree below DIR into the new file STORE",
                             "  hxcrate pack docs.st docs\n"
                             "  hxcrate pack --replace --page-size 4096 docs.st docs",
                             [options] { return pack(*options); });
  addFile(words, "STORE", options->store, "the store file to make");
  addFile(words, "DIR", options->directory, "the directory to pack");
  addPageSize(words, options->made.pageSize, kPageSizeMeaning);
  words.add_flag("--replace", options->replace, "replace an existing STORE, once all is packed");
  words.add_flag("--in-memory", options->made.inMemory,
                 "build it in memory and write it in one piece");
  addDryRun(words, options->dryRun);
}

}  // namespace tool
