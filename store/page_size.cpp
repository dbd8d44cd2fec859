#include "store/page_size.h"

#include "file/format.h"
#include "records/status.h"

namespace hx {

namespace {

// Atomic, because two threads may open the first members of one store at once, before either has
// taken the lock.
bool setOnce(int32_t* pageSize, int32_t size) {
  int32_t unset = 0;
  return __atomic_compare_exchange_n(pageSize, &unset, size, false, __ATOMIC_ACQ_REL,
                                     __ATOMIC_ACQUIRE);
}

}  // namespace

extern "C" int32_t hxcrateSetPageSize(Store* store, int32_t size) {
  return setOnce(&store->pageSize, size) ? kOk : kPageSizeFixed;
}

void fixPageSize(Store* store) {
  if (__atomic_load_n(&store->pageSize, __ATOMIC_ACQUIRE) == 0) {
    setOnce(&store->pageSize, kDefaultPageSize);
  }
}

}  // namespace hx
