#include "item/read_item.h"

#include "file/item_pages.h"
#include "file/storage.h"
#include "item/read_conversion.h"
#include "records/bytes.h"
#include "records/lock_guard.h"
#include "records/status.h"

namespace hx {

namespace {

// Where the bytes of a call go.
struct Target {
  uint8_t* place;     // of the next byte
  int64_t wanted;     // bytes more; a negative length wants none
  int64_t count = 0;  // bytes so far

  void advance(int64_t bytes) {
    place += bytes;
    wanted -= bytes;
    count += bytes;
  }
};

// The whole pages that one step took to the caller without a page in memory: at once from a file,
// and from a blob when the lock is free again, since nobody writes into that.
class TakenPages {
 public:
  TakenPages(const ItemMember* item, uint8_t* to)
      : item_(item), pageSize_(pageSizeOf(item)), blob_(blobOf(item->parent)), to_(to) {}

  // Bounds how long one call keeps the lock.
  bool hasRoom() const { return count_ < kMost; }

  bool take(int64_t offset) {
    if (blob_ == nullptr && !readStored(item_->parent, offset, placeOf(count_), pageSize_))
      return false;
    offsets_[count_++] = offset;
    return true;
  }

  void copyFromBlob() const {
    for (int32_t i = 0; blob_ != nullptr && i < count_; ++i)
      copyBytes(placeOf(i), blob_ + offsets_[i], static_cast<uint64_t>(pageSize_));
  }

  // The last page taken from a file; null when its bytes can be had from the blob, or when there is
  // none.
  const uint8_t* lastFromFile() const {
    return blob_ != nullptr || count_ == 0 ? nullptr : placeOf(count_ - 1);
  }

 private:
  static constexpr int32_t kMost = 16;

  uint8_t* placeOf(int32_t i) const { return &to_[int64_t{i} * pageSize_]; }

  const ItemMember* item_;
  int32_t pageSize_;
  const uint8_t* blob_;
  uint8_t* to_;
  int64_t offsets_[kMost] = {};
  int32_t count_ = 0;
};

// A handle's step from its page to the next one that it has to stand on. Whole pages in between
// that nobody has in memory go to the target without a page being made of them, which takes a fifth
// off the reading of a blob with pages of 4096 bytes.
class Step {
 public:
  Step(ItemHandle* handle, Target& target)
      : handle_(handle),
        item_(handle->item),
        target_(target),
        taken_(item_, target.place),
        index_(handle->page->index),
        next_(handle->page->nextChunkOffset) {}
  ~Step() {
    if (page_ != nullptr) freePage(item_, page_);
  }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  // Under the lock. After a failure the handle is on the page before its position.
  Status go() {
    for (;;) {
      if (PageBuf* listed = listedPage()) return standOn(listed);
      ChunkPlace place = {};
      Status status = findPage(&place);
      if (status != kOk) return standOnTaken(status);
      if (!isWantedWhole()) {
        status = fillPage(item_, page_, place);
        return status == kOk ? standOnPage() : standOnTaken(status);
      }
      if (!taken_.take(place.chunk.dataOffset)) return standOnTaken(kUnreadable);
      goOnBehind(place);
    }
  }

  // Without the lock.
  void finish() const { taken_.copyFromBlob(); }

 private:
  // The page behind those that the step has come past, where somebody has it in memory.
  PageBuf* listedPage() const {
    PageBuf* listed = handle_->page->next;
    return listed != nullptr && listed->index == index_ + 1 ? listed : nullptr;
  }

  // The record of that page, and a page in memory for what the step ends with.
  Status findPage(ChunkPlace* place) {
    if (next_ == 0) return kEndOfItem;
    if (item_->parent->root->file == nullptr) return kFileNotOpen;
    if (!readChunk(item_, next_, index_ + 1, place)) return kUnreadable;
    if (place->chunk.capacity == 0) return kEndOfItem;
    if (page_ == nullptr) page_ = newPage(item_);
    return page_ == nullptr ? kNoMemory : kOk;
  }

  // Not the page with which the item ends: there the handle stays.
  bool isWantedWhole() const {
    const int32_t pageSize = pageSizeOf(item_);
    const int32_t left = item_->size - handle_->position;
    return target_.wanted >= pageSize && left > pageSize && taken_.hasRoom();
  }

  void goOnBehind(const ChunkPlace& place) {
    handle_->position += pageSizeOf(item_);
    target_.advance(pageSizeOf(item_));
    index_ = place.index;
    next_ = place.chunk.next;
    lastTaken_ = place;
  }

  // The page behind can't be had. The handle stays on the last one taken, whose bytes are with the
  // caller, or on its own.
  Status standOnTaken(Status status) {
    if (index_ == handle_->page->index) return status;
    describePage(item_, page_, lastTaken_);
    if (const uint8_t* bytes = taken_.lastFromFile()) {
      copyBytes(page_->buffer, bytes, static_cast<uint64_t>(pageSizeOf(item_)));
    }
    standOnPage();
    return status;
  }

  Status standOnPage() {
    PageBuf* page = page_;
    page_ = nullptr;
    linkPageAfter(item_, handle_->page, page);
    return standOn(page);
  }

  Status standOn(PageBuf* page) {
    moveHandle(handle_, page);
    return kOk;
  }

  ItemHandle* handle_;
  ItemMember* item_;
  Target& target_;
  TakenPages taken_;
  // What the step has come past: the handle's own page, then those taken.
  int32_t index_;
  int64_t next_;  // the record behind
  ChunkPlace lastTaken_ = {};
  PageBuf* page_ = nullptr;  // that the step ends with, in no list yet
};

Status goLocked(const ItemHandle* handle, Step& step) {
  const LockGuard lock(handle->item->extension->lock);
  return lock.taken() ? step.go() : kNotLocked;
}

Status moveOn(ItemHandle* handle, Target& target) {
  Step step(handle, target);
  const Status status = goLocked(handle, step);
  step.finish();
  return status;
}

struct ReadResult {
  int64_t count;
  Status status;
};

// After a move that failed the handle is still on the page before its position.
bool standsOnPosition(const ItemHandle* handle, int32_t pageSize) {
  return handle->position / pageSize == handle->page->index;
}

void copyFromPage(ItemHandle* handle, int32_t pageSize, Target& target) {
  const int32_t offset = handle->position % pageSize;
  const int32_t left = handle->item->size - handle->position;
  int64_t count = target.wanted;
  if (count > pageSize - offset) count = pageSize - offset;
  if (count > left) count = left;
  copyBytes(target.place, handle->page->buffer + offset, static_cast<uint64_t>(count));
  handle->position += static_cast<int32_t>(count);
  target.advance(count);
}

// Copies stored bytes and leaves the handle on the page that holds its new position, also when
// nothing more is wanted.
ReadResult readStoredBytes(ItemHandle* handle, uint8_t* to, int64_t wanted) {
  const ItemMember* item = handle->item;
  const int32_t pageSize = pageSizeOf(item);
  if (handle->position >= item->size) return {0, kEndOfItem};
  Target target{to, wanted};
  for (;;) {
    if (!standsOnPosition(handle, pageSize)) {
      const Status status = moveOn(handle, target);
      if (status == kEndOfItem && target.wanted <= 0) return {target.count, kOk};
      if (status != kOk) return {target.count, status};
    }
    if (target.wanted <= 0) return {target.count, kOk};
    copyFromPage(handle, pageSize, target);
    if (handle->position == item->size) return {target.count, target.wanted > 0 ? kEndOfItem : kOk};
  }
}

uint32_t readConverted(Conversion& conversion, ItemHandle* handle, void* buffer, int32_t length,
                       int32_t* status) {
  *status = conversion.prepare(buffer, length);
  if (*status != kOk) return 0;
  const ReadResult stored =
      readStoredBytes(handle, conversion.storedBytes(), conversion.storedLength());
  uint32_t count = 0;
  *status = conversion.convert(stored.count, buffer, length, &count);
  if (*status == kOk) *status = stored.status;
  return count;
}

// The pages of a blob that was closed under its readers are gone.
Status checkReadable(const ItemHandle* handle) {
  if (handle->access == 0) return kNoMemory;
  const Store* root = handle->item->parent->root;
  return isInBlob(root) && blobOf(root) == nullptr ? kFileNotOpen : kOk;
}

}  // namespace

extern "C" uint32_t hxcrateRead(ItemHandle* handle, void* buffer, int32_t length,
                                void* conversionArgument, int32_t* status) {
  *status = kOk;
  if (length == 0) return 0;
  *status = checkReadable(handle);
  if (*status != kOk) return 0;
  Conversion conversion(handle, conversionArgument);
  if (conversion.applies()) {
    return readConverted(conversion, handle, buffer, length, status);
  }
  const ReadResult result = readStoredBytes(handle, static_cast<uint8_t*>(buffer), length);
  *status = result.status;
  return static_cast<uint32_t>(result.count);
}

}  // namespace hx
