// A session: one instance of the item store together with the host that serves it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "hxcrate/error.hpp"
#include "hxcrate/store.hpp"

namespace hxcrate {

class Engine;

struct SessionOptions {
  // Told of what a destructor could not throw. May be called by any thread that drops the last
  // opening of a store; what it throws is dropped.
  std::function<void(const Error&)> onUnreportedError;
};

enum class Mode {
  read,          // an existing store file, for reading
  update,        // an existing one, for writing as well
  openOrCreate,  // an existing one, or a new one where there is no file or an empty one
  create,        // a new one; throws exists when there is a file of any kind
  replace,       // a new one; an existing file is removed first and is gone whatever follows
};

struct OpenOptions {
  std::int32_t pageSize = 0;   // bytes, for a store that is made now; 0: 4096
  bool acceptDamaged = false;  // open for reading what is left of a damaged directory
};

// What the module holds of the host's memory.
struct MemoryUse {
  std::uint64_t bytes;
  std::uint64_t blocks;
  std::uint64_t peakBytes;  // the most since the session began
};

// Stores stay usable after their session is gone. Several threads may use one session; a store file
// that is opened twice through one session is shared.
class Session {
 public:
  // Throws noModule when libhxcrate.so can't be loaded.
  explicit Session(SessionOptions options = {});

  // The store file `path` (UTF-8).
  Store open(const std::string& path, Mode mode = Mode::read, OpenOptions options = {});

  MemoryUse memoryUse() const;

 private:
  std::shared_ptr<Engine> engine_;
};

// "1.0.3"
std::string_view version() noexcept;

}  // namespace hxcrate
