// hxcrate salvage: what can be read of a damaged store file becomes a new one.

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/copied_file.h"
#include "tool/files/inspected_store.h"
#include "tool/files/new_store.h"
#include "tool/files/output.h"
#include "tool/files/write_limits.h"
#include "tool/report/progress.h"

namespace tool {

namespace {

struct SalvageOptions {
  std::string store;
  std::string target;         // a new file
  std::string encoding;       // of the damaged one, when its header does not tell; empty: it does
  std::int32_t pageSize = 0;  // the same, in bytes; 0: it does
  std::int64_t maxBytes = kUnlimited;  // of items
  std::int64_t wait = 0;               // seconds
};

constexpr std::size_t kTransferSize = 256 * 1024;

// Grows the new store along the members of the old one, which come in the order of the directory,
// each store before its members.
class Rebuilder {
 public:
  Rebuilder(InspectedStore& source, hxcrate::Store& target, Output& output, Progress& progress)
      : source_(source),
        inspection_(source.inspection()),
        output_(output),
        progress_(progress),
        buffer_(kTransferSize) {
    levels_.push_back({0, std::move(target), {}});
  }

  void run() {
    inspection_.walkPages({.onExtent = [this](const hxcrate::Extent& extent) { take(extent); },
                           .onItemEnd = [this](std::size_t item) { finishItem(item); },
                           .adoptMembers = true});
    advanceTo(inspection_.members().size());
    leaveTo(0);
    levels_.front().store.close();
  }

  std::int64_t stores() const { return stores_; }
  std::int64_t items() const { return items_; }
  bool hasLost() const { return hasLost_; }

 private:
  // A store that is being filled.
  struct Level {
    std::size_t member;
    hxcrate::Store store;
    std::map<std::string, int> names;  // taken; with the number tried last for each
  };

  void take(const hxcrate::Extent& extent) {
    if (extent.kind != hxcrate::ByteKind::data) return;
    openItem(extent.member);
    for (std::int64_t done = 0; writer_ && done < extent.length;) {
      const auto wanted = static_cast<std::size_t>(
          std::min<std::int64_t>(extent.length - done, static_cast<std::int64_t>(kTransferSize)));
      const std::span<std::byte> bytes = std::span(buffer_).first(wanted);
      const std::size_t count = source_.file().read(extent.offset + done, bytes);
      writer_->write(bytes.first(count));
      progress_.add(static_cast<std::int64_t>(count));
      done += static_cast<std::int64_t>(count);
      if (count < wanted) return abandonItem(extent.offset + done);
    }
  }

  // What follows would stand in a wrong place.
  void abandonItem(std::int64_t offset) {
    tell(item_, fmt::format("byte {} of the file can't be read; its first {} were kept", offset,
                            countThings(writer_->size(), "byte")));
    writer_->close();
    writer_.reset();
    hasLost_ = true;
  }

  void openItem(std::size_t item) {
    if (item_ == item) return;
    advanceTo(item);
    item_ = item;
    next_ = item + 1;
    Level& level = enclose(item);
    writer_.emplace(level.store.create(nameFor(item, level)));
    ++items_;
  }

  void finishItem(std::size_t item) {
    const hxcrate::InspectedMember& member = inspection_.members()[item];
    if (member.isWhole || member.size > 0) openItem(item);
    if (member.size == 0 && !member.isWhole) {
      lose(item, "nothing of it could be kept");
    } else if (!member.isWhole && writer_) {
      lose(item, "its first " + countThings(member.size, "byte") + " were kept");
    }
    if (writer_) writer_->close();
    writer_.reset();
    progress_.addFile();
  }

  // Makes the stores that come before that member.
  void advanceTo(std::size_t member) {
    for (; next_ < member; ++next_) {
      if (inspection_.members()[next_].kind == hxcrate::MemberKind::store) enterStore(next_);
    }
  }

  void enterStore(std::size_t member) {
    const hxcrate::InspectedMember& store = inspection_.members()[member];
    const bool isFound = store.entryOffset < 0;  // what is in it
    hasLost_ = hasLost_ || !store.isWhole || isFound;
    if (member == 0) return;
    Level& level = enclose(member);
    hxcrate::Store made = level.store.createStore(nameFor(member, level));
    ++stores_;
    levels_.push_back({member, std::move(made), {}});
  }

  // The store that the member belongs in, which becomes the last one.
  Level& enclose(std::size_t member) {
    leaveTo(inspection_.members()[member].container);
    return levels_.back();
  }

  void leaveTo(std::size_t member) {
    while (levels_.back().member != member && levels_.size() > 1)
      levels_.pop_back();
  }

  // The member's own name where that can be; what is told is what it was called.
  std::string nameFor(std::size_t member, Level& level) {
    const std::string& own = inspection_.members()[member].name;
    std::string base = own.empty() ? "unnamed" : own;
    std::replace(base.begin(), base.end(), '/', '_');
    std::string name = base;
    while (!level.names.emplace(name, 1).second) {
      const std::string suffix = fmt::format("~{}", ++level.names[base]);
      name = base.substr(0, hxcrate::kNameCapacity - suffix.size()) + suffix;
    }
    if (name != own) tell(member, "is now called " + escape(name));
    return name;
  }

  void lose(std::size_t member, const std::string& reason) {
    hasLost_ = true;
    tell(member, reason);
  }

  void tell(std::size_t member, const std::string& reason) {
    output_.write(showPlace(inspection_.pathOf(member)) + ": " + reason + "\n");
  }

  InspectedStore& source_;
  hxcrate::Inspection& inspection_;
  Output& output_;
  Progress& progress_;
  std::vector<std::byte> buffer_;
  std::vector<Level> levels_;
  std::size_t next_ = 0;                   // the first member not made yet
  std::size_t item_ = hxcrate::kNoMember;  // made last
  std::optional<hxcrate::Writer> writer_;
  std::int64_t stores_ = 1;
  std::int64_t items_ = 0;
  bool hasLost_ = false;
};

// No member, or at most adopted ones, though there should be a directory.
bool lacksTop(const InspectedStore& source) {
  const auto& members = source.inspection().members();
  return source.count(hxcrate::Severity::error) > 0 &&
         (members.empty() || members.front().entryOffset < 0);
}

// What is going to be kept. No byte of it is read.
SizeForecast forecastOf(const hxcrate::ByteSource& file, const hxcrate::HeaderOverride& header) {
  hxcrate::Inspection inspection(file, {}, header);
  inspection.walkPages({.adoptMembers = true});
  SizeForecast forecast;
  const std::vector<hxcrate::InspectedMember>& members = inspection.members();
  for (std::size_t i = 1; i < members.size(); ++i) {
    const bool isStore = members[i].kind == hxcrate::MemberKind::store;
    if (isStore) forecast.addStore();
    if (!isStore && (members[i].isWhole || members[i].size > 0)) forecast.addItem(members[i].size);
  }
  return forecast;
}

ExitCode rebuild(InspectedStore& source, const SalvageOptions& options,
                 const hxcrate::HeaderOverride& header, const CopiedFile& copied, Output& output) {
  ExitCode outcome = ExitCode::fine;
  std::string kept;
  NewStore target(options.target);
  const SizeForecast forecast = forecastOf(source.file(), header);
  OwnBytes(options.maxBytes).require(options.store, source.file().length(), forecast.bytes());
  Progress progress("salvaging");
  progress.expect(forecast.bytes(), forecast.items());
  target.make(forecast, {.copyOf = copied.rights()}, [&](hxcrate::Store& store) {
    Rebuilder rebuilder(source, store, output, progress);
    rebuilder.run();
    kept =
        countThings(rebuilder.items(), "item") + " and " + countThings(rebuilder.stores(), "store");
    if (rebuilder.hasLost() || lacksTop(source)) outcome = ExitCode::partial;
  });
  output.finish();
  complain(options.target, "", kept + " were kept");
  return outcome;
}

// Prints what was lost, what of an item was kept, and what got another name, a line each; nothing
// when all was kept. Members that no link leads to any more come into a store "lost+found" of the
// new one. Partial when anything was lost or found there. Throws Failure or hxcrate::Error; then
// there is no new file.
ExitCode salvage(const SalvageOptions& options) {
  Output output;
  const auto tell = [&](const hxcrate::Finding& finding) {
    if (finding.severity != hxcrate::Severity::error) return;
    output.print("{}: at byte {}, {}\n", showPlace(finding.place), finding.offset,
                 escape(finding.reason));
  };
  const hxcrate::HeaderOverride header{options.encoding, options.pageSize};
  try {
    const CopiedFile copied(options.store);
    InspectedStore source(options.store, tell, header, options.wait);
    copied.requireIn(source.file());
    return rebuild(source, options, header, copied, output);
  } catch (const hxcrate::Error& error) {
    if (error.errc() != hxcrate::Errc::unknownEncoding) throw;
    throw Failure(
        ExitCode::notOpenable, options.store, "",
        error.reason() + "; --encoding says which it is, known are " + hxcrate::listEncodings());
  }
}

}  // namespace

void addSalvage(CommandLine& line) {
  const auto options = std::make_shared<SalvageOptions>();
  CLI::App& words =
      line.add("salvage", "Save what can be read of a damaged STORE into the file NEW",
               "  hxcrate salvage broken.st saved.st\n"
               "  hxcrate salvage --encoding hxmok1/le/utf-8 broken.st saved.st",
               [options] { return salvage(*options); });
  explain(words,
          "Prints what was lost, what was kept of an item, and what got another name, a line\n"
          "each. What no link leads to any more comes into the store lost+found of NEW. Exit\n"
          "code 5 when anything was lost or found there; STORE stays as it is.");
  addStore(words, options->store);
  addFile(words, "NEW", options->target, "the store file to make");
  addEncoding(words, options->encoding, "its encoding, if its header does not tell");
  addPageSize(words, options->pageSize, "bytes of a page, if its header does not tell");
  addCount(words, "--max-bytes", options->maxBytes, "refuse to save more bytes of items");
  addWait(words, options->wait);
}

}  // namespace tool
