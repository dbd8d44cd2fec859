// hxcrate stat: what is in a store file, in numbers.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/files/size_forecast.h"
#include "tool/report/answer.h"

namespace tool {

namespace {

struct StatOptions {
  std::string store;
  std::string path;  // of a member; empty: all of the file
  bool asJson = false;
  std::int64_t wait = 0;  // seconds
};

using hxcrate::ByteKind;
using hxcrate::InspectedMember;

constexpr ByteKind kKinds[] = {ByteKind::data,  ByteKind::entry,       ByteKind::chunk,
                               ByteKind::slack, ByteKind::unreachable, ByteKind::header};

// What is counted: a member with all that it holds.
class Part {
 public:
  // Throws a Failure when there is no such member.
  Part(const InspectedStore& store, const std::string& path)
      : isAll_(path.empty()), isIn_(store.inspection().members().size(), path.empty()) {
    const std::vector<InspectedMember>& members = store.inspection().members();
    if (isAll_) return;
    top_ = find(members, path);
    if (top_ == 0) throw Failure(ExitCode::notOpenable, store.file().name(), path, "not found");
    for (std::size_t i = top_; i < members.size(); ++i)
      isIn_[i] = i == top_ || isIn_[members[i].container];
  }

  bool isAll() const { return isAll_; }
  std::size_t top() const { return top_; }
  bool has(std::size_t member) const {
    return member == hxcrate::kNoMember ? isAll_ : isIn_[member];
  }

 private:
  // A store comes before what is in it, so one walk finds the whole path. 0: nothing.
  static std::size_t find(const std::vector<InspectedMember>& members, std::string_view path) {
    std::size_t found = 0;
    for (std::size_t i = 1; i < members.size(); ++i) {
      const std::size_t end = std::min(path.find('/'), path.size());
      if (members[i].container != found || members[i].name != path.substr(0, end)) continue;
      if (end == path.size()) return i;
      found = i;
      path.remove_prefix(end + 1);
    }
    return 0;
  }

  bool isAll_;
  std::size_t top_ = 0;
  std::vector<bool> isIn_;
};

struct Numbers {
  std::array<std::int64_t, hxcrate::kByteKinds> bytes{};
  std::size_t largest = hxcrate::kNoMember;  // item
  std::int64_t stores = 0;
  std::int64_t items = 0;
  std::int64_t depth = 0;  // of stores

  std::int64_t of(ByteKind kind) const { return bytes[static_cast<std::size_t>(kind)]; }
  std::int64_t file() const { return std::accumulate(bytes.begin(), bytes.end(), std::int64_t{0}); }
};

Numbers measure(InspectedStore& store, const Part& part) {
  Numbers numbers;
  store.inspection().walkPages({.onExtent = [&](const hxcrate::Extent& extent) {
    if (part.has(extent.member))
      numbers.bytes[static_cast<std::size_t>(extent.kind)] += extent.length;
  }});
  const std::vector<InspectedMember>& members = store.inspection().members();
  std::vector<std::int64_t> depths(members.size());
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (!part.has(i)) continue;
    if (members[i].kind == hxcrate::MemberKind::store) {
      ++numbers.stores;
      depths[i] = i == part.top() ? 1 : depths[members[i].container] + 1;
      numbers.depth = std::max(numbers.depth, depths[i]);
      continue;
    }
    ++numbers.items;
    const bool isFirst = numbers.largest == hxcrate::kNoMember;
    if (isFirst || members[i].size > members[numbers.largest].size) numbers.largest = i;
  }
  return numbers;
}

std::string nameOfTop(const InspectedStore& store) {
  const std::vector<InspectedMember>& members = store.inspection().members();
  return members.empty() ? "" : members.front().name;
}

// What a copy of what can be read would get.
std::int32_t pageSizeOfCopy(const InspectedStore& store) {
  SizeForecast forecast;
  for (const InspectedMember& member : store.inspection().members()) {
    if (member.kind == hxcrate::MemberKind::item) forecast.addItem(member.size);
  }
  return forecast.bestPageSize(false);
}

void printLine(Output& text, std::string_view label, std::string_view value) {
  text.print("{:<13}{}\n", label, value);
}

void tellMembers(const InspectedStore& store, const std::string& path, const Numbers& numbers,
                 Answer& answer) {
  const hxcrate::Inspection& inspection = store.inspection();
  const std::int32_t copied = pageSizeOfCopy(store);
  answer.tell(
      [&](Output& text) {
        printLine(text, "name", escape(nameOfTop(store)));
        if (!path.empty()) printLine(text, "path", escape(path));
        printLine(text, "encoding", escape(inspection.encoding()));
        printLine(text, "page size",
                  fmt::format("{}; a copy would choose {}", inspection.pageSize(), copied));
        printLine(text, "stores",
                  fmt::format("{}, at most {} deep", numbers.stores, numbers.depth));
        printLine(text, "items", fmt::to_string(numbers.items));
      },
      [&](JsonWriter& json) {
        json.writeName("store", store.file().name());
        json.writeName("path", path);
        json.writeName("name", nameOfTop(store));
        json.writeText("encoding", inspection.encoding());
        json.writeNumber("pageSize", inspection.pageSize());
        json.writeNumber("pageSizeOfCopy", copied);
        json.writeNumber("stores", numbers.stores);
        json.writeNumber("items", numbers.items);
        json.writeNumber("depth", numbers.depth);
      });
  if (numbers.largest == hxcrate::kNoMember) return;
  const std::string largest = inspection.pathOf(numbers.largest);
  const std::int64_t size = inspection.members()[numbers.largest].size;
  answer.tell(
      [&](Output& text) {
        printLine(text, "largest", fmt::format("{}, {} bytes", escape(largest), size));
      },
      [&](JsonWriter& json) {
        json.beginObject("largest");
        json.writeName("path", largest);
        json.writeNumber("size", size);
        json.endObject();
      });
}

void printBytes(Output& text, const Numbers& numbers, bool isAll) {
  const auto print = [&](std::string_view label, std::int64_t bytes, const char* meaning) {
    const double percent = 100.0 * static_cast<double>(bytes) / static_cast<double>(numbers.file());
    printLine(text, label, fmt::format("{:>14} bytes  {:5.1f} %{}", bytes, percent, meaning));
  };
  constexpr const char* kMeanings[] = {"  what items hold",
                                       "  members' records",
                                       "  pages' records",
                                       "  room in last pages",
                                       "  nobody's; a copy has none of it",
                                       ""};
  for (std::size_t i = 0; i < std::size(kKinds); ++i)
    print(nameOf(kKinds[i]), numbers.of(kKinds[i]), kMeanings[i]);
  print(isAll ? "file" : "all of it", numbers.file(), "");
  print("overhead", numbers.file() - numbers.of(ByteKind::data), "  all but data");
}

void tellBytes(const InspectedStore& store, const std::string& path, const Numbers& numbers,
               Answer& answer) {
  answer.tell([&](Output& text) { printBytes(text, numbers, path.empty()); },
              [&](JsonWriter& json) {
                json.beginObject("bytes");
                for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind)
                  json.writeNumber(nameOf(static_cast<ByteKind>(kind)), numbers.bytes[kind]);
                json.writeNumber("file", numbers.file());
                json.endObject();
                json.writeNumber("copySaves", numbers.of(ByteKind::unreachable));
                json.writeFlag("damaged", store.count(hxcrate::Severity::error) > 0);
              });
}

void tellTransfers(const InspectedStore& store, Answer& answer) {
  const std::optional<hxcrate::Transfers> transfers = store.file().transfers();
  if (!transfers) return;
  const auto milliseconds = std::chrono::round<std::chrono::milliseconds>(transfers->time).count();
  answer.tell(
      [&](Output& text) {
        printLine(text, "transfer",
                  fmt::format("{}, {} bytes, {} ms", countThings(transfers->requests, "request"),
                              transfers->bytes, milliseconds));
      },
      [&](JsonWriter& json) {
        json.beginObject("transfer");
        json.writeNumber("requests", transfers->requests);
        json.writeNumber("bytes", transfers->bytes);
        json.writeNumber("milliseconds", milliseconds);
        json.endObject();
      });
}

// Prints the numbers; of a damaged store those of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode statStore(const StatOptions& options) {
  InspectedStore store(options.store, {}, {}, options.wait);
  const Numbers numbers = measure(store, Part(store, options.path));
  Answer answer(options.asJson);
  tellMembers(store, options.path, numbers, answer);
  tellBytes(store, options.path, numbers, answer);
  tellTransfers(store, answer);
  answer.finish();
  store.complainOfDamage();
  return store.outcome();
}

}  // namespace

void addStat(CommandLine& line) {
  const auto options = std::make_shared<StatOptions>();
  CLI::App& words =
      line.add("stat", "Count what is in STORE, or in PATH of it, and what its bytes are spent on",
               "  hxcrate stat docs.st guide\n"
               "  hxcrate stat --json docs.st",
               [options] { return statStore(*options); });
  addStore(words, options->store);
  addMemberPath(words, options->path, "a store or an item in it, as a/b/c");
  words.add_flag("--json", options->asJson, "as JSON");
  addWait(words, options->wait);
}

}  // namespace tool
