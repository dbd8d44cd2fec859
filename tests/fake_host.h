// The host that all tests of the module run on. It keeps files in memory, fails on demand, and
// complains (as a test failure) about forbidden uses: a block freed twice or left, a lock taken
// twice, a file used after its close or without the lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "host/encoding.h"
#include "host/file_io.h"
#include "host/kernel.h"

namespace hx::fake {

using Bytes = std::vector<uint8_t>;
using Path = std::string;  // one byte a character
using Disk = std::map<Path, Bytes>;

// What can fail; kinds combine.
enum FaultKind : uint32_t {
  kNoFault = 0,
  kAllocateFault = 1,
  kAcquireFault = 2,
  kOpenFault = 4,
  kReadFault = 8,
  kWriteFault = 16,
  kSeekFault = 32,
  kRemoveFault = 64,
  kMakeConverterFault = 128,
  kMeasureFault = 256,
  kConvertFault = 512,
  kServiceFault = 1024,    // pools, locks and extensions
  kCloseFault = 2048,      // an update that can not be made durable
  kRecordFault = 4096,     // a record that is left unconverted
  kShortReadFault = 8192,  // a read that delivers one byte
  kFileFault = kOpenFault | kReadFault | kWriteFault | kSeekFault | kRemoveFault | kCloseFault,
  kAnyFault = 0xffffffff & ~kServiceFault,
};

// One call as the host saw it. `offset` is a file position, or the access mode of an open.
struct Event {
  const char* what;
  int64_t offset;
  int64_t length;
};

struct FakeFile;

class FakeHost : public HostHandle {
 public:
  FakeHost();
  ~FakeHost();  // complains about whatever is still alive

  // The nth call of these kinds from now on fails, and with `forEver` all after it; unless 0, the
  // `second` one does too.
  void fail(uint32_t kinds, int nth, bool forEver = false, int second = 0);
  void stopFailing() { fail(kNoFault, 0); }
  int fired() const { return fired_; }

  bool hasFile(const Path& path) const { return files_.count(path) != 0; }
  Bytes& file(const Path& path);  // made when absent
  Disk disk() const;
  void setDisk(const Disk& disk);
  std::set<Path> undone;  // whose last update failed somewhere and was taken back by its close

  static int64_t blocksIn(const Pool* pool);
  static int64_t mostBytesIn(const Pool* pool);  // in use at one moment
  static bool holds(const Pool* pool, const void* block);
  Pool* makePool() { return createPool(this, Bytes(24).data(), 0, "Pool"); }

  std::vector<Event> events;  // files and converters, in the order of their calls
  int64_t count(std::string_view what, int64_t length = -1) const;

  int64_t longestRead = INT64_MAX;  // a read delivers at most this many bytes
  int32_t removeResult = 0;         // nonzero: what `remove` answers, leaving the file alone
  bool knowsEncodings = true;       // whether there is an hxmok
  int liveConverters = 0;

  // For the slots.
  bool takeFault(FaultKind kind);
  void note(const char* what, int64_t offset = 0, int64_t length = 0);
  FakeFile* openFile(const Path& path, int32_t accessMode);
  int32_t removeFile(const Path& path);
  void settle(FakeFile* file);
  std::atomic<int> alive{0};

 private:
  std::mutex mutex_;
  std::atomic<uint32_t> faultKinds_{0};
  int calls_ = 0;  // of those kinds
  int nth_ = 0;
  int second_ = 0;
  bool forEver_ = false;
  std::atomic<int> fired_{0};
  std::map<Path, std::shared_ptr<Bytes>> files_;
  std::vector<std::unique_ptr<FakeFile>> handles_;  // closed ones too, to catch a late use
};

// The identities of the two machines.
void fillIdentity(void* id, bool bigEndian);

}  // namespace hx::fake
