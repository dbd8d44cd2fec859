// The records of a file between the two byte orders.
#pragma once

#include <optional>
#include <string_view>

#include "file/format.h"

namespace hxcrate {

// Identities are padded with zeros.
std::string_view textOf(const hx::EncodingId& id);
// Whether data of that identity have the other byte order than this machine; nothing when the
// identity is not known.
std::optional<bool> isTurned(std::string_view identity);
// Writes a known identity.
void setIdentity(hx::EncodingId& id, std::string_view identity);

// Reverses the bytes of each integer field.
void turn(hx::Header& header);
void turn(hx::Entry& entry);
void turn(hx::DataChunk& chunk);

}  // namespace hxcrate
