#include "item/read_conversion.h"

#include "file/translation.h"
#include "records/lock_guard.h"
#include "records/memory.h"

namespace hx {

namespace {

// The tree's converter. Taking the lock can fail, so it is taken only where there is none yet: two
// readers may need the first one at the same moment.
Status obtainConverter(Store* store, Direction direction, Converter** converter) {
  *converter = keptConverter(store, direction);
  if (*converter != nullptr) return kOk;
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  *converter = makeConverter(store, direction);
  return *converter == nullptr ? kNoMemory : kOk;
}

}  // namespace

Conversion::~Conversion() {
  freeBlock(handle_->item->pool, stored_);
}

bool Conversion::applies() const {
  const ItemMember* item = handle_->item;
  return argument_ != nullptr && item->extension->encodingExtension != nullptr &&
         isForeign(item->parent);
}

Status Conversion::prepare(const void* buffer, int32_t length) {
  Converter* converter = nullptr;
  const Status status = obtainConverter(handle_->item->parent, Direction::toStore, &converter);
  if (status != kOk) return status;
  storedLength_ = converter->measure(converter, argument_, buffer, length);
  if (storedLength_ == 0) return kNoMemory;
  const auto size = static_cast<uint64_t>(storedLength_);
  stored_ = static_cast<uint8_t*>(allocateBlock(handle_->item->pool, size));
  return stored_ == nullptr ? kNoMemory : kOk;
}

Status Conversion::convert(int64_t count, void* buffer, int32_t length, uint32_t* converted) {
  Converter* converter = nullptr;
  const Status status = obtainConverter(handle_->item->parent, Direction::toInstance, &converter);
  if (status != kOk) return status;
  const void* storedAddress = stored_;
  uint32_t result = 0;
  const int32_t failure = converter->convert(converter, argument_, stored_, count, buffer, length,
                                             &storedAddress, &result);
  if (failure != 0) return kNoMemory;
  *converted = result;
  return kOk;
}

}  // namespace hx
