// The extension `hxmok` of host/encoding.h.
//
// An identity is `hxmok1/`, the byte order (`le` or `be`), `/` and the character set (`utf-8`),
// padded with zeros to 24 bytes; this process writes `le`. Converters exist between all identities
// of this form. They hold no state, so threads share them freely. What a converter does to an
// item's bytes is told by an ItemConversion (conversion.h); it never changes their number.
#pragma once

#include "host/encoding.h"

namespace hxhost {

// Released by its `destroy` slot; null without memory.
hx::Encoding* makeEncodingService() noexcept;

}  // namespace hxhost
