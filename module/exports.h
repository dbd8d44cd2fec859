// The module's inner routines as others may call them. A host needs the entry points and the slots
// alone; these are exported by their names because programs that look into a module, and tests,
// know them so, with these arguments and results. The product calls none of them: it calls what
// stands behind them. Callers hold the instance's lock, or keep every other thread away from the
// tree.
#pragma once

#include "records/export.h"
#include "records/records.h"

namespace hx::exported {

extern "C" {

// The first member of the bucket's chain whose name equals the given one exactly, or null.
HX_EXPORT Member* lookup(const MemberTable* table, int32_t bucket, const char32_t* name,
                         int32_t length);

// 0 when the record is ready for use, converted in place if it had to be; -1, and the record as it
// was, when the length is outside 0 to 256 or the host has no converter.
HX_EXPORT int32_t translateStructure(Store* store, void* record, int32_t length,
                                     const RecordMapEntry* map);

// ---- loading

// The store of the file at a path, entered in the instance's table. Null: with the status unchanged
// when the file does not open, with kOk when it is shorter than a header, else with the failure.
// With kExclusive an existing store gives kExists and an empty record, which the caller frees.
HX_EXPORT Store* loadItemStore(ExtensionInstance* instance, const char32_t* path,
                               int32_t pathLength, uint32_t flags, int32_t* status);

// Builds a store whose directoryOffset is set, and all below it. The table is always that of the
// store's own container.
HX_EXPORT void loadDirectory(Store* store, MemberTable* table, int32_t* status);
HX_EXPORT void loadDirectoryFromMemory(Store* store, MemberTable* table, uint32_t flags,
                                       int32_t* status);

// Sets the size of an item without pages and gives it one, the first with kRead, else the last. 0;
// -1 when memory runs out; else a failure's status. In a blob's tree an item of more than one page
// gets none without kRead, which is 0 from the second.
HX_EXPORT int32_t loadItem(ItemMember* item, uint32_t flags);
HX_EXPORT int32_t loadItemFromMemory(ItemMember* item, uint32_t flags);

// ---- writing

HX_EXPORT int64_t allocateDiskSpace(Store* store, int32_t length);

// Nothing in the module gives space back.
HX_EXPORT void releaseDiskSpace(Store* store, int64_t offset, int32_t length);

// Writes a store's directory into the tree's open file, the items' dirty pages included, and
// returns the offset of the store's own ENTRY, which is placed and gets these links.
HX_EXPORT int64_t writeDirectory(Store* store, int64_t parentLink, int64_t previousLink);

// Writes an item's dirty pages and their records into the tree's open file.
HX_EXPORT void writeItem(ItemMember* item);

// Gives everything below a store its place and returns the store's fileEnd.
HX_EXPORT int64_t calcBlobSize(Store* store);

// As writeDirectory, into a blob that has room for all of the tree, which is placed.
HX_EXPORT int64_t writeDirectoryToBlob(Store* store, void* blob, int64_t parentLink,
                                       int64_t previousLink);

// ---- leaving memory

// A handle that stands on the page leaves it.
HX_EXPORT void decrementPageUseCount(ItemMember* item, PageBuf* page);

// Frees a store that nobody has open, taken out of its table, with everything below it.
HX_EXPORT void purgeStore(Store* store);

// Frees everything below a store.
HX_EXPORT void freeMemory(Store* store);

}  // extern "C"

}  // namespace hx::exported
