// What the bytes of items should be: lists as sha256sum makes them, and manifests.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "hxcrate/crate.hpp"
#include "manifest.h"
#include "tool/report/report.h"

namespace tool {

struct ExpectedItem {
  std::optional<Sha256::Digest> sha256;  // nothing: the list has none of it
  // Of the bytes that the checksum is of, where it is known. An item that has more has grown since.
  std::optional<std::int64_t> size = {};
};

// By path inside the store.
using ChecksumList = std::map<std::string, ExpectedItem, std::less<>>;

// The line for an item, with its end, as sha256sum writes and reads it.
std::string formatChecksum(const Sha256::Digest& digest, std::string_view path);

// `text` is of such lines, also with CR LF; `onFault` is told the number, from 1, of each that is
// none, and why.
ChecksumList parseChecksums(std::string_view text,
                            const std::function<void(std::size_t, const char*)>& onFault);

// Of its files.
ChecksumList checksumsOf(const Manifest& manifest);

// The bytes of a file, or of standard input for "-"; a Failure beyond Manifest::kMostBytes.
std::string readText(const std::string& path);

// The store's own manifest; nothing when it has no item of that name, or one that does not begin as
// manifests do. Throws a Failure, damaged, for one that can't be read.
std::optional<Manifest> readManifest(const hxcrate::Store& store,
                                     std::string_view beginning = kAnyManifest);

// The same of one that this command made: what it tells is taken over. A tree's own file of that
// name is a file. What keeps it from being read is told of on standard error, and changes
// `outcome`.
std::optional<Manifest> readOwnManifest(const hxcrate::Store& store, ExitCode& outcome);

}  // namespace tool
