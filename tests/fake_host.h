// The host that all tests of the module run on, one thread at a time. It keeps files in memory,
// fails on demand, and complains (as a test failure) about forbidden uses: a block freed twice or
// left, a lock taken twice, a file used after its close or without the lock.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/encoding.h"
#include "host/file_io.h"
#include "host/kernel.h"

namespace hx::fake {

using Bytes = std::vector<uint8_t>;
using Path = std::string;  // one byte a character
using Disk = std::map<Path, Bytes>;

// What can fail. "close": an update that can't be made durable; "record": a record that is left
// unconverted; "short": a read that delivers one byte. Besides, "service": to give a service;
// "vector": a positional read.
constexpr const char* kFileFaults = "open read write seek remove close";
constexpr const char* kAnyFault =
    "allocate lock open read write seek remove close make measure convert record short";
constexpr int kAllAfter = -1;

// One call as the host saw it.
struct Event {
  const char* what;
  int64_t offset;  // in the file
  int64_t length;
};

struct Block {
  const Pool* pool;
  uint64_t size;
};

struct FakeFile;

class FakeHost : public HostHandle {
 public:
  FakeHost();
  ~FakeHost();  // complains about whatever is still alive

  // The nth call of these kinds from now on fails, and the `second` one or kAllAfter it.
  void fail(const std::string& kinds, int nth, int second = 0);
  void stopFailing() { fail("", 0); }
  bool isFailing() const { return !faultKinds_.empty(); }
  int fired = 0;  // how many of them failed

  Disk files;
  std::set<Path> undone;  // whose last update failed somewhere and was taken back by its close

  std::unordered_map<const void*, Block> blocks;  // of all pools
  uint64_t bytes = 0;
  uint64_t mostBytes = 0;  // at one moment

  std::vector<Event> events;  // in the order of the calls
  int64_t count(std::string_view what, int64_t length = -1) const;

  uint64_t largestBlock = UINT64_MAX;  // a pool gives no larger one
  int64_t longestRead = INT64_MAX;     // a read delivers at most this many bytes
  int32_t removeResult = 0;            // nonzero: what `remove` answers, leaving the file alone
  bool knowsEncodings = true;          // whether there is an hxmok
  bool readsAt = true;                 // whether hxfio says that its files have `readAt`

  // For the slots.
  bool takesFault(const char* kind);
  bool isLocked = false;
  bool opensBlob = false;                          // a call that takes no lock
  int alive = 0;                                   // services and converters
  std::vector<std::unique_ptr<FakeFile>> handles;  // closed ones too, to catch a late use

 private:
  std::string faultKinds_;
  int calls_ = 0;  // of those kinds
  int nth_ = 0;
  int second_ = 0;
};

// The identities of the two machines.
void fillIdentity(void* id, bool bigEndian);

}  // namespace hx::fake
