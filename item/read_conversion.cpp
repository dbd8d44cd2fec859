#include "item/read_conversion.h"

#include "file/converters.h"
#include "records/lock_guard.h"
#include "records/memory.h"

namespace hx {

namespace {

// Two readers of one tree may need its converters at the same moment.
template <typename Obtain>
Status obtainConverter(Store* store, Obtain obtain, Converter** converter) {
  const LockGuard lock(store->extension->lock);
  if (!lock.taken()) return kNotLocked;
  *converter = obtain(store);
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
  const auto obtain = [this](Store* store) {
    toInstance_ = store->root->storeToInstanceConverter;
    return instanceToStoreConverter(store);
  };
  Converter* converter = nullptr;
  const Status status = obtainConverter(handle_->item->parent, obtain, &converter);
  if (status != kOk) return status;
  storedLength_ = converter->measure(converter, argument_, buffer, length);
  if (storedLength_ == 0) return kNoMemory;
  const auto size = static_cast<uint64_t>(storedLength_);
  stored_ = static_cast<uint8_t*>(allocateBlock(handle_->item->pool, size));
  return stored_ == nullptr ? kNoMemory : kOk;
}

Status Conversion::convert(int64_t count, void* buffer, int32_t length, uint32_t* converted) {
  Store* store = handle_->item->parent;
  const Status status = obtainConverter(store, storeToInstanceConverter, &toInstance_);
  if (toInstance_ == nullptr) return status;
  const void* storedAddress = stored_;
  uint32_t result = 0;
  const int32_t failure = toInstance_->convert(toInstance_, argument_, stored_, count, buffer,
                                               length, &storedAddress, &result);
  if (failure != 0) return kNoMemory;
  *converted = result;
  return kOk;
}

}  // namespace hx
