// hxcrate sum: the checksums of items.

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/files/output.h"
#include "tool/manifest/item_sums.h"

namespace tool {

namespace {

struct SumOptions {
  std::string store;
  std::vector<std::string> paths;
  SelectionOptions selected;
  bool isCheck = false;
  std::string list;       // to compare with; empty: the store's own manifest
  std::int64_t wait = 0;  // seconds
};

// Of one item and of several, as SumFault counts.
constexpr std::pair<const char*, const char*> kFaults[] = {
    {"differs", "differ"},
    {"has grown", "have grown"},
    {"is missing", "are missing"},
    {"is not listed", "are not listed"},
    {"is listed without a checksum", "are listed without a checksum"}};
using FaultCounts = std::array<std::int64_t, std::size(kFaults)>;

// One without files says all that there is to say.
bool tellsNothing(const ChecksumList& list) {
  const auto hasSum = [](const auto& entry) { return entry.second.sha256.has_value(); };
  return !list.empty() && std::ranges::none_of(list, hasSum);
}

class Summer {
 public:
  explicit Summer(const SumOptions& options)
      : options_(options),
        selection_(options.selected, options.paths),
        session_(waitingFor(options.wait)) {}

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

  ItemSums sums(Progress& progress) {
    expectItems(progress, session_, options_.store, selection_);
    hxcrate::Store again =
        session_.open(options_.store, hxcrate::Mode::read, {.acceptDamaged = true});
    return {std::move(again), selection_, &progress, [this](const hxcrate::Error& error) {
              complain(error);
              ++unreadable_;
              outcome_ = worse(outcome_, ExitCode::damaged);
            }};
  }

  // A name is as safe on a terminal as the list's own escapes make it for a program.
  void list() {
    Progress progress("summing", !output_.isTerminal());
    ItemSums items = sums(progress);
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
    const auto refuse = [&](const char* reason) {
      return Failure(ExitCode::notOpenable, options_.store, std::string(kManifestName),
                     std::string(reason) + "; name a list of checksums behind --check");
    };
    const std::optional<Manifest> manifest = readManifest(store);
    if (!manifest) throw refuse("there is no manifest");
    ChecksumList list = checksumsOf(*manifest);
    if (tellsNothing(list)) throw refuse("it has no checksums (SHA-256)");
    return list;
  }

  ChecksumList readList() {
    const std::string text = readText(options_.list);
    const bool isManifest = text.starts_with(kAnyManifest);
    ChecksumList list = isManifest ? readAsManifest(text) : readAsSums(text);
    if (isManifest ? tellsNothing(list) : list.empty()) {
      throw Failure(ExitCode::inputOutput, options_.list, "",
                    "there is no checksum (SHA-256) in it");
    }
    return list;
  }

  ChecksumList readAsManifest(const std::string& text) {
    try {
      return checksumsOf(Manifest(std::as_bytes(std::span(text))));
    } catch (const ManifestError& error) {
      throw Failure(ExitCode::inputOutput, options_.list, "", error.what());
    }
  }

  ChecksumList readAsSums(const std::string& text) {
    constexpr std::int64_t kMostTold = 20;
    std::int64_t faults = 0;
    ChecksumList list = parseChecksums(text, [&](std::size_t line, const char* fault) {
      if (++faults <= kMostTold) complain(options_.list, "line " + std::to_string(line), fault);
      outcome_ = worse(outcome_, ExitCode::inputOutput);
    });
    if (faults > kMostTold)
      complain(options_.list, "", countThings(faults - kMostTold, "more line") + " can't be used");
    return list;
  }

  void compare(ChecksumList list) {
    Progress progress("summing");
    ItemSums items = sums(progress);
    FaultCounts counts{};
    const auto tell = [&](SumFault fault, const std::string& place) {
      const auto kind = static_cast<std::size_t>(fault);
      ++counts[kind];
      outcome_ = worse(outcome_, ExitCode::differs);
      output_.print("{}: {}\n", escape(place), kFaults[kind].first);
    };
    const std::int64_t equal = compareSums(items, std::move(list), selection_, tell);
    output_.finish();
    std::string counted = countThings(equal, "item") + (equal == 1 ? " is" : " are") + " as listed";
    for (std::size_t i = 0; i < counts.size(); ++i) {
      const auto& [one, several] = kFaults[i];
      if (counts[i] > 0)
        counted += fmt::format(", {} {}", counts[i], counts[i] == 1 ? one : several);
    }
    if (unreadable_ > 0) counted += fmt::format(", {} can't be read", unreadable_);
    complain(options_.store, "", counted);
  }

  const SumOptions& options_;
  const Selection selection_;
  hxcrate::Session session_;
  Output output_;
  std::int64_t unreadable_ = 0;  // items, and stores with all they hold
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
  addWait(words, options->wait);
}

}  // namespace tool
