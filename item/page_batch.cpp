#include "item/page_batch.h"

#include "file/shared_storage.h"
#include "item/follow_records.h"
#include "records/lock_guard.h"

namespace hx {

// cppcheck-suppress uninitMemberVar
PageBatch::PageBatch(ItemView* view, int64_t offset, uint8_t* to, int64_t wanted)
    : view_(view), pageSize_(pageSizeOf(view)), offset_(offset), to_(to), wanted_(wanted) {}

int64_t PageBatch::read() {
  if (view_->holdsPages || !readShared()) return 0;
  return recordCount_ > 0 ? check() : taken_;
}

bool PageBatch::readShared() {
  Store* root = view_->item->parent->root;
  const SharedStorage storage(root);
  FileHandle* file = storage.file();
  if (file == nullptr) return false;
  fileEnd_ = root->fileEnd;
  if (start()) addPages();
  return taken_ > 0 && file->readAt(file, parts_, partCount_, start_) == 0;
}

// A page whose bytes lie behind its own record is taken to be the first of a row.
bool PageBatch::start() {
  page_ = static_cast<int32_t>(offset_ / pageSize_);
  const PagePlace found = view_->runs.find(page_);
  known_ = found.pages;
  const int64_t size = knownSize(view_);  // after the page: so it is told if that is the last
  if (size >= 0 && wanted_ > size - offset_) wanted_ = size - offset_;
  if (wanted_ <= 0) return false;
  if (known_ > 0) {
    start_ = position_ = found.place + offset_ % pageSize_;
    const bool isFirst = page_ == 0 && found.place == view_->firstRecord + kChunkSize;
    if (found.stride == pageSize_ + kChunkSize || (isFirst && found.stride == 0)) gap_ = kChunkSize;
    if (found.stride == pageSize_) gap_ = 0;
    return true;
  }
  if (recordsLieApart(view_->item->parent->root, view_->firstRecord)) return false;
  start_ = position_ = view_->firstRecord;
  gap_ = kChunkSize;
  return offset_ == 0 && start_ >= kHeaderSize && addNextRecord(0);
}

void PageBatch::addPages() {
  int64_t from = offset_ % pageSize_;
  for (int32_t i = 0; i < kMostPages; ++i, from = 0) {
    const int64_t missing = wanted_ - taken_;
    const int64_t count = missing < pageSize_ - from ? missing : pageSize_ - from;
    if (!addPart(to_ + taken_, count)) return;
    taken_ += count;
    ++page_;
    --known_;
    if (from + count < pageSize_) return;
    if (known_ > 0) {
      if (taken_ == wanted_ || gap_ < 0 || (gap_ > 0 && !addPart(&passed_, gap_))) return;
    } else {
      if (gap_ == 0 || page_ < view_->runs.pageCount() || areAllKnown(view_)) return;
      if (!addNextRecord(page_) || taken_ == wanted_ || gap_ < 0) return;
    }
  }
}

// The record of a page that is not known lies behind the bytes of the page before, as long as
// nothing else was written in between.
bool PageBatch::addNextRecord(int32_t page) {
  const int64_t place = position_;
  if (!addPart(&records_[recordCount_], kChunkSize)) return false;
  if (recordCount_++ > 0) return true;
  firstPage_ = page;
  firstPlace_ = place;
  trusted_ = taken_;
  return true;
}

bool PageBatch::addPart(void* to, int64_t count) {
  if (position_ > fileEnd_ - count) return false;
  parts_[partCount_++] = {to, count};
  position_ += count;
  return true;
}

// How many bytes are those of the item: up to the first page that lies elsewhere.
int64_t PageBatch::check() const {
  int64_t sound = trusted_;
  const LockGuard lock(view_->item->extension->lock);
  for (int32_t i = 0; lock.taken() && i < recordCount_ && isKnownBy(i); ++i) {
    const PagePlace found = view_->runs.find(firstPage_ + i);
    if (found.pages == 0 || found.place != placeOf(i) + kChunkSize) break;
    sound += pageSize_;
  }
  if (sound > taken_) sound = taken_;
  const int64_t size = knownSize(view_);
  return size >= 0 && sound > size - offset_ ? size - offset_ : sound;
}

// Whether the page of that record is known, by now or already; another thread may have been
// quicker.
bool PageBatch::isKnownBy(int32_t record) const {
  const int32_t next = view_->runs.pageCount();
  if (firstPage_ + record < next) return true;
  if (firstPage_ + record > next || areAllKnown(view_)) return false;
  return view_->nextRecord == placeOf(record) && followRecord(view_, records_[record]) == kOk;
}

}  // namespace hx
