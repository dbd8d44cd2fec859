// The extension `hxmok` of host/encoding.h.
//
// Identities are those of known_encodings.h, padded with zeros to 24 bytes. Converters exist
// between all of them. They hold no state, so threads share them freely. What a converter does to
// an item's bytes is told by an ItemConversion (conversion.h); it never changes their number.
#pragma once

#include "host/encoding.h"

namespace hxhost {

// Released by its `destroy` slot; null without memory.
hx::Encoding* makeEncodingService() noexcept;

}  // namespace hxhost
