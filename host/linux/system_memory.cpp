#include "host/linux/system_memory.h"

#include <sys/mman.h>

#include <cstdlib>

namespace hxhost {

void* takeSystemMemory(size_t bytes, Touch touch) noexcept {
  if (kUnderAddressSanitizer) return std::calloc(1, bytes);
  const int flags = MAP_PRIVATE | MAP_ANONYMOUS | (touch == Touch::now ? MAP_POPULATE : 0);
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, flags, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

void giveBackSystemMemory(void* memory, size_t bytes) noexcept {
  if (kUnderAddressSanitizer) {
    std::free(memory);
  } else {
    munmap(memory, bytes);
  }
}

}  // namespace hxhost
