// A store file that a command looks into without opening it as a store.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>

#include "hxcrate/inspect.hpp"
#include "tool/report/report.h"

namespace tool {

class InspectedStore {
 public:
  // Reads header and directory. Says on standard error when the file can't be locked. `onFinding`
  // may be empty; `wait`: so many seconds for somebody who updates it. Throws hxcrate::Error.
  explicit InspectedStore(const std::string& path,
                          std::function<void(const hxcrate::Finding&)> onFinding = {},
                          const hxcrate::HeaderOverride& header = {}, std::int64_t wait = 0);
  InspectedStore(const InspectedStore&) = delete;
  InspectedStore& operator=(const InspectedStore&) = delete;

  // Counts a finding, and tells of it, that was not made by the inspection.
  void add(const hxcrate::Finding& finding);

  const hxcrate::InspectedFile& file() const { return file_; }
  hxcrate::Inspection& inspection() { return inspection_; }
  const hxcrate::Inspection& inspection() const { return inspection_; }

  std::int64_t count(hxcrate::Severity severity) const {
    return counts_[static_cast<std::size_t>(severity)];
  }
  std::int64_t count(hxcrate::MemberKind kind) const;

  // Damaged after an error. What could not be locked does not open as a store either.
  ExitCode outcome() const;
  // Says on standard error that there is damage, for commands that do not list it.
  void complainOfDamage() const;

 private:
  hxcrate::InspectedFile file_;
  std::function<void(const hxcrate::Finding&)> onFinding_;
  std::array<std::int64_t, 3> counts_{};
  hxcrate::Inspection inspection_;
};

// The outcome of a command that opened the store as one; damaged, after a complaint, when its
// directory shows that it has lost members, which opening it does not see.
ExitCode seeLostMembers(const std::string& store, ExitCode outcome);

// What a member is called; "/" for the store as a whole. Escaped as for a terminal.
std::string showPlace(const std::string& path);

}  // namespace tool
