// hxcrate check: what is wrong with a store file.

#include <fmt/format.h>

#include <memory>
#include <string>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/manifest/manifest_check.h"
#include "tool/report/answer.h"

namespace tool {

namespace {

struct CheckOptions {
  std::string store;
  bool quick = false;  // header and directory, no item's pages
  bool asJson = false;
  std::int64_t wait = 0;  // seconds
};

using hxcrate::Severity;

const char* nameOf(Severity severity) {
  constexpr const char* kNames[] = {"error", "warning", "note"};
  return kNames[static_cast<std::size_t>(severity)];
}

class Checker {
 public:
  explicit Checker(const CheckOptions& options) : options_(options), answer_(options.asJson) {}

  ExitCode run() {
    answer_.tellPrograms([&](JsonWriter& json) {
      json.writeName("store", hxcrate::showPath(options_.store));
      json.writeFlag("quick", options_.quick);
      json.beginArray("findings");
    });
    InspectedStore store(
        options_.store, [this](const hxcrate::Finding& found) { add(found); }, {}, options_.wait);
    stores_ = store.count(hxcrate::MemberKind::store);
    items_ = store.count(hxcrate::MemberKind::item);
    if (!options_.quick) store.inspection().walkPages({.readSlack = true, .adoptMembers = true});
    countLost(store);
    if (!options_.quick) checkManifest(store);
    addCounts(store);
    answer_.finish();
    complain(options_.store, "", summarize(store));
    return store.outcome();
  }

 private:
  void add(const hxcrate::Finding& finding) {
    answer_.tell(
        [&](Output& text) {
          text.print("{} {}: {}: {}\n", finding.offset, showPlace(finding.place),
                     nameOf(finding.severity), escape(finding.reason));
        },
        [&](JsonWriter& json) {
          json.beginObject();
          json.writeText("severity", nameOf(finding.severity));
          json.writeNumber("offset", finding.offset);
          json.writeName("place", finding.place);
          json.writeText("reason", finding.reason);
          json.endObject();
        });
  }

  void addCounts(const InspectedStore& store) {
    answer_.tellPrograms([&](JsonWriter& json) {
      json.endArray();
      for (const Severity severity : {Severity::error, Severity::warning, Severity::note})
        json.writeNumber(fmt::format("{}s", nameOf(severity)), store.count(severity));
      json.writeNumber("stores", stores_);
      json.writeNumber("items", items_);
      json.writeNumber("lost", lost_);
      json.writeFlag("asItLies", !store.file().caveat().empty());
    });
  }

  // What was found besides is in a store of its own, which is none of the file's.
  void countLost(const InspectedStore& store) {
    const auto& members = store.inspection().members();
    const auto known = static_cast<std::size_t>(stores_ + items_);
    for (std::size_t i = known; i < members.size(); ++i)
      lost_ += members[i].entryOffset < 0 && members[i].kind == hxcrate::MemberKind::store ? 0 : 1;
  }

  std::string summarize(const InspectedStore& store) const {
    std::string text;
    for (const Severity severity : {Severity::error, Severity::warning, Severity::note})
      text += (text.empty() ? "" : ", ") + countThings(store.count(severity), nameOf(severity));
    return text + " in " + countThings(stores_, "store") + " and " + countThings(items_, "item") +
           (options_.quick ? ", of which no pages were looked at" : "") +
           (lost_ > 0 ? "; besides, nothing leads to " + countThings(lost_, "member") : "");
  }

  const CheckOptions& options_;
  Answer answer_;
  std::int64_t stores_ = 0;
  std::int64_t items_ = 0;
  std::int64_t lost_ = 0;
};

// Prints each rule of the format that is broken, "OFFSET PLACE: SEVERITY: what was found", and a
// summary on standard error. Damaged after an error, fine else. Throws Failure or hxcrate::Error.
ExitCode check(const CheckOptions& options) {
  return Checker(options).run();
}

}  // namespace

void addCheck(CommandLine& line) {
  const auto options = std::make_shared<CheckOptions>();
  CLI::App& words = line.add("check", "Look for damage in STORE",
                             "  hxcrate check docs.st\n"
                             "  hxcrate check --quick --json docs.st",
                             [options] { return check(*options); });
  explain(words,
          "Prints a line for each rule of the format that is broken:\n"
          "  OFFSET PLACE: SEVERITY: what was found\n"
          "OFFSET is a byte of the file, PLACE a member; / is the store as a whole. An error\n"
          "means that bytes are lost or wrong, or would be after the next update (exit code 1);\n"
          "a warning, what no writer leaves and no reader needs; a note, that nothing is wrong.");
  addStore(words, options->store);
  words.add_flag("--quick", options->quick, "the directory only, not the items' pages");
  words.add_flag("--json", options->asJson, "as JSON");
  addWait(words, options->wait);
}

}  // namespace tool
