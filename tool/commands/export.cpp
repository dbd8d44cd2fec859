// hxcrate export: a store becomes an archive.

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tool/archives/archive_output.h"
#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/copied_file.h"
#include "tool/files/inspected_store.h"
#include "tool/files/new_file.h"
#include "tool/files/output.h"
#include "tool/files/write_limits.h"
#include "tool/manifest/checksum_list.h"
#include "tool/trees/directory.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

using Type = MemberAttributes::Type;

struct ExportOptions {
  std::string store;
  std::string file = "-";
  std::string format;  // empty: by the file's name
  SelectionOptions selected;
  bool withoutAttributes = false;
  std::int64_t wait = 0;  // seconds
};

// What the store tells nothing of has the owner, the time and the permissions of its file: nobody
// who may not read that gets to read what comes out of it. Behind a URL it is the caller's, of no
// time.
MemberAttributes attributesOfFile(const std::string& path) {
  if (hxcrate::isUrl(path))
    return {.mode = 0600, .uid = ::geteuid(), .gid = ::getegid(), .modified = 0};
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) throw systemFailure(path, "inspect");
  return {.mode = status.st_mode & 0666,
          .uid = status.st_uid,
          .gid = status.st_gid,
          .modified = status.st_mtim.tv_sec * 1'000'000'000};
}

class Exporter {
 public:
  Exporter(const ExportOptions& options, const Selection& selection, bool linksFiles,
           ArchiveOutput& output)
      : options_(options),
        selection_(selection),
        linksFiles_(linksFiles),
        output_(output),
        usual_(attributesOfFile(options.store)),
        progress_("exporting"),
        pump_(&progress_) {}

  ExitCode run(hxcrate::Session& session) {
    const hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    if (!options_.withoutAttributes) takeManifest(store);
    const MemberAttributes* const top = manifest_ ? manifest_->find("") : nullptr;
    if (linksFiles_ && top != nullptr && top->type == Type::folder) begin("./", *top);
    expectItems(progress_, session, options_.store, selection_);
    StoreWalk walk(session.open(options_.store, hxcrate::Mode::read, {.acceptDamaged = true}),
                   &selection_);
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      throwIfInterrupted();
      if (event != StoreWalk::Event::leave) take(walk, event == StoreWalk::Event::store);
    }
    addLinks(store);
    output_.finish();
    return outcome_;
  }

 private:
  // A file of several names, as far as it is in the archive.
  struct Linked {
    std::string path;
    Sha256::Digest sha256;
  };

  void takeManifest(const hxcrate::Store& store) {
    manifest_ = readOwnManifest(store, outcome_);
    if (!manifest_) return;
    for (const auto& [path, member] : manifest_->members())
      if (member.type == Type::hardLink) linkedFiles_.insert(member.target);
  }

  void take(StoreWalk& walk, bool isStore) {
    try {
      if (!isFileName(walk.name())) return leaveOut(walk.place(), "no file can have this name");
      isStore ? addFolder(walk) : addItem(walk);
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = worse(outcome_, ExitCode::damaged);
      limit_.requireRead(walk.container());
    }
  }

  void leaveOut(const std::string& place, const std::string& reason) {
    complain(options_.store, place, reason);
    outcome_ = worse(outcome_, ExitCode::partial);
  }

  MemberAttributes attributesAt(const std::string& place, bool isStore) const {
    const MemberAttributes* known = manifest_ ? manifest_->find(place) : nullptr;
    MemberAttributes member = usual_;
    if (known != nullptr && (isStore ? known->type == Type::folder : known->isFile())) {
      member = *known;
    } else if (isStore) {
      member.mode |= (member.mode & 0444) >> 2;  // who may read it may enter it
    }
    if (isStore) member.type = Type::folder;
    return member;
  }

  bool begin(const std::string& place, const MemberAttributes& member,
             const std::string& linked = "") {
    if (!output_.keeps(place)) {
      leaveOut(place, "a zip can't keep a backslash in a name");
      return false;
    }
    const EntryHandle entry = own(archive_entry_new());
    archive_entry_set_pathname(entry.get(), place.c_str());
    describe(entry.get(), member);
    archive_entry_set_nlink(entry.get(), 1);
    if (!member.isFile()) archive_entry_set_size(entry.get(), 0);
    if (!linked.empty()) {
      archive_entry_set_hardlink(entry.get(), linked.c_str());
      archive_entry_unset_size(entry.get());
    }
    if (output_.begin(entry.get())) return true;
    leaveOut(place, output_.reason());
    return false;
  }

  void addFolder(StoreWalk& walk) {
    if (begin(walk.place() + "/", attributesAt(walk.place(), true))) walk.enter();
  }

  void addItem(StoreWalk& walk) {
    if (manifest_ && walk.place() == kManifestName) return;  // the entries have what it tells
    hxcrate::Reader item = walk.container().read(walk.name());
    limit_.require(walk.container(), bytes_ += item.size());
    MemberAttributes member = attributesAt(walk.place(), false);
    member.size = item.size();
    const std::string& first = member.type == Type::hardLink ? member.target : walk.place();
    if (!linksFiles_ || !linkedFiles_.contains(first)) return addBytes(walk.place(), member, item);
    const auto [found, isFirst] = linked_.try_emplace(first, Linked{walk.place(), {}});
    if (isFirst) return addBytes(walk.place(), member, item, &found->second.sha256);
    if (sumOf(item) == found->second.sha256) {
      begin(walk.place(), member, found->second.path);
    } else {  // it has become another one since
      hxcrate::Reader again = walk.container().read(walk.name());
      addBytes(walk.place(), member, again);
    }
  }

  Sha256::Digest sumOf(hxcrate::Reader& item) {
    Sha256 sum;
    pump_.move(BytePump::kEverything, takeFrom(item),
               [&](std::span<const std::byte> bytes) { sum.add(bytes); });
    return sum.finish();
  }

  // An entry is as long as was said, also if not all of it can be read.
  void addBytes(const std::string& place, const MemberAttributes& member, hxcrate::Reader& item,
                Sha256::Digest* sha256 = nullptr) {
    if (!begin(place, member)) return;
    Sha256 sum;
    std::int64_t written = 0;
    const auto give = [&](std::span<const std::byte> bytes) {
      output_.write(bytes);
      if (sha256 != nullptr) sum.add(bytes);
      written += static_cast<std::int64_t>(bytes.size());
    };
    try {
      pump_.move(BytePump::kEverything, takeFrom(item), give);
      if (sha256 != nullptr) *sha256 = sum.finish();
    } catch (const hxcrate::Error& error) {
      complain(
          options_.store, place,
          fmt::format("{}; from byte {} on it has zeros in the archive", error.reason(), written));
      outcome_ = worse(outcome_, ExitCode::damaged);
      fill(member.size - written);
    }
  }

  void fill(std::int64_t bytes) {
    const std::vector<std::byte> zeros(4096);
    while (bytes > 0) {
      const auto count = std::min<std::uint64_t>(zeros.size(), static_cast<std::uint64_t>(bytes));
      output_.write(std::span(zeros).first(count));
      bytes -= static_cast<std::int64_t>(count);
    }
  }

  // Behind all else, so that nothing is unpacked through them.
  void addLinks(const hxcrate::Store& store) {
    if (!manifest_) return;
    for (const auto& [path, member] : manifest_->members()) {
      if (member.type != Type::symbolicLink ||
          selection_.judge(path, false) != Selection::Verdict::yes) {
        continue;
      }
      const std::size_t slash = path.rfind('/');
      const bool hasFolder = slash == std::string::npos || isStore(store, path.substr(0, slash));
      if (path.empty() || !hasFolder || isThere(store, path)) {
        leaveOut(path, "there is no room for this symbolic link");
      } else {
        begin(path, member);
      }
    }
  }

  static bool isStore(const hxcrate::Store& store, const std::string& path) {
    return isThere(store, path) && kindOf(store, path) == hxcrate::MemberKind::store;
  }

  static bool isThere(const hxcrate::Store& store, const std::string& path) {
    try {
      return kindOf(store, path).has_value();
    } catch (const hxcrate::Error& error) {
      return error.errc() != hxcrate::Errc::badName;
    }
  }

  const ExportOptions& options_;
  const Selection& selection_;
  const bool linksFiles_;
  ArchiveOutput& output_;
  const MemberAttributes usual_;
  const OwnBytes limit_;
  Progress progress_;
  BytePump pump_;
  std::optional<Manifest> manifest_;
  std::set<std::string> linkedFiles_;  // those that hard links lead to
  std::map<std::string, Linked> linked_;
  std::int64_t bytes_ = 0;
  ExitCode outcome_ = ExitCode::fine;
};

ArchiveKind chooseKind(const ExportOptions& options) {
  if (!options.format.empty()) return {options.format};
  return kindOfArchive(options.file).value_or(ArchiveKind{});
}

ExitCode exportTo(const ExportOptions& options, const Selection& selection, const std::string& name,
                  const ArchiveOutput::Give& give) {
  hxcrate::Session session(waitingFor(options.wait));
  const ArchiveKind kind = chooseKind(options);
  ArchiveOutput output(kind, name, give);
  return Exporter(options, selection, kind.format == "tar", output).run(session);
}

ExitCode exportToStandardOutput(const ExportOptions& options, const Selection& selection) {
  Output output;
  if (output.isTerminal()) {
    throw Failure(ExitCode::usage, "", "", "an archive is nothing for a terminal: name a FILE");
  }
  const ExitCode outcome = exportTo(options, selection, "standard output",
                                    [&](std::span<const std::byte> bytes) { output.write(bytes); });
  output.finish();
  return outcome;
}

// Uncompressed all is about as long as the store.
ExitCode exportToFile(const ExportOptions& options, const Selection& selection,
                      std::int64_t length) {
  const FilePlace place = locateFile(options.file);
  const auto refuse = [&] {
    return Failure(ExitCode::notOpenable, options.file, "", "exists already");
  };
  if (inspect(place.directory, place.name)) throw refuse();
  const ArchiveKind kind = chooseKind(options);
  if (kind.format != "zip" && kind.filter.empty() && selection.isEverything()) {
    requireRoom(place.directory, length, options.file);
  }
  hxcrate::removeLeftovers(place.directory.number());
  const CopiedFile source(options.store);
  NewFile file(place.directory, place.name, options.file, {.readers = source.rights()});
  const ExitCode outcome =
      exportTo(options, selection, options.file, [&](std::span<const std::byte> bytes) {
        if (!writeAll(file.descriptor(), bytes)) throw systemFailure(options.file, "write");
      });
  if (!file.deliver()) throw refuse();
  return outcome;
}

ExitCode exportStore(const ExportOptions& options) {
  const Selection selection(options.selected);
  const std::int64_t length =
      hxcrate::InspectedFile(options.store, std::chrono::seconds(options.wait))
          .length();  // it is there
  const ExitCode outcome = options.file == "-" ? exportToStandardOutput(options, selection)
                                               : exportToFile(options, selection, length);
  return seeLostMembers(options.store, outcome);
}

}  // namespace

void addExport(CommandLine& line) {
  const auto options = std::make_shared<ExportOptions>();
  CLI::App& words = line.add("export", "Write what STORE holds as an archive",
                             "  hxcrate export docs.st | tar t\n"
                             "  hxcrate export docs.st docs.zip",
                             [options] { return exportStore(*options); });
  explain(words,
          "Without --format the end of FILE's name tells it: .zip, .cpio, .tar, also .tar.gz,\n"
          ".tar.bz2, .tar.xz and .tar.zst; else it is a tar (pax).");
  addStore(words, options->store);
  words.add_option("FILE", options->file, "the archive to make; standard output unless given");
  words.add_option("--format", options->format, "tar, zip or cpio")
      ->check(CLI::IsMember({"tar", "zip", "cpio"}))
      ->type_name("FORMAT");
  addSelection(words, options->selected);
  words.add_flag("--no-attributes", options->withoutAttributes,
                 "leave out what the item .mtree tells, and keep that as an item");
  addWait(words, options->wait);
}

}  // namespace tool
