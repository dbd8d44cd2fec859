#include "list.h"

#include <cstdio>
#include <optional>
#include <span>
#include <vector>

#include "output.h"
#include "store_walk.h"

namespace tool {

namespace {

constexpr std::size_t kTransferSize = 256 * 1024;
constexpr int kSizeColumn = 10;  // the longest item's size

class Lister {
 public:
  explicit Lister(const ListOptions& options) : options_(options) {}

  ExitCode list() {
    hxcrate::Session session;
    hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    if (std::optional<hxcrate::Store> start = findStore(store)) {
      listStore(*std::move(start));
    } else {
      printItemLine(store, options_.path, options_.path);
    }
    output_.finish();
    return outcome_;
  }

 private:
  // Nothing when the path is an item's. Throws when it is nobody's.
  std::optional<hxcrate::Store> findStore(hxcrate::Store& store) const {
    if (options_.path.empty()) return std::move(store);
    try {
      return store.openStore(options_.path);
    } catch (const hxcrate::Error& error) {
      if (error.errc() != hxcrate::Errc::notFound) throw;
    }
    store.read(options_.path).close();
    return std::nullopt;
  }

  void listStore(hxcrate::Store start) {
    const std::size_t prefix = start.place().empty() ? 0 : start.place().size() + 1;
    StoreWalk walk(std::move(start));
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) continue;
      const std::string& place = walk.container().place();
      const std::string path = (place.empty() ? "" : place + "/") + walk.name();
      const std::string shown = path.substr(prefix);
      if (event == StoreWalk::Event::item) {
        printItemLine(walk.container(), walk.name(), shown);
      } else {
        printLine("-", shown + "/");
        if (options_.recursive) enter(walk);
      }
    }
  }

  void enter(StoreWalk& walk) {
    try {
      walk.enter();
    } catch (const hxcrate::Error& error) {
      note(error);
    }
  }

  void printItemLine(const hxcrate::Store& store, const std::string& path,
                     const std::string& shown) {
    std::string size = "?";
    if (options_.withSizes) {
      try {
        size = std::to_string(store.read(path).size());
      } catch (const hxcrate::Error& error) {
        note(error);
      }
    }
    printLine(size, shown);
  }

  void note(const hxcrate::Error& error) {
    complain(error);
    outcome_ = worse(outcome_, ExitCode::damaged);
  }

  void printLine(const std::string& size, const std::string& name) {
    if (options_.withSizes) {
      output_.write(std::string(static_cast<std::size_t>(kSizeColumn) - size.size(), ' '));
      output_.write(size + "  ");
    }
    output_.writeName(name);
    output_.write("\n");
  }

  const ListOptions& options_;
  Output output_;
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

ExitCode list(const ListOptions& options) {
  return Lister(options).list();
}

ExitCode printItem(const std::string& store, const std::string& path) {
  ExitCode outcome = ExitCode::fine;
  hxcrate::Session session;
  const hxcrate::Store opened = openWhatThereIs(session, store, outcome);
  hxcrate::Reader reader = opened.read(path);
  Output output;
  std::vector<std::byte> buffer(kTransferSize);
  while (const std::size_t count = reader.read(buffer))
    output.write(std::span(buffer).first(count));
  output.finish();
  return outcome;
}

}  // namespace tool
