// Characters in bytes that may be text or may not.
#pragma once

#include <cstddef>
#include <string_view>

namespace tool {

// The length in bytes of the character that `text` begins with; 0: it begins with none. Strict
// UTF-8: nothing overlong, no surrogate, nothing above U+10FFFF.
std::size_t measureCharacter(std::string_view text);

// Whether the character that `text` begins with, of that length, is a control character: U+0000 to
// U+001F and U+007F to U+009F.
bool isControl(std::string_view text, std::size_t length);

// Whether that character shows nothing by itself but can change what the text around it looks like,
// or is none that a text may hold: what orders text from right to left, ends lines, is not seen at
// all (but for the joiners that scripts need), or U+FFFE and U+FFFF.
bool isDeceptive(std::string_view text, std::size_t length);

// The number of the character, of that length, that `text` begins with.
char32_t decodeCharacter(std::string_view text, std::size_t length);

}  // namespace tool
