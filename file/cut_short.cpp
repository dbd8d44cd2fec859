#include "file/cut_short.h"

#include "file/storage.h"
#include "records/tree_cursor.h"

namespace hx {

namespace {

bool leadsOut(const Store* root, int64_t offset, int64_t length) {
  return offset > root->fileEnd - length;
}

bool hasCutPage(const ItemMember* item, int32_t* recordsLeft) {
  const Store* root = item->parent->root;
  DataChunk chunk = {};
  for (auto at = static_cast<int64_t>(item->firstChunkOffset); at != 0; at = chunk.next) {
    if (leadsOut(root, at, kChunkSize)) return true;
    if (--*recordsLeft < 0 || !readStored(root, at, &chunk, kChunkSize)) return false;
    const bool hasPage = chunk.capacity == root->pageSize;
    if (hasPage && leadsOut(root, chunk.dataOffset, chunk.capacity)) return true;
  }
  return false;
}

}  // namespace

bool isCutShort(Store* root) {
  if (root->directoryEnd == root->fileEnd) return false;
  int32_t recordsLeft = kMostRecordsLookedAt;
  for (TreeCursor cursor(root); !cursor.isBehindAll() && recordsLeft > 0;) {
    if (cursor.member == nullptr) {
      cursor.leave();
    } else if (cursor.member->kind == kStoreKind) {
      cursor.enter();
    } else if (hasCutPage(asItem(cursor.member), &recordsLeft)) {
      return true;
    } else {
      cursor.advance();
    }
  }
  return false;
}

}  // namespace hx
