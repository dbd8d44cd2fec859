// The HEADER of a tree, from and to its fields.
#pragma once

#include "file/format.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

// What stands at the start of the tree's file or blob when it is written now.
Header currentHeader(const Store* root);

// Takes encoding, page size and directory from a header as it was read. kOk, or kUnreadable when it
// can't be converted or states no possible page size. The caller holds the instance's lock, or the
// tree is unknown to others and its converter is made.
Status takeHeader(Store* root, Header header);

}  // namespace hx
