// How whoever writes a file anew refuses the one that it reads.
#pragma once

#include <string>

#include "hxcrate/inspect.hpp"

namespace hxcrate {

[[noreturn]] inline void failReading(const ByteSource& source, int64_t offset) {
  throw Error(Errc::fileFailed, source.name(), "",
              "byte " + std::to_string(offset) + " can't be read");
}

// Told of a finding of an Inspection, throws when a rule does not hold.
inline auto refuseDamage(const ByteSource& source) {
  return [&source](const Finding& finding) {
    if (finding.severity != Severity::error) return;
    throw Error(Errc::damaged, source.name(), finding.place,
                "byte " + std::to_string(finding.offset) + ": " + finding.reason);
  };
}

// Throws when that encoding is not known.
inline void requireKnown(std::string_view encodingId) {
  if (isBigEndian(encodingId)) return;
  throw Error(Errc::unknownEncoding, std::string(encodingId), "", "known are " + listEncodings());
}

}  // namespace hxcrate
