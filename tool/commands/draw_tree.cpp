// hxcrate tree: what a store holds, as a drawing.

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/files/output.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

struct TreeOptions {
  std::string store;
  std::string path;
  bool storesOnly = false;
  bool asAscii = false;
  std::string colour = "auto";
  std::int64_t wait = 0;  // seconds
};

std::vector<hxcrate::Member> listStores(const hxcrate::Store& store) {
  std::vector<hxcrate::Member> members = listSorted(store);
  std::erase_if(members,
                [](const auto& member) { return member.kind != hxcrate::MemberKind::store; });
  return members;
}

struct Strokes {
  const char* through;  // beside what a store that goes on holds
  const char* blank;
  const char* branch;
  const char* last;
};

constexpr Strokes kLines = {"│   ", "    ", "├── ", "└── "};
constexpr Strokes kAscii = {"|   ", "    ", "|-- ", "`-- "};

class Drawer {
 public:
  explicit Drawer(const TreeOptions& options)
      : options_(options), strokes_(options.asAscii ? kAscii : kLines), output_(options.colour) {}

  ExitCode draw() {
    hxcrate::Session session(waitingFor(options_.wait));
    hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    std::optional<hxcrate::Store> start = openIfStore(store, options_.path);
    output_.write(
        escape(options_.path.empty() ? hxcrate::showPath(options_.store) : options_.path));
    if (start) {
      if (options_.storesOnly) measure(session);
      output_.write(options_.storesOnly ? fmt::format("  {}\n", bytes_) : "\n");
      drawStore(*std::move(start));
    } else {
      drawSize(store, options_.path);
    }
    drawSummary();
    output_.finish();
    return outcome_;
  }

 private:
  void drawStore(hxcrate::Store start) {
    StoreWalk walk(std::move(start), nullptr, options_.storesOnly ? listStores : listSorted);
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) {
        margin_.resize(marginLengths_.back());
        marginLengths_.pop_back();
        continue;
      }
      output_.write(margin_);
      output_.write(walk.isLast() ? strokes_.last : strokes_.branch);
      if (event == StoreWalk::Event::item) {
        output_.write(escape(walk.name()));
        drawSize(walk.container(), walk.name());
      } else {
        enter(walk);
      }
    }
  }

  void enter(StoreWalk& walk) {
    output_.writeStoreName(escape(walk.name()));
    ++stores_;
    output_.write(options_.storesOnly ? fmt::format("  {}\n", sums_[stores_]) : "\n");
    const char* beside = walk.isLast() ? strokes_.blank : strokes_.through;
    if (!enterOrNote(walk, outcome_)) return;
    marginLengths_.push_back(margin_.size());
    margin_ += beside;
  }

  // What the items below each store have together, before any is drawn.
  void measure(hxcrate::Session& session) {
    hxcrate::Store all = session.open(options_.store, hxcrate::Mode::read, {.acceptDamaged = true});
    StoreWalk walk(*openIfStore(all, options_.path));
    std::vector<std::size_t> open = {0};
    sums_.assign(1, 0);
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) {
        const std::int64_t sum = sums_[open.back()];
        open.pop_back();
        sums_[open.back()] += sum;
      } else if (event == StoreWalk::Event::item) {
        ++items_;
        sums_[open.back()] +=
            sizes_.sizeOrNote(walk.container(), walk.name(), outcome_).value_or(0);
      } else {
        sums_.push_back(0);
        if (enterOrPass(walk)) open.push_back(sums_.size() - 1);
      }
    }
    bytes_ = sums_[0];
  }

  // What can't be read is told of when it is drawn.
  static bool enterOrPass(StoreWalk& walk) {
    try {
      walk.enter();
      return true;
    } catch (const hxcrate::Error&) {
      return false;
    }
  }

  void drawSize(const hxcrate::Store& store, const std::string& path) {
    ++items_;
    const std::optional<std::int64_t> size = sizes_.sizeOrNote(store, path, outcome_);
    bytes_ += size.value_or(0);
    output_.print("  {}\n", size ? fmt::to_string(*size) : "?");
  }

  void drawSummary() {
    output_.print("\n{}, {}, {}\n", countThings(static_cast<std::int64_t>(stores_), "store"),
                  countThings(items_, "item"), countThings(bytes_, "byte"));
  }

  const TreeOptions& options_;
  const Strokes strokes_;
  Output output_;
  ItemSizes sizes_;
  std::string margin_;
  std::vector<std::size_t> marginLengths_;  // of the stores around the current one
  std::vector<std::int64_t> sums_;          // of bytes, by store in the order of the walk
  std::size_t stores_ = 0;
  std::int64_t items_ = 0;
  std::int64_t bytes_ = 0;
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

void addTree(CommandLine& line) {
  const auto options = std::make_shared<TreeOptions>();
  CLI::App& words = line.add("tree", "Draw what STORE holds, with the sizes of items in bytes",
                             "  hxcrate tree docs.st guide", [options] {
                               return seeLostMembers(options->store, Drawer(*options).draw());
                             });
  addStore(words, options->store);
  addMemberPath(words, options->path, "a store in it to draw alone, as a/b/c");
  words.add_flag("-d", options->storesOnly, "stores alone, with the bytes of all items in them");
  words.add_flag("--ascii", options->asAscii, "draw with ASCII instead of UTF-8 characters");
  addColour(words, options->colour);
  addWait(words, options->wait);
}

}  // namespace tool
