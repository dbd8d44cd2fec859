// hxcrate ls: the members of a store, one a line, by the bytes of their names.

#include <memory>
#include <optional>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "json.h"
#include "output.h"
#include "store_walk.h"

namespace tool {

namespace {

constexpr std::size_t kSizeColumn = 10;  // the longest item's size

struct ListOptions {
  std::string store;
  std::string path;  // of a member; empty: the store itself
  bool withSizes = false;
  bool recursive = false;
  bool endWithNul = false;
  bool asJson = false;
};

// How a member is shown.
class Listing {
 public:
  virtual ~Listing() = default;
  virtual void addStore(const std::string& path) = 0;
  // No size: it could not be read, or was not asked for.
  virtual void addItem(const std::string& path, std::optional<std::int64_t> size) = 0;
  virtual void finish() = 0;
};

// A nested store's name ends in "/".
class PlainListing : public Listing {
 public:
  explicit PlainListing(const ListOptions& options) : options_(options) {}

  void addStore(const std::string& path) override { add("-", path + "/"); }
  void addItem(const std::string& path, std::optional<std::int64_t> size) override {
    add(size ? std::to_string(*size) : "?", path);
  }
  void finish() override { output_.finish(); }

 private:
  void add(const std::string& size, const std::string& path) {
    if (options_.withSizes) {
      output_.write(std::string(kSizeColumn - size.size(), ' '));
      output_.write(size + "  ");
    }
    output_.writeName(path);
    output_.write(options_.endWithNul ? std::string_view("\0", 1) : "\n");
  }

  const ListOptions& options_;
  Output output_;
};

class JsonListing : public Listing {
 public:
  explicit JsonListing(const ListOptions& options) : json_(output_) {
    json_.writeName("store", options.store);
    json_.writeName("path", options.path);
    json_.beginArray("members");
  }

  void addStore(const std::string& path) override {
    begin(path, "store");
    json_.endObject();
  }
  void addItem(const std::string& path, std::optional<std::int64_t> size) override {
    begin(path, "item");
    if (size) json_.writeNumber("size", *size);
    json_.endObject();
  }
  void finish() override {
    json_.endArray();
    json_.finish();
  }

 private:
  void begin(const std::string& path, std::string_view kind) {
    json_.beginObject();
    json_.writeName("path", path);
    json_.writeText("kind", kind);
  }

  Output output_;
  JsonWriter json_;
};

std::unique_ptr<Listing> makeListing(const ListOptions& options) {
  if (options.asJson) return std::make_unique<JsonListing>(options);
  return std::make_unique<PlainListing>(options);
}

class Lister {
 public:
  explicit Lister(const ListOptions& options) : options_(options) {}

  ExitCode list() {
    hxcrate::Session session;
    hxcrate::Store store = openWhatThereIs(session, options_.store, outcome_);
    std::optional<hxcrate::Store> start = openIfStore(store, options_.path);
    listing_ = makeListing(options_);
    if (start) {
      listStore(*std::move(start));
    } else {
      addItem(store, options_.path, options_.path);
    }
    listing_->finish();
    return outcome_;
  }

 private:
  void listStore(hxcrate::Store start) {
    const std::string outer = start.place();
    const std::size_t prefix = outer.empty() ? 0 : outer.size() + 1;
    StoreWalk walk(std::move(start));
    for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
      if (event == StoreWalk::Event::leave) continue;
      const std::string shown = walk.place().substr(prefix);
      if (event == StoreWalk::Event::item) {
        addItem(walk.container(), walk.name(), shown);
      } else {
        listing_->addStore(shown);
        if (options_.recursive) enterOrNote(walk, outcome_);
      }
    }
  }

  void addItem(const hxcrate::Store& store, const std::string& path, const std::string& shown) {
    std::optional<std::int64_t> size;
    if (options_.withSizes || options_.asJson) size = sizeOrNote(store, path, outcome_);
    listing_->addItem(shown, size);
  }

  const ListOptions& options_;
  std::unique_ptr<Listing> listing_;
  ExitCode outcome_ = ExitCode::fine;
};

}  // namespace

void addLs(CommandLine& line) {
  const auto options = std::make_shared<ListOptions>();
  CLI::App& words = line.add("ls", "List the members of STORE, or of the store PATH in it",
                             "  hxcrate ls -lR docs.st\n"
                             "  hxcrate ls --json docs.st guide",
                             [options] { return Lister(*options).list(); });
  addStore(words, options->store);
  addMemberPath(words, options->path, "a store or an item in it, as a/b/c");
  words.add_flag("-l", options->withSizes, "with the sizes of items, in bytes");
  words.add_flag("-R", options->recursive, "with all that nested stores hold");
  CLI::Option* endWithNul =
      words.add_flag("-0", options->endWithNul, "end names with NUL instead of a new line");
  words.add_flag("--json", options->asJson, "as JSON, with sizes")->excludes(endWithNul);
}

}  // namespace tool
