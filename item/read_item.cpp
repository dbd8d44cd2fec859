#include "item/read_item.h"

#include "file/load_item.h"
#include "file/storage.h"
#include "item/page_list.h"
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

// A handle's way from its page to the next one that it has to stand on. Whole pages in between that
// nobody has in memory go to the target without a page being made of them, which takes a fifth off
// the reading of a blob with pages of 4096 bytes.
class PageWalk {
 public:
  PageWalk(ItemHandle* handle, Target& target)
      : handle_(handle),
        item_(handle->item),
        pageSize_(handle->item->parent->root->pageSize),
        blob_(openBlob(handle->item->parent)),
        target_(target),
        takenTo_(target.place) {}
  ~PageWalk() {
    if (spare_ != nullptr) freePage(item_, spare_);
  }
  PageWalk(const PageWalk&) = delete;
  PageWalk& operator=(const PageWalk&) = delete;

  // Under the lock. After a failure the handle is on the page before its position.
  Status goOn() {
    PageBuf* listed = listedPage(handle_->page->index + 1);
    if (listed != nullptr) return standOn(listed);
    Status status = find(handle_->page->nextChunkOffset, handle_->page->index + 1);
    if (status != kOk) return status;
    spare_ = newPage(item_);
    if (spare_ == nullptr) return kNoMemory;
    while (isTakenWhole()) {
      if (!take()) return standOnTaken(kUnreadable);
      listed = listedPage(place_.index + 1);
      if (listed != nullptr) return standOn(listed);
      status = find(place_.chunk.next, place_.index + 1);
      if (status != kOk) return standOnTaken(status);
    }
    status = fillPage(item_, spare_, place_);
    return status == kOk ? standOnSpare() : standOnTaken(status);
  }

  // Without the lock: nobody writes into a blob.
  void copyTaken() {
    if (blob_ == nullptr) return;
    const auto bytes = static_cast<uint64_t>(pageSize_);
    for (int32_t i = 0; i < takenCount_; ++i, takenTo_ += bytes)
      copyBytes(takenTo_, blob_ + taken_[i], bytes);
  }

 private:
  // Bounds how long one call keeps the lock.
  static constexpr int32_t kMostTaken = 16;

  PageBuf* listedPage(int32_t index) const {
    PageBuf* next = handle_->page->next;
    return next != nullptr && next->index == index ? next : nullptr;
  }

  Status find(int64_t offset, int32_t index) {
    if (offset == 0) return kEndOfItem;
    if (item_->parent->root->file == nullptr) return kFileNotOpen;
    if (!readChunk(item_, offset, index, &place_)) return kUnreadable;
    return place_.chunk.capacity == 0 ? kEndOfItem : kOk;
  }

  // The call wants all of the page, with which the item does not end: there the handle stays.
  bool isTakenWhole() const {
    const int32_t left = item_->size - handle_->position;
    return target_.wanted >= pageSize_ && left > pageSize_ && takenCount_ < kMostTaken;
  }

  bool take() {
    const int64_t from = place_.chunk.dataOffset;
    if (blob_ == nullptr && !readStored(item_->parent, from, target_.place, pageSize_))
      return false;
    taken_[takenCount_++] = from;
    lastTaken_ = place_;
    handle_->position += pageSize_;
    target_.advance(pageSize_);
    return true;
  }

  // The page after those taken can't be had. The last of them is in the target.
  Status standOnTaken(Status status) {
    if (takenCount_ == 0) return status;
    describePage(item_, spare_, lastTaken_);
    if (blob_ == nullptr) {
      copyBytes(spare_->buffer, target_.place - pageSize_, static_cast<uint64_t>(pageSize_));
    }
    standOnSpare();
    return status;
  }

  Status standOnSpare() {
    linkPageAfter(item_, handle_->page, spare_);
    PageBuf* page = spare_;
    spare_ = nullptr;
    return standOn(page);
  }

  Status standOn(PageBuf* page) {
    moveHandle(handle_, page);
    return kOk;
  }

  ItemHandle* handle_;
  ItemMember* item_;
  int32_t pageSize_;
  const uint8_t* blob_;
  Target& target_;
  ChunkPlace place_ = {};
  PageBuf* spare_ = nullptr;  // in no list yet
  uint8_t* takenTo_;
  int64_t taken_[kMostTaken] = {};  // where the bytes lie
  int32_t takenCount_ = 0;
  ChunkPlace lastTaken_ = {};
};

Status goOnLocked(const ItemHandle* handle, PageWalk& walk) {
  const LockGuard lock(handle->item->extension->lock);
  return lock.taken() ? walk.goOn() : kNotLocked;
}

Status moveOn(ItemHandle* handle, Target& target) {
  PageWalk walk(handle, target);
  const Status status = goOnLocked(handle, walk);
  walk.copyTaken();
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
  const int32_t pageSize = item->parent->root->pageSize;
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
  return isInBlob(root) && openBlob(root) == nullptr ? kFileNotOpen : kOk;
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
