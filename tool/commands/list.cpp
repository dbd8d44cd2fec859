// hxcrate ls: the members of a store, one a line, by the bytes of their names.

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/report/answer.h"
#include "tool/report/progress.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

struct ListOptions {
  std::string store;
  std::string path;  // of a member; empty: the store itself
  SelectionOptions selected;
  bool withSizes = false;
  bool roundSizes = false;
  bool recursive = false;
  bool reverse = false;
  bool endWithNul = false;
  std::string sort = "name";
  bool asJson = false;
  std::string colour = "auto";
  std::int64_t wait = 0;  // seconds
};

// What comes first is largest. A store has no size, and no more has what can't be read.
void sortBySize(const hxcrate::Store& store, ItemSizes& known,
                std::vector<hxcrate::Member>& members) {
  std::unordered_map<std::string, std::int64_t> sizes;
  for (const hxcrate::Member& member : members) {
    const bool isItem = member.kind == hxcrate::MemberKind::item;
    sizes[member.name] = isItem ? known.sizeIfReadable(store, member.name).value_or(-1) : -1;
  }
  std::stable_sort(members.begin(), members.end(),
                   [&](const auto& a, const auto& b) { return sizes[a.name] > sizes[b.name]; });
}

std::vector<hxcrate::Member> listAsAsked(const hxcrate::Store& store, const ListOptions& options,
                                         ItemSizes& known) {
  std::vector<hxcrate::Member> members;
  if (options.sort == "none") {
    std::ranges::copy(store.members(), std::back_inserter(members));
  } else {
    members = listSorted(store);
  }
  if (options.sort == "size") sortBySize(store, known, members);
  if (options.reverse) std::reverse(members.begin(), members.end());
  return members;
}

// In text a nested store's name ends in "/".
class Lister {
 public:
  explicit Lister(const ListOptions& options)
      : options_(options), selection_(options.selected), answer_(options.asJson, options.colour) {}

  ExitCode list() {
    hxcrate::Session session(waitingFor(options_.wait));
    hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    std::optional<hxcrate::Store> start = openIfStore(store, options_.path);
    answer_.tellPrograms([&](JsonWriter& json) {
      json.writeName("store", hxcrate::showPath(options_.store));
      json.writeName("path", options_.path);
      json.beginArray("members");
    });
    if (start) {
      listStore(*std::move(start));
    } else {
      addItem(store, options_.path, options_.path);
    }
    answer_.tellPrograms([](JsonWriter& json) { json.endArray(); });
    answer_.finish();
    return outcome_;
  }

 private:
  void listStore(hxcrate::Store start) {
    const std::string outer = start.place();
    const std::size_t prefix = outer.empty() ? 0 : outer.size() + 1;
    StoreWalk walk(std::move(start), &selection_, [this](const hxcrate::Store& store) {
      return listAsAsked(store, options_, sortedSizes_);
    });
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) continue;
      const std::string shown = walk.place().substr(prefix);
      if (event == StoreWalk::Event::item) {
        addItem(walk.container(), walk.name(), shown);
      } else {
        answer_.tell([&](Output& text) { printLine(text, "-", shown, true); },
                     [&](JsonWriter& json) { writeMember(json, shown, "store", std::nullopt); });
        if (options_.recursive) enterOrNote(walk, outcome_);
      }
    }
  }

  void addItem(const hxcrate::Store& store, const std::string& path, const std::string& shown) {
    std::optional<std::int64_t> size;
    if (options_.withSizes || options_.asJson) size = sizes_.sizeOrNote(store, path, outcome_);
    answer_.tell([&](Output& text) { printLine(text, show(size), shown, false); },
                 [&](JsonWriter& json) { writeMember(json, shown, "item", size); });
  }

  std::string show(std::optional<std::int64_t> size) const {
    if (!size) return "?";
    return options_.roundSizes ? describeBytes(*size) : fmt::to_string(*size);
  }

  void printLine(Output& text, const std::string& size, const std::string& path,
                 bool isStore) const {
    if (options_.withSizes) text.print("{:>10}  ", size);  // has room for the longest item's
    const std::string shown = text.isTerminal() ? escape(path) : path;
    isStore ? text.writeStoreName(shown) : text.write(shown);
    text.write(options_.endWithNul ? std::string_view("\0", 1) : "\n");
  }

  static void writeMember(JsonWriter& json, const std::string& path, std::string_view kind,
                          std::optional<std::int64_t> size) {
    json.beginObject();
    json.writeName("path", path);
    json.writeText("kind", kind);
    if (size) json.writeNumber("size", *size);
    json.endObject();
  }

  const ListOptions& options_;
  const Selection selection_;
  Answer answer_;
  ItemSizes sizes_;
  ItemSizes sortedSizes_{2};  // a selection makes the walk twice
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

void addLs(CommandLine& line) {
  const auto isOrder = [](const std::string& order) {
    return order == "name" || order == "size" || order == "none"
               ? ""
               : "name, size or none, not " + order;
  };
  const auto options = std::make_shared<ListOptions>();
  CLI::App& words =
      line.add("ls", "List the members of STORE, or of the store PATH in it",
               "  hxcrate ls -lR docs.st\n"
               "  hxcrate ls --json docs.st guide",
               [options] { return seeLostMembers(options->store, Lister(*options).list()); });
  words.set_help_flag("--help", "Print this help message and exit");
  addStore(words, options->store);
  addMemberPath(words, options->path, "a store or an item in it, as a/b/c");
  words.add_flag("-l", options->withSizes, "with the sizes of items, in bytes");
  words.add_flag("-h", options->roundSizes, "sizes as 1.2 MB");
  words.add_flag("-R", options->recursive, "with all that nested stores hold");
  words.add_flag("-r", options->reverse, "in reverse order");
  words.add_option("--sort", options->sort, "by name, by size, or none: as they lie in the file")
      ->check(CLI::Validator(isOrder, ""))
      ->type_name("ORDER");
  CLI::Option* endWithNul =
      words.add_flag("-0", options->endWithNul, "end names with NUL instead of a new line");
  words.add_flag("--json", options->asJson, "as JSON, with sizes")->excludes(endWithNul);
  addSelection(words, options->selected);
  addColour(words, options->colour);
  addWait(words, options->wait);
}

}  // namespace tool
