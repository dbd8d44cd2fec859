#include "inspected_store.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace tool {

InspectedStore::InspectedStore(const std::string& path,
                               std::function<void(const hxcrate::Finding&)> onFinding,
                               const hxcrate::HeaderOverride& header, std::int64_t wait)
    : file_(path, std::chrono::seconds(wait)),
      onFinding_(std::move(onFinding)),
      inspection_(
          file_, [this](const hxcrate::Finding& finding) { add(finding); }, header) {
  if (!file_.caveat().empty()) {
    complain(path, "",
             "it can't be opened as a store, and is looked at as it lies: " + file_.caveat());
  }
}

void InspectedStore::add(const hxcrate::Finding& finding) {
  ++counts_[static_cast<std::size_t>(finding.severity)];
  if (onFinding_) onFinding_(finding);
}

std::int64_t InspectedStore::count(hxcrate::MemberKind kind) const {
  const auto& members = inspection_.members();
  return std::count_if(members.begin(), members.end(),
                       [&](const auto& member) { return member.kind == kind; });
}

ExitCode InspectedStore::outcome() const {
  if (!file_.caveat().empty()) return ExitCode::notOpenable;
  return count(hxcrate::Severity::error) > 0 ? ExitCode::damaged : ExitCode::fine;
}

void InspectedStore::complainOfDamage() const {
  const std::int64_t errors = count(hxcrate::Severity::error);
  if (errors == 0) return;
  complain(file_.name(), "",
           "it is damaged in " + countThings(errors, "place") + ", which hxcrate check lists");
}

ExitCode seeLostMembers(const std::string& store, ExitCode outcome) {
  if (worse(outcome, ExitCode::damaged) == outcome) return outcome;  // it was told of worse
  try {
    const std::int64_t faults = hxcrate::countDirectoryFaults(hxcrate::InspectedFile(store));
    if (faults == 0) return outcome;
    complain(store, "",
             "its directory has lost members, as " + countThings(faults, "record") + " of it " +
                 (faults == 1 ? "shows" : "show") + ": see hxcrate check");
    return ExitCode::damaged;
  } catch (const hxcrate::Error&) {
    return outcome;  // it is another file by now, or somebody's who updates it
  }
}

std::string showPlace(const std::string& path) {
  return path.empty() ? "/" : escape(path);
}

}  // namespace tool
