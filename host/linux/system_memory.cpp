#include "host/linux/system_memory.h"

#include <sys/mman.h>

#include <cstdlib>

namespace hxhost {

void* takeSystemMemory(size_t bytes) noexcept {
  if (kUnderAddressSanitizer) return std::calloc(1, bytes);
  void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
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
