// hxcrate stat: what is in a store file, in numbers.
//
// Under --json, in this order; sizes in bytes:
//   store      as given
//   name       in the file's first ENTRY, a name
//   encoding   identity of the file's encoding
//   pageSize   of the store; 0: the header states none
//   stores     how many, the whole store included
//   items      how many
//   depth      of stores in stores; 1: none is nested; 0: there is no directory
//   largest    object: path (a name) and size of the largest item; missing without items
//   bytes      object: header, entries, chunks, data, slack, unreachable, which add up to file
//   copySaves  how much shorter a copy is
//   damaged    whether an error was found
#include <algorithm>
#include <array>
#include <cstdio>
#include <memory>
#include <numeric>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "inspected_store.h"
#include "json.h"

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

std::string percentOf(std::int64_t part, std::int64_t whole) {
  std::array<char, 16> text{};
  const double percent = 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  std::snprintf(text.data(), text.size(), "%5.1f %%", percent);
  return text.data();
}

void printJson(const InspectedStore& store, const Numbers& numbers, Output& output) {
  const hxcrate::Inspection& inspection = store.inspection();
  JsonWriter json(output);
  json.writeName("store", store.file().name());
  json.writeName("name", nameOfTop(store));
  json.writeText("encoding", inspection.encoding());
  json.writeNumber("pageSize", inspection.pageSize());
  json.writeNumber("stores", store.count(hxcrate::MemberKind::store));
  json.writeNumber("items", store.count(hxcrate::MemberKind::item));
  json.writeNumber("depth", static_cast<std::int64_t>(inspection.depth()));
  if (numbers.largest != hxcrate::kNoMember) {
    json.beginObject("largest");
    json.writeName("path", inspection.pathOf(numbers.largest));
    json.writeNumber("size", inspection.members()[numbers.largest].size);
    json.endObject();
  }
  json.beginObject("bytes");
  for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind)
    json.writeNumber(nameOf(static_cast<ByteKind>(kind)), numbers.bytes[kind]);
  json.writeNumber("file", numbers.file());
  json.endObject();
  json.writeNumber("copySaves", numbers.of(ByteKind::unreachable));
  json.writeFlag("damaged", store.count(hxcrate::Severity::error) > 0);
  json.finish();
}

void printLine(Output& output, std::string_view label, const std::string& value) {
  constexpr std::size_t kLabelWidth = 13;
  output.write(label);
  output.write(std::string(kLabelWidth - std::min(kLabelWidth, label.size()), ' ') + value + "\n");
}

void printBytes(Output& output, const Numbers& numbers) {
  const auto print = [&](std::string_view label, std::int64_t bytes, const char* meaning) {
    std::string value = std::to_string(bytes);
    value.insert(0, 14 - std::min<std::size_t>(14, value.size()), ' ');
    printLine(output, label, value + " bytes  " + percentOf(bytes, numbers.file()) + meaning);
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

void printText(const InspectedStore& store, const Numbers& numbers, Output& output) {
  const hxcrate::Inspection& inspection = store.inspection();
  printLine(output, "name", escape(nameOfTop(store)));
  printLine(output, "encoding", escape(inspection.encoding()));
  printLine(output, "page size", std::to_string(inspection.pageSize()));
  printLine(output, "stores",
            std::to_string(store.count(hxcrate::MemberKind::store)) + ", at most " +
                std::to_string(inspection.depth()) + " deep");
  printLine(output, "items", std::to_string(store.count(hxcrate::MemberKind::item)));
  if (numbers.largest != hxcrate::kNoMember) {
    printLine(output, "largest",
              escape(inspection.pathOf(numbers.largest)) + ", " +
                  std::to_string(inspection.members()[numbers.largest].size) + " bytes");
  }
  printBytes(output, numbers);
}

// Prints the numbers; of a damaged store those of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode statStore(const StatOptions& options) {
  InspectedStore store(options.store);
  const Numbers numbers = measure(store);
  Output output;
  if (options.asJson) {
    printJson(store, numbers, output);
  } else {
    printText(store, numbers, output);
    output.finish();
  }
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
