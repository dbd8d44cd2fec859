// The encodings of this host: what stores are written in, and what it converts between.
#pragma once

#include <array>
#include <bit>
#include <string_view>

namespace hxhost {

struct KnownEncoding {
  std::string_view identity;  // "hxmok1/", the byte order, "/" and the character set
  std::endian order;
};

inline constexpr std::array<KnownEncoding, 2> kKnownEncodings = {
    {{"hxmok1/le/utf-8", std::endian::little}, {"hxmok1/be/utf-8", std::endian::big}}};

// What this process writes.
inline constexpr const KnownEncoding& kNativeEncoding = kKnownEncodings[0];
static_assert(kNativeEncoding.order == std::endian::native);

}  // namespace hxhost
