#include "host/linux/known_encodings.h"
#include "hxcrate/inspect.hpp"

namespace hxcrate {

std::optional<bool> isBigEndian(std::string_view identity) noexcept {
  for (const hxhost::KnownEncoding& known : hxhost::kKnownEncodings) {
    if (known.identity == identity) return known.order == std::endian::big;
  }
  return std::nullopt;
}

std::string listEncodings() {
  std::string list;
  for (const hxhost::KnownEncoding& known : hxhost::kKnownEncodings) {
    if (!list.empty()) list += " and ";
    list += known.identity;
  }
  return list;
}

}  // namespace hxcrate
