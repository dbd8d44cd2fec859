// hxcrate check: what is wrong with a store file.
//
// Under --json, in this order:
//   store      as given
//   quick      whether the items' pages were left out
//   findings   array of what was found:
//     severity   "error": bytes are lost or wrong, or would be after the next update; "warning":
//                what no writer leaves and no reader needs; "note": unusual, not wrong
//     offset     of the field or the bytes in the file
//     place      path of the member, a name; empty: the store as a whole
//     reason     sentence for people
//   errors, warnings, notes   how many of each
//   stores, items             how many can be reached; the whole store is one
//   lost       how many were found besides, to which nothing leads
//   asItLies   whether it could not be locked, as opening it as a store takes
#include <memory>
#include <optional>
#include <string>

#include "command_line.h"
#include "commands.h"
#include "inspected_store.h"
#include "json.h"

namespace tool {

namespace {

struct CheckOptions {
  std::string store;
  bool quick = false;  // header and directory, no item's pages
  bool asJson = false;
};

using hxcrate::Severity;

const char* nameOf(Severity severity) {
  constexpr const char* kNames[] = {"error", "warning", "note"};
  return kNames[static_cast<std::size_t>(severity)];
}

class Checker {
 public:
  explicit Checker(const CheckOptions& options) : options_(options) {}

  ExitCode run() {
    InspectedStore store(options_.store, [this](const hxcrate::Finding& found) { print(found); });
    stores_ = store.count(hxcrate::MemberKind::store);
    items_ = store.count(hxcrate::MemberKind::item);
    if (!options_.quick) store.inspection().walkPages({.readSlack = true, .adoptMembers = true});
    countLost(store);
    finish(store);
    complain(options_.store, "", summarize(store));
    return store.outcome();
  }

 private:
  // Made with the first finding or at the end: before, the file may turn out to be no store.
  JsonWriter& json() {
    if (json_) return *json_;
    json_.emplace(output_);
    json_->writeName("store", options_.store);
    json_->writeFlag("quick", options_.quick);
    json_->beginArray("findings");
    return *json_;
  }

  void print(const hxcrate::Finding& finding) {
    if (options_.asJson) return printJson(finding);
    output_.write(std::to_string(finding.offset) + " " + showPlace(finding.place) + ": " +
                  nameOf(finding.severity) + ": " + escape(finding.reason) + "\n");
  }

  void printJson(const hxcrate::Finding& finding) {
    json().beginObject();
    json().writeText("severity", nameOf(finding.severity));
    json().writeNumber("offset", finding.offset);
    json().writeName("place", finding.place);
    json().writeText("reason", finding.reason);
    json().endObject();
  }

  void finish(const InspectedStore& store) {
    if (!options_.asJson) return output_.finish();
    json().endArray();
    for (const Severity severity : {Severity::error, Severity::warning, Severity::note})
      json().writeNumber(std::string(nameOf(severity)) + "s", store.count(severity));
    json().writeNumber("stores", stores_);
    json().writeNumber("items", items_);
    json().writeNumber("lost", lost_);
    json().writeFlag("asItLies", !store.file().caveat().empty());
    json().finish();
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
      text += (text.empty() ? "" : ", ") + countOf(store.count(severity), nameOf(severity));
    return text + " in " + countOf(stores_, "store") + " and " + countOf(items_, "item") +
           (options_.quick ? ", of which no pages were looked at" : "") +
           (lost_ > 0 ? "; besides, nothing leads to " + countOf(lost_, "member") : "");
  }

  const CheckOptions& options_;
  Output output_;
  std::optional<JsonWriter> json_;
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
}

}  // namespace tool
