#include "host/linux/system_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace hxhost {
namespace {

// Blocks from here on lie on huge pages where those pay: that takes two thirds off the making of a
// blob of 64 MiB, and half off that of an index of 4 MiB, most of which is page faults otherwise.
// They have to begin on one.
constexpr size_t kHugePage = 2 << 20;

// The largest block for which they pay where a virtual machine tells its host of free memory, huge
// page by huge page. The host takes it back, but for some that was used just now, and finds it
// again 4 KiB at a time: 64 MiB then took 90 to 190 ms to fill, with small pages 35, and 8 MiB
// 1 ms, with small pages 5.
constexpr size_t kLargestHuge = 16 << 20;

bool isFreeMemoryReported() {
  const char* const order = "/sys/module/page_reporting/parameters/page_reporting_order";
  const int file = open(order, O_RDONLY | O_CLOEXEC);
  char sign = '-';  // of -1, as long as nobody is told
  const bool isKnown = file >= 0 && read(file, &sign, 1) == 1;
  if (file >= 0) close(file);
  return isKnown && sign != '-';
}

void* mapMemory(size_t bytes, int flags) {
  flags |= MAP_PRIVATE | MAP_ANONYMOUS;
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, flags, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

void* mapHugePages(size_t bytes) {
  auto* mapped = static_cast<std::byte*>(mapMemory(bytes + kHugePage, 0));
  if (mapped == nullptr) return mapMemory(bytes, 0);
  const size_t before = (kHugePage - reinterpret_cast<uintptr_t>(mapped) % kHugePage) % kHugePage;
  constexpr size_t kPage = 4096;
  const size_t end = before + (bytes + kPage - 1) / kPage * kPage;
  if (before > 0) munmap(mapped, before);
  munmap(mapped + end, bytes + kHugePage - end);
  madvise(mapped + before, bytes, MADV_HUGEPAGE);  // a hint: without it the pages are small
  return mapped + before;
}

}  // namespace

void* takeSystemMemory(size_t bytes, Touch touch) noexcept {
  if (kUnderAddressSanitizer) return std::calloc(1, bytes);
  static const size_t largestHuge = isFreeMemoryReported() ? kLargestHuge : SIZE_MAX;
  if (bytes >= kHugePage && bytes <= largestHuge) return mapHugePages(bytes);
  void* memory = mapMemory(bytes, touch == Touch::now ? MAP_POPULATE : 0);
  if (memory != nullptr && bytes > largestHuge) madvise(memory, bytes, MADV_NOHUGEPAGE);
  return memory;
}

void giveBackSystemMemory(void* memory, size_t bytes) noexcept {
  if (kUnderAddressSanitizer) {
    std::free(memory);
  } else {
    munmap(memory, bytes);
  }
}

}  // namespace hxhost
