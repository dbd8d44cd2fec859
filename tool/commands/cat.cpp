// hxcrate cat: the bytes of items.

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/inspected_store.h"
#include "tool/files/output.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

struct CatOptions {
  std::string store;
  std::vector<std::string> paths;
  std::int64_t wait = 0;  // seconds
  std::int64_t offset = 0;
  std::int64_t length = BytePump::kEverything;  // of each item
};

class Printer {
 public:
  explicit Printer(const CatOptions& options)
      : options_(options), session_(waitingFor(options.wait)) {}

  // An item that can't be printed does not keep the others from it.
  ExitCode print() {
    const hxcrate::Store store = openWhatThereIs(session_, options_.store, outcome_);
    for (const std::string& path : options_.paths) {
      try {
        print(store, path);
      } catch (const hxcrate::Error& error) {
        complain(error);
        outcome_ = worse(outcome_, exitCodeOf(error));
      }
    }
    output_.finish();
    return outcome_;
  }

 private:
  void print(const hxcrate::Store& store, const std::string& path) {
    const std::optional<hxcrate::View> view = openIfItem(store, path);
    if (!view) {
      complain(options_.store, path.empty() ? "/" : path, "is a store");
      outcome_ = worse(outcome_, ExitCode::notOpenable);
      return;
    }
    const bool isFar = hxcrate::isUrl(options_.store);
    if (!isFar || progress_.isShown()) expect(view->size() - options_.offset);
    std::int64_t at = options_.offset;
    const auto take = [&](std::span<std::byte> room) {
      const std::size_t count = view->readAt(at, room);
      at += static_cast<std::int64_t>(count);
      return count;
    };
    pump_.move(options_.length, take,
               [&](std::span<const std::byte> bytes) { output_.write(bytes); });
  }

  // All records have been looked at then, so that nothing is printed of an item that is damaged.
  // Far away they come with the bytes, and nobody waits for them.
  void expect(std::int64_t bytes) {
    expected_ += std::clamp<std::int64_t>(bytes, 0, options_.length);
    progress_.expect(expected_, static_cast<std::int64_t>(options_.paths.size()));
  }

  const CatOptions& options_;
  hxcrate::Session session_;
  Output output_;
  Progress progress_{"printing", !output_.isTerminal()};
  std::int64_t expected_ = 0;  // bytes of the items so far
  BytePump pump_{&progress_};
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

void addCat(CommandLine& line) {
  const auto options = std::make_shared<CatOptions>();
  CLI::App& words =
      line.add("cat", "Print the bytes of items",
               "  hxcrate cat docs.st guide/intro.txt guide/usage.txt\n"
               "  hxcrate cat --offset 512 --length 16 docs.st image | xxd",
               [options] { return seeLostMembers(options->store, Printer(*options).print()); });
  addStore(words, options->store);
  addMemberPaths(words, options->paths, "items, as a/b/c")->required();
  addCount(words, "--offset", options->offset, "begin at this byte of each item, from 0");
  addCount(words, "--length", options->length, "print at most so many bytes of each item");
  addWait(words, options->wait);
}

}  // namespace tool
