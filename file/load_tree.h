// Builds a tree's stores and items from its file or its blob. Items' bytes stay where they are
// until the items are opened. Callers hold the instance's lock, or the tree is still nobody else's.
#pragma once

#include "records/name.h"
#include "records/records.h"
#include "records/status.h"

namespace hx {

struct LoadedStore {
  Store* store;
  Status status;
};

// Opens the file at a path, for update when `flags` has kUpdate, and loads its store, which gets
// into the instance's table; the caller sets its openCount. A store of which the directory could be
// read only in part comes with kNoMemory or kUnreadable, which is its loadStatus too. No store
// comes with kFileNotOpen, kNotFound (the file is shorter than a header, or its header can't be
// read), kExists (there is one, and `flags` has kExclusive), kNoMemory or kUnreadable.
LoadedStore loadStore(ExtensionInstance* instance, Name path, uint32_t flags);

// Reads the directory of a store that has its directoryOffset, enters the store itself into its
// container's table, but for the top of a blob's tree, and builds everything below it, to any depth
// and in bounded time whatever the bytes. kOk, or kNoMemory or kUnreadable where it had to stop;
// what was built until then stays.
Status loadDirectory(Store* store);

}  // namespace hx
