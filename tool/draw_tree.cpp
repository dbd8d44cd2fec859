// hxcrate tree: what a store holds, as a drawing.

#include <fmt/format.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "command_line.h"
#include "inspected_store.h"
#include "output.h"
#include "store_walk.h"

namespace tool {

namespace {

struct TreeOptions {
  std::string store;
  std::string path;
  bool asAscii = false;
};

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
      : options_(options), strokes_(options.asAscii ? kAscii : kLines), sizes_(options.store) {}

  ExitCode draw() {
    hxcrate::Session session;
    hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    std::optional<hxcrate::Store> start = openIfStore(store, options_.path);
    output_.writeName(options_.path.empty() ? options_.store : options_.path);
    if (start) {
      output_.write("\n");
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
    StoreWalk walk(std::move(start));
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) {
        margin_.resize(marginLengths_.back());
        marginLengths_.pop_back();
        continue;
      }
      output_.write(margin_);
      output_.write(walk.isLast() ? strokes_.last : strokes_.branch);
      output_.writeName(walk.name());
      event == StoreWalk::Event::item ? drawSize(walk.container(), walk.name()) : enter(walk);
    }
  }

  void enter(StoreWalk& walk) {
    output_.write("/\n");
    ++stores_;
    const char* beside = walk.isLast() ? strokes_.blank : strokes_.through;
    if (!enterOrNote(walk, outcome_)) return;
    marginLengths_.push_back(margin_.size());
    margin_ += beside;
  }

  void drawSize(const hxcrate::Store& store, const std::string& path) {
    ++items_;
    const std::optional<std::int64_t> size = sizes_.sizeOrNote(store, path, outcome_);
    bytes_ += size.value_or(0);
    output_.print("  {}\n", size ? fmt::to_string(*size) : "?");
  }

  void drawSummary() {
    output_.print("\n{}, {}, {}\n", countThings(stores_, "store"), countThings(items_, "item"),
                  countThings(bytes_, "byte"));
  }

  const TreeOptions& options_;
  const Strokes strokes_;
  Output output_;
  ItemSizes sizes_;
  std::string margin_;
  std::vector<std::size_t> marginLengths_;  // of the stores around the current one
  std::int64_t stores_ = 0;
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
  words.add_flag("--ascii", options->asAscii, "draw with ASCII instead of UTF-8 characters");
}

}  // namespace tool
