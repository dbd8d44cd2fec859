// hxcrate map: who owns every byte of a store file.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <string>

#include "tool/command_line.h"
#include "tool/files/new_file.h"
#include "tool/report/answer.h"
#include "tool/report/byte_map.h"
#include "tool/report/map_picture.h"
#include "tool/trees/planted_journal.h"

namespace tool {

namespace {

struct MapOptions {
  std::string store;
  std::string svg;  // a file to make, "-" for standard output; empty: text
  bool asJson = false;
  std::string colour = "auto";
  std::int64_t wait = 0;  // seconds
};

using hxcrate::ByteKind;

constexpr std::size_t kOwnersShown = 10;
constexpr std::size_t kFoldersShown = 20;

struct Look {
  char letter;
  const char* colour;  // what a terminal is told
  const char* meaning;
};

constexpr Look kLooks[hxcrate::kByteKinds] = {{'H', "\x1b[41;37m", "header"},
                                              {'e', "\x1b[43;30m", "members' records"},
                                              {'c', "\x1b[45;37m", "pages' records"},
                                              {'#', "\x1b[44;37m", "what items hold"},
                                              {'-', "\x1b[46;30m", "room behind items' ends"},
                                              {'.', "\x1b[0m", "nobody's"}};

class TextMap {
 public:
  TextMap(const InspectedStore& store, const ByteMap& map, Output& output)
      : store_(store), map_(map), output_(output) {}

  void print() {
    output_.print("One character is {} bytes and shows what most of them are.\n\n",
                  map_.bytesPerCell());
    printRows();
    printTotals();
    printOwners();
    printFolders();
  }

 private:
  void printRows() {
    const auto& cells = map_.cells();
    for (std::size_t start = 0; start < cells.size(); start += ByteMap::kCellsPerRow) {
      const std::size_t end = std::min(cells.size(), start + ByteMap::kCellsPerRow);
      output_.print("{:>12}  ", static_cast<std::int64_t>(start) * map_.bytesPerCell());
      const Look* last = nullptr;
      for (std::size_t i = start; i < end; ++i)
        printCell(cells[i], last);
      output_.write(output_.isColoured() ? "\x1b[0m\n" : "\n");
    }
  }

  void printCell(const MapCell& cell, const Look*& last) {
    const Look& look = kLooks[static_cast<std::size_t>(mainKindOf(cell))];
    if (output_.isColoured() && &look != last) output_.write(look.colour);
    last = &look;
    output_.write(std::string(1, look.letter));
  }

  void printTotals() {
    output_.write("\n");
    for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind) {
      const Look& look = kLooks[kind];
      const std::string_view name = nameOf(static_cast<ByteKind>(kind));
      const bool isColoured = output_.isColoured();
      output_.print("{:>12}  {}{}{}  {}", map_.totals()[kind], isColoured ? look.colour : "",
                    look.letter, isColoured ? "\x1b[0m" : "", name);
      output_.write(name == look.meaning ? "\n" : fmt::format(", {}\n", look.meaning));
    }
    const auto& totals = map_.totals();
    const std::int64_t sum = std::accumulate(totals.begin(), totals.end(), std::int64_t{0});
    output_.print("{:>12}     the whole file\n", sum);
  }

  void printOwners() {
    const std::vector<MapOwner> owners = map_.findLargestOwners(kOwnersShown);
    if (!owners.empty()) output_.write("\nWhat owns most, records and room included:\n");
    for (const MapOwner& owner : owners) {
      output_.print("{:>12}  {}\n", owner.bytes,
                    showPlace(store_.inspection().pathOf(owner.member)));
    }
  }

  void printFolders() {
    const std::vector<FolderCost>& folders = map_.folders();
    if (folders.empty()) return;
    output_.print("\nWhat the items of folders take, and would with pages of the best size:\n");
    output_.print("{:>12}  {:>12}  {:>12}  {:>8}  {:>12}\n", "takes", "of it data", "room",
                  "pages of", "would take");
    const std::size_t shown = std::min(folders.size(), kFoldersShown);
    for (const FolderCost& folder : std::span(folders).first(shown)) {
      output_.print("{:>12}  {:>12}  {:>12}  {:>8}  {:>12}  {}\n", folder.takes, folder.data,
                    folder.slack, folder.bestPageSize, folder.bestTakes,
                    showPlace(store_.inspection().pathOf(folder.store)));
    }
    if (shown == folders.size()) return;
    output_.print("and {}, which --json tells\n",
                  countThings(static_cast<std::int64_t>(folders.size() - shown), "folder"));
  }

  const InspectedStore& store_;
  const ByteMap& map_;
  Output& output_;
};

void writeFolders(const InspectedStore& store, FolderCosts& costs, JsonWriter& json) {
  json.beginArray("folders");
  for (const FolderCost& folder : costs.finish()) {
    json.beginObject();
    json.writeName("path", store.inspection().pathOf(folder.store));
    json.writeNumber("items", folder.items);
    json.writeNumber("takes", folder.takes);
    json.writeNumber("data", folder.data);
    json.writeNumber("slack", folder.slack);
    json.writeNumber("bestPageSize", folder.bestPageSize);
    json.writeNumber("bestTakes", folder.bestTakes);
    json.endObject();
  }
  json.endArray();
}

void writeExtents(InspectedStore& store, JsonWriter& json) {
  FolderCosts costs(store.inspection());
  json.writeName("store", store.file().name());
  json.beginArray("extents");
  KindBytes totals{};
  store.inspection().walkPages({.onExtent = [&](const hxcrate::Extent& extent) {
    totals[static_cast<std::size_t>(extent.kind)] += extent.length;
    costs.add(extent);
    json.beginObject();
    json.writeText("kind", nameOf(extent.kind));
    json.writeNumber("offset", extent.offset);
    json.writeNumber("length", extent.length);
    if (extent.member != hxcrate::kNoMember) {
      json.writeName("path", store.inspection().pathOf(extent.member));
    }
    json.endObject();
  }});
  json.endArray();
  writeFolders(store, costs, json);
  json.beginObject("bytes");
  for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind)
    json.writeNumber(nameOf(static_cast<ByteKind>(kind)), totals[kind]);
  json.writeNumber("file", std::accumulate(totals.begin(), totals.end(), std::int64_t{0}));
  json.endObject();
  json.writeFlag("damaged", store.count(hxcrate::Severity::error) > 0);
}

void writePicture(const MapOptions& options, const std::string& picture) {
  if (options.svg == "-") {
    Output output;
    output.write(picture);
    return output.finish();
  }
  const FilePlace place = locateFile(options.svg);
  refuseJournalName(place.directory, place.name, options.svg);
  NewFile file(place.directory, place.name, options.svg);
  if (!writeAll(file.descriptor(), std::as_bytes(std::span(picture)))) {
    throw systemFailure(options.svg, "write");
  }
  if (file.deliver()) return;
  throw Failure(ExitCode::inputOutput, options.svg, "", "exists already");
}

// Prints or draws the map; of a damaged store of what can be reached, with a complaint and
// ExitCode::damaged. Throws Failure or hxcrate::Error.
ExitCode map(const MapOptions& options) {
  InspectedStore store(options.store, {}, {}, options.wait);
  if (!options.svg.empty()) {
    writePicture(options, drawMap(store, ByteMap(store)));
  } else {
    Answer answer(options.asJson, options.colour);
    answer.tell([&](Output& text) { TextMap(store, ByteMap(store), text).print(); },
                [&](JsonWriter& json) { writeExtents(store, json); });
    answer.finish();
  }
  store.complainOfDamage();
  return store.outcome();
}

}  // namespace

void addMap(CommandLine& line) {
  const auto options = std::make_shared<MapOptions>();
  CLI::App& words = line.add("map", "Show who owns every byte of STORE",
                             "  hxcrate map docs.st\n"
                             "  hxcrate map --svg docs.svg docs.st",
                             [options] { return map(*options); });
  addStore(words, options->store);
  CLI::Option* svg =
      words.add_option("--svg", options->svg, "draw it into the new file FILE; -: standard output");
  svg->type_name("FILE");
  words.add_flag("--json", options->asJson, "as JSON")->excludes(svg);
  addColour(words, options->colour);
  addWait(words, options->wait);
}

}  // namespace tool
