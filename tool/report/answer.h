// What a command prints on standard output: lines for people, or under --json one object for
// programs. Each thing is told once, in both forms beside each other.
#pragma once

#include <optional>
#include <string>

#include "json.h"
#include "tool/files/output.h"

namespace tool {

class Answer {
 public:
  explicit Answer(bool asJson, const std::string& colour = "auto") : output_(colour) {
    if (asJson) json_.emplace(output_);
  }

  // Calls the one that is wanted, with an Output or with a JsonWriter.
  template <typename ForPeople, typename ForPrograms>
  void tell(const ForPeople& forPeople, const ForPrograms& forPrograms) {
    json_ ? forPrograms(*json_) : forPeople(output_);
  }

  // What people know already, or need not.
  template <typename ForPrograms>
  void tellPrograms(const ForPrograms& forPrograms) {
    if (json_) forPrograms(*json_);
  }

  // All is told. Without it nothing may be printed at all, as after a failure.
  void finish() { json_ ? json_->finish() : output_.finish(); }

 private:
  Output output_;
  std::optional<JsonWriter> json_;
};

}  // namespace tool
