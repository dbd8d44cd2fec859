// The lock of host/kernel.h: excludes threads; free, it is taken by one atomic operation.
#pragma once

#include "host/kernel.h"

namespace hxhost {

// A free lock, released by its `destroy` slot; null without memory.
hx::Lock* makeThreadLock() noexcept;

}  // namespace hxhost
