#include "item/page_runs.h"

#include "records/bytes.h"
#include "records/memory.h"

namespace hx {

const PageRuns::Run* PageRuns::runs() const {
  const Run* grown = __atomic_load_n(&runs_, __ATOMIC_ACQUIRE);
  return grown != nullptr ? grown : &first_;
}

// What was published last, the number of pages, is read first, and the array after the number of
// its runs: so all that is looked at is there. The stride of a run is read only where it has a
// second page.
PagePlace PageRuns::find(int32_t page) const {
  const int32_t known = pageCount();
  if (page >= known) return {};
  int32_t above = __atomic_load_n(&runCount_, __ATOMIC_ACQUIRE);
  const Run* const list = runs();
  int32_t index = 0;
  int32_t end = known;
  while (above - index > 1) {
    const int32_t middle = index + (above - index) / 2;
    const bool isBehind = list[middle].firstPage > page;
    (isBehind ? above : index) = middle;
    if (isBehind && list[middle].firstPage < end) end = list[middle].firstPage;
  }
  const Run& run = list[index];
  const int64_t stride = end - run.firstPage > 1 ? run.stride : 0;
  return {run.place + (page - run.firstPage) * stride, stride, end - page, run.isInMemory};
}

bool PageRuns::add(Pool* pool, int64_t place, bool isInMemory) {
  if (!joinLast(place, isInMemory)) {
    if (!grow(pool)) return false;
    const_cast<Run*>(runs())[runCount_] = {place, 0, pageCount_, isInMemory};
    __atomic_store_n(&runCount_, runCount_ + 1, __ATOMIC_RELEASE);
  }
  __atomic_store_n(&pageCount_, pageCount_ + 1, __ATOMIC_RELEASE);
  return true;
}

bool PageRuns::joinLast(int64_t place, bool isInMemory) {
  if (runCount_ == 0) return false;
  Run* run = last();
  const int32_t pages = pageCount_ - run->firstPage;
  if (run->isInMemory != isInMemory) return false;
  if (pages > 1) return place - (run->place + (pages - 1) * run->stride) == run->stride;
  run->stride = place - run->place;
  return true;
}

// Room for one run more.
bool PageRuns::grow(Pool* pool) {
  if (runCount_ == 0 || runCount_ < capacity_) return true;
  const int32_t capacity = runCount_ < 8 ? 8 : 2 * runCount_;
  const uint64_t size = sizeof(Former) + static_cast<uint64_t>(capacity) * sizeof(Run);
  auto* block = static_cast<Former*>(allocateBlock(pool, size));
  if (block == nullptr) return false;
  auto* grown = reinterpret_cast<Run*>(block + 1);
  copyBytes(grown, runs(), static_cast<uint64_t>(runCount_) * sizeof(Run));
  block->runs = runs_;
  capacity_ = capacity;
  __atomic_store_n(&runs_, grown, __ATOMIC_RELEASE);
  return true;
}

void PageRuns::release(Pool* pool) {
  while (runs_ != nullptr) {
    Former* block = reinterpret_cast<Former*>(runs_) - 1;
    runs_ = block->runs;
    freeBlock(pool, block);
  }
}

}  // namespace hx
