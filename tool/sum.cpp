// hxcrate sum: the checksums of items.

#include <memory>
#include <string>
#include <vector>

#include "command_line.h"
#include "inspected_store.h"
#include "item_sums.h"
#include "output.h"

namespace tool {

namespace {

struct SumOptions {
  std::string store;
  std::vector<std::string> paths;
  SelectionOptions selected;
  bool isCheck = false;
  std::string list;  // to compare with; empty: the store's own manifest
};

const char* nameOf(SumFault fault) {
  constexpr const char* kNames[] = {"differs", "has grown", "is missing", "is not listed"};
  return kNames[static_cast<std::size_t>(fault)];
}

class Summer {
 public:
  explicit Summer(const SumOptions& options)
      : options_(options), selection_(options.selected, options.paths) {}

  ExitCode run() {
    const hxcrate::Store store = open();
    for (const std::string& path : options_.paths) {
      if (!kindOf(store, path)) {
        throw hxcrate::Error(hxcrate::Errc::notFound, options_.store, path);
      }
    }
    options_.isCheck ? compare(expected(store)) : list();
    return outcome_;
  }

 private:
  hxcrate::Store open() { return openWhatThereIs(session_, options_.store, outcome_); }

  ItemSums sums(Progress* progress) {
    hxcrate::Store again =
        session_.open(options_.store, hxcrate::Mode::read, {.acceptDamaged = true});
    return {std::move(again), selection_, progress, [this](const hxcrate::Error& error) {
              complain(error);
              outcome_ = worse(outcome_, ExitCode::damaged);
            }};
  }

  // A name is as safe on a terminal as the list's own escapes make it for a program.
  void list() {
    ItemSums items = sums(nullptr);
    while (items.next()) {
      if (items.place() == kManifestName && options_.paths.empty()) continue;
      if (const auto digest = items.sum()) {
        const std::string line = formatChecksum(*digest, items.place());
        output_.isTerminal() ? output_.print("{}  {}\n", toHex(*digest), escape(items.place()))
                             : output_.write(line);
      }
    }
    output_.finish();
  }

  ChecksumList expected(const hxcrate::Store& store) {
    if (!options_.list.empty()) return readList();
    const std::optional<Manifest> manifest = readManifest(store);
    if (manifest) return checksumsOf(*manifest);
    throw Failure(ExitCode::notOpenable, options_.store, std::string(kManifestName),
                  "there is no manifest; name a list of checksums behind --check");
  }

  ChecksumList readList() {
    const std::string text = readText(options_.list);
    try {
      if (text.starts_with("#mtree")) return checksumsOf(Manifest(std::as_bytes(std::span(text))));
    } catch (const ManifestError& error) {
      throw Failure(ExitCode::inputOutput, options_.list, "", error.what());
    }
    return parseChecksums(text, [this](std::size_t line) {
      complain(options_.list, "line " + std::to_string(line), "no checksum and name");
      outcome_ = worse(outcome_, ExitCode::inputOutput);
    });
  }

  void compare(ChecksumList list) {
    Progress progress("summing");
    ItemSums items = sums(&progress);
    std::int64_t faults = 0;
    const auto tell = [&](SumFault fault, const std::string& place) {
      ++faults;
      outcome_ = worse(outcome_, ExitCode::differs);
      output_.writeName(place);
      output_.print(": {}\n", nameOf(fault));
    };
    const std::int64_t equal = compareSums(items, std::move(list), selection_, tell);
    output_.finish();
    complain(options_.store, "",
             countThings(equal, "item") + (equal == 1 ? " is" : " are") + " as listed, " +
                 std::to_string(faults) + (faults == 1 ? " is not" : " are not"));
  }

  const SumOptions& options_;
  const Selection selection_;
  hxcrate::Session session_;
  Output output_;
  ExitCode outcome_ = ExitCode::fine;
};

// `--check STORE` looks like `--check LIST`, and then there is no list.
void settle(SumOptions& options) {
  if (!options.store.empty()) return;
  if (options.list.empty()) {
    throw Failure(ExitCode::usage, "", "", "STORE is required (see hxcrate sum --help)");
  }
  options.store = std::move(options.list);
  options.list.clear();
}

ExitCode sum(SumOptions& options) {
  settle(options);
  return seeLostMembers(options.store, Summer(options).run());
}

}  // namespace

void addSum(CommandLine& line) {
  const auto options = std::make_shared<SumOptions>();
  CLI::App& words =
      line.add("sum", "List the checksums of items, or compare them with a list",
               "  hxcrate sum docs.st > docs.sha256 && cd docs && sha256sum -c ../docs.sha256\n"
               "  hxcrate sum --check docs.st\n"
               "  hxcrate sum --check docs.sha256 docs.st",
               [options] { return sum(*options); });
  explain(
      words,
      "Lists SHA-256 and path of all items, or of those named, as sha256sum does. With --check\n"
      "it tells which items of STORE are not as in LIST, a list of that form or a manifest\n"
      "(mtree), and without LIST in the manifest that the store has, its item .mtree.");
  words.add_option("STORE", options->store, "the store file");
  addMemberPaths(words, options->paths, "items, and stores with all they hold; all unless given");
  const auto take = [options](const std::vector<std::string>& words_) {
    options->isCheck = true;
    if (!words_.empty()) options->list = words_.front();
    return true;
  };
  words.add_option("--check", take, "compare with LIST, or else with .mtree")
      ->expected(0, 1)
      ->type_name("LIST");
  addSelection(words, options->selected);
}

}  // namespace tool
