// hxcrate stat: what is in a store file, in numbers.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <string>

#include "answer.h"
#include "command_line.h"
#include "inspected_store.h"
#include "size_forecast.h"

namespace tool {

namespace {

struct StatOptions {
  std::string store;
  bool asJson = false;
};

using hxcrate::ByteKind;
using hxcrate::InspectedMember;

constexpr ByteKind kKinds[] = {ByteKind::data,  ByteKind::entry,       ByteKind::chunk,
                               ByteKind::slack, ByteKind::unreachable, ByteKind::header};

struct Numbers {
  std::array<std::int64_t, hxcrate::kByteKinds> bytes{};
  std::size_t largest = hxcrate::kNoMember;  // item

  std::int64_t of(ByteKind kind) const { return bytes[static_cast<std::size_t>(kind)]; }
  std::int64_t file() const { return std::accumulate(bytes.begin(), bytes.end(), std::int64_t{0}); }
};

Numbers measure(InspectedStore& store) {
  Numbers numbers;
  store.inspection().walkPages({.onExtent = [&](const hxcrate::Extent& extent) {
    numbers.bytes[static_cast<std::size_t>(extent.kind)] += extent.length;
  }});
  const std::vector<InspectedMember>& members = store.inspection().members();
  for (std::size_t i = 0; i < members.size(); ++i) {
    if (members[i].kind != hxcrate::MemberKind::item) continue;
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

void tellMembers(const InspectedStore& store, const Numbers& numbers, Answer& answer) {
  const hxcrate::Inspection& inspection = store.inspection();
  const std::int64_t stores = store.count(hxcrate::MemberKind::store);
  const std::int64_t items = store.count(hxcrate::MemberKind::item);
  const std::int32_t copied = pageSizeOfCopy(store);
  answer.tell(
      [&](Output& text) {
        printLine(text, "name", escape(nameOfTop(store)));
        printLine(text, "encoding", escape(inspection.encoding()));
        printLine(text, "page size",
                  fmt::format("{}; a copy would choose {}", inspection.pageSize(), copied));
        printLine(text, "stores", fmt::format("{}, at most {} deep", stores, inspection.depth()));
        printLine(text, "items", fmt::to_string(items));
      },
      [&](JsonWriter& json) {
        json.writeName("store", store.file().name());
        json.writeName("name", nameOfTop(store));
        json.writeText("encoding", inspection.encoding());
        json.writeNumber("pageSize", inspection.pageSize());
        json.writeNumber("pageSizeOfCopy", copied);
        json.writeNumber("stores", stores);
        json.writeNumber("items", items);
        json.writeNumber("depth", static_cast<std::int64_t>(inspection.depth()));
      });
  if (numbers.largest == hxcrate::kNoMember) return;
  const std::string path = inspection.pathOf(numbers.largest);
  const std::int64_t size = inspection.members()[numbers.largest].size;
  answer.tell(
      [&](Output& text) {
        printLine(text, "largest", fmt::format("{}, {} bytes", escape(path), size));
      },
      [&](JsonWriter& json) {
        json.beginObject("largest");
        json.writeName("path", path);
        json.writeNumber("size", size);
        json.endObject();
      });
}

void printBytes(Output& text, const Numbers& numbers) {
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
  print("file", numbers.file(), "");
  print("overhead", numbers.file() - numbers.of(ByteKind::data), "  all but data");
}

void tellBytes(const InspectedStore& store, const Numbers& numbers, Answer& answer) {
  answer.tell([&](Output& text) { printBytes(text, numbers); },
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

// Prints the numbers; of a damaged store those of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode statStore(const StatOptions& options) {
  InspectedStore store(options.store);
  const Numbers numbers = measure(store);
  Answer answer(options.asJson);
  tellMembers(store, numbers, answer);
  tellBytes(store, numbers, answer);
  answer.finish();
  store.complainOfDamage();
  return store.outcome();
}

}  // namespace

void addStat(CommandLine& line) {
  const auto options = std::make_shared<StatOptions>();
  CLI::App& words = line.add("stat", "Count what is in STORE, and what its bytes are spent on",
                             "  hxcrate stat docs.st\n"
                             "  hxcrate stat --json docs.st",
                             [options] { return statStore(*options); });
  addStore(words, options->store);
  words.add_flag("--json", options->asJson, "as JSON");
}

}  // namespace tool
