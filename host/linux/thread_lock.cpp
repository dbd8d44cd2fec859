#include "host/linux/thread_lock.h"

#include <pthread.h>

#include <new>

namespace hxhost {
namespace {

struct ThreadLock : hx::Lock {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

ThreadLock* toThreadLock(hx::Lock* lock) {
  return static_cast<ThreadLock*>(lock);
}

int32_t acquireSlot(hx::Lock* lock, int64_t, int64_t) noexcept {
  return pthread_mutex_lock(&toThreadLock(lock)->mutex);
}

int32_t releaseSlot(hx::Lock* lock) noexcept {
  return pthread_mutex_unlock(&toThreadLock(lock)->mutex);
}

int32_t destroySlot(void* object) noexcept {
  ThreadLock* lock = toThreadLock(static_cast<hx::Lock*>(object));
  pthread_mutex_destroy(&lock->mutex);
  delete lock;
  return 0;
}

}  // namespace

hx::Lock* makeThreadLock() noexcept {
  auto* lock = new (std::nothrow) ThreadLock{};
  if (lock == nullptr) return nullptr;
  lock->head = {{'l', 'o', 'c', 'k'}, {}, nullptr, nullptr, nullptr, destroySlot};
  lock->acquire = acquireSlot;
  lock->release = releaseSlot;
  return lock;
}

}  // namespace hxhost
