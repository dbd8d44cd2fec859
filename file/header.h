// The HEADER of a tree, from and to its fields, and by it whether a store's file is still as this
// instance left it.
#pragma once

#include "file/format.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

// What stands at the start of the tree's file or blob when it is written now.
Header currentHeader(const Store* root);

// Takes encoding, page size and directory from a header as it was read. kOk, or kUnreadable when it
// can't be converted or states no possible page size. The caller holds the instance's lock, or the
// tree is still nobody else's.
Status takeHeader(Store* root, Header header);

// The file's header and length as they are now. A file that can't be read gives a stamp that
// matches none and is not known.
FileStamp stampOf(FileHandle* file);

bool isKnown(const FileStamp& stamp);
bool sameStamp(const FileStamp& a, const FileStamp& b);

}  // namespace hx
