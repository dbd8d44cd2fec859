#include "tests/fake_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <unordered_map>

#include "host/linux/byte_order.h"

namespace hx::fake {

namespace {

struct FakeLock;
thread_local const FakeLock* heldLock = nullptr;

// An object that is counted while it lives; `Self` is the type that `destroy` deletes.
template <typename Base, typename Self>
struct Counted : Base {
  explicit Counted(FakeHost* owner) : Base{}, host(owner) {
    ++host->alive;
    this->head.destroy = [](void* object) -> int32_t {
      delete static_cast<Self*>(object);
      return 0;
    };
  }
  ~Counted() { --host->alive; }

  FakeHost* host;
};

struct FakePool : Counted<Pool, FakePool> {
  explicit FakePool(FakeHost* owner) : Counted(owner) {
    allocate = [](Pool* pool, uint64_t size, uint32_t flags) {
      EXPECT_EQ(flags, HX_ALLOCATE_ZEROED);
      return static_cast<FakePool*>(pool)->give(size);
    };
    Pool::free = [](Pool* pool, void* block) { static_cast<FakePool*>(pool)->takeBack(block); };
  }
  ~FakePool() {
    for (const auto& [block, size] : blocks)
      std::free(const_cast<void*>(block));
  }

  void* give(uint64_t size) {
    if (host->takeFault(kAllocateFault)) return nullptr;
    void* block = std::calloc(1, size);
    const std::lock_guard lock(mutex);
    blocks.emplace(block, size);
    inUse += size;
    most = std::max(most, inUse);
    return block;
  }

  void takeBack(void* block) {
    const std::lock_guard lock(mutex);
    const auto found = blocks.find(block);
    if (found == blocks.end()) {
      ADD_FAILURE() << "not a block of this pool, or freed before";
      return;
    }
    inUse -= found->second;
    blocks.erase(found);
    std::free(block);
  }

  std::mutex mutex;
  std::unordered_map<const void*, uint64_t> blocks;  // and their sizes
  uint64_t inUse = 0;
  uint64_t most = 0;
};

struct FakeLock : Counted<Lock, FakeLock> {
  explicit FakeLock(FakeHost* made) : Counted(made) {
    acquire = [](Lock* lock, int64_t, int64_t) { return static_cast<FakeLock*>(lock)->take(); };
    release = [](Lock* lock) {
      heldLock = nullptr;
      static_cast<FakeLock*>(lock)->mutex.unlock();
      return 0;
    };
  }

  int32_t take() {
    EXPECT_NE(heldLock, this) << "the lock is taken twice on one path";
    if (host->takeFault(kAcquireFault) || heldLock == this) return 5;
    mutex.lock();
    heldLock = this;
    return 0;
  }

  std::mutex mutex;
};

// Item bytes are stored as 16-bit numbers of the storing machine; a reader gets their low bytes.
struct FakeConverter : Counted<Converter, FakeConverter> {
  FakeConverter(FakeHost* owner, bool fromBig, bool toBig)
      : Counted(owner), swaps(fromBig != toBig), low(fromBig ? 1 : 0) {
    ++host->liveConverters;
    convertRecord = [](Converter* converter, const void* map, const void* record, int64_t length,
                       void* out, int64_t) -> int32_t {
      auto* fake = static_cast<FakeConverter*>(converter);
      if (fake->host->takeFault(kRecordFault)) return 7;
      std::memcpy(out, record, static_cast<size_t>(length));
      const auto* entries = static_cast<const RecordMapEntry*>(map);
      const bool covers =
          !fake->swaps || hxhost::swapRecord(static_cast<uint8_t*>(out), length, entries);
      EXPECT_TRUE(covers) << "a map that does not cover its record";
      return 0;
    };
    convert = [](Converter* converter, void*, const void* stored, int64_t storedLength,
                 void* buffer, int64_t bufferLength, const void**, uint32_t* count) -> int32_t {
      auto* fake = static_cast<FakeConverter*>(converter);
      if (fake->host->takeFault(kConvertFault)) return 7;
      EXPECT_LE(storedLength / 2, bufferLength);
      for (*count = 0; *count < storedLength / 2; ++*count)
        static_cast<uint8_t*>(buffer)[*count] =
            static_cast<const uint8_t*>(stored)[2 * *count + fake->low];
      return 0;
    };
    measure = [](Converter* converter, void*, const void*, int64_t length) -> uint32_t {
      const bool fails = static_cast<FakeConverter*>(converter)->host->takeFault(kMeasureFault);
      return fails ? 0 : static_cast<uint32_t>(2 * length);
    };
    Converter::release = [](Converter* converter) {
      delete static_cast<FakeConverter*>(converter);
    };
  }
  ~FakeConverter() { --host->liveConverters; }

  bool swaps;
  uint32_t low;
};

bool isIdentity(const void* id, bool bigEndian) {
  Bytes known(HX_ENCODING_ID_LENGTH);
  fillIdentity(known.data(), bigEndian);
  return std::memcmp(known.data(), id, known.size()) == 0;
}

struct FakeEncoding : Counted<Encoding, FakeEncoding> {
  explicit FakeEncoding(FakeHost* owner) : Counted(owner) {
    makeConverter = [](Encoding* encoding, int64_t, const void* from,
                       const void* to) -> Converter* {
      auto* made = static_cast<FakeEncoding*>(encoding)->host;
      EXPECT_NE(heldLock, nullptr) << "a converter is made without the lock";
      made->note("make_converter");
      const bool fromBig = isIdentity(from, true);
      const bool toBig = isIdentity(to, true);
      const bool areKnown =
          (fromBig || isIdentity(from, false)) && (toBig || isIdentity(to, false));
      if (made->takeFault(kMakeConverterFault) || !areKnown) return nullptr;
      return new FakeConverter(made, fromBig, toBig);
    };
    fillEncodingId = [](Encoding*, void* buffer, int64_t, int64_t, int64_t) {
      fillIdentity(buffer, false);
      return 0;
    };
  }
};

Path pathOf(const char32_t* path, int64_t length) {
  return length == 0 ? Path() : Path(path, path + length);
}

}  // namespace

struct FakeFile : FileHandle {
  FakeFile(FakeHost* owner, const Path& named, std::shared_ptr<Bytes> content, bool forUpdate)
      : FileHandle{}, host(owner), name(named), bytes(std::move(content)), canWrite(forUpdate) {
    close = [](FileHandle* handle) { static_cast<FakeFile*>(handle)->closeOnce(); };
    FileHandle::read = [](FileHandle* handle, ReadRequest* request, int64_t*, int64_t, int64_t,
                          int64_t) -> int32_t {
      return static_cast<FakeFile*>(handle)->deliver(request) ? 0 : 9;
    };
    write = [](FileHandle* handle, const void* source, int64_t count, int64_t, int64_t,
               int64_t) -> int32_t {
      return static_cast<FakeFile*>(handle)->take(source, static_cast<size_t>(count)) ? 0 : 9;
    };
    seek = [](FileHandle* handle, int64_t* to, int32_t whence, int64_t) -> int32_t {
      auto* file = static_cast<FakeFile*>(handle);
      if (file->fails(kSeekFault)) return 9;
      if (whence == HX_SEEK_END) *to += static_cast<int64_t>(file->bytes->size());
      EXPECT_GE(*to, 0);
      file->position = static_cast<size_t>(*to);
      return 0;
    };
    const Path full = "/full/" + named;
    std::copy(full.begin(), full.end(), path);
    pathLength = static_cast<int32_t>(full.size());
  }

  // What every operation begins with.
  bool fails(FaultKind kind) {
    EXPECT_FALSE(closed) << "a file is used after its close";
    EXPECT_NE(heldLock, nullptr) << "a file is used without the lock";
    const bool now = host->takeFault(kind);
    failed = failed || now;
    // What the file would look like is not known any more.
    hasLost = hasLost || (now && canWrite && kind != kReadFault);
    return now || (hasLost && kind != kCloseFault);
  }

  bool deliver(ReadRequest* request) {
    host->note("read", static_cast<int64_t>(position), request->count);
    if (fails(kReadFault) || position >= bytes->size() || request->count <= 0) return false;
    const auto left = static_cast<int64_t>(bytes->size() - position);
    request->count = std::min({request->count, left, host->longestRead});
    if (host->takeFault(kShortReadFault)) request->count = 1;
    const auto count = static_cast<size_t>(request->count);
    std::memcpy(request->destination, bytes->data() + position, count);
    position += count;
    return true;
  }

  bool take(const void* source, size_t count) {
    EXPECT_TRUE(canWrite) << "a file that is open for reading is written";
    host->note("write", static_cast<int64_t>(position), static_cast<int64_t>(count));
    EXPECT_LT(position, size_t{1} << 30) << "written far outside";
    if (fails(kWriteFault) || position >= size_t{1} << 30) return false;
    bytes->resize(std::max(bytes->size(), position + count));
    std::memcpy(bytes->data() + position, source, count);
    position += count;
    return true;
  }

  void closeOnce() {
    fails(kCloseFault);
    host->note("close");
    closed = true;
    if (canWrite) host->settle(this);
  }

  FakeHost* host;
  Path name;
  std::shared_ptr<Bytes> bytes;
  std::unique_ptr<Bytes> before;  // null: there was no file
  size_t position = 0;
  bool canWrite;
  bool failed = false;
  bool hasLost = false;  // bytes that were to be written
  bool closed = false;
};

namespace {

struct FakeFileIo : Counted<FileIo, FakeFileIo> {
  explicit FakeFileIo(FakeHost* owner) : Counted(owner) {
    open = [](FileIo* io, const char32_t* path, int64_t length, const OpenParameters* parameters,
              int64_t, int64_t, const char*, void*, int64_t) -> FileHandle* {
      EXPECT_TRUE(parameters->fixed40 == 1024 && parameters->fixed48 == 1);
      EXPECT_NE(heldLock, nullptr) << "a file is opened without the lock";
      auto* made = static_cast<FakeFileIo*>(io)->host;
      return made->openFile(pathOf(path, length), parameters->accessMode);
    };
    FileIo::remove = [](FileIo* io, const char32_t* path, int64_t length, int64_t, int64_t) {
      return static_cast<FakeFileIo*>(io)->host->removeFile(pathOf(path, length));
    };
  }
};

template <typename Made>
Made* makeService(HostHandle* handle, bool isKnown = true) {
  auto* host = static_cast<FakeHost*>(handle);
  return host->takeFault(kServiceFault) || !isKnown ? nullptr : new Made(host);
}

}  // namespace

FakeHost::FakeHost() : HostHandle{} {
  createLock = [](HostHandle* host, const void*, int64_t, const char*) -> Lock* {
    return makeService<FakeLock>(host);
  };
  createPool = [](HostHandle* host, const void*, int64_t, const char*) -> Pool* {
    return makeService<FakePool>(host);
  };
  loadExtension = [](HostHandle* host, const char32_t* name, int64_t length, int64_t) -> void* {
    if (pathOf(name, length) == "hxfio") return makeService<FakeFileIo>(host);
    return makeService<FakeEncoding>(host, static_cast<FakeHost*>(host)->knowsEncodings);
  };
}

FakeHost::~FakeHost() {
  EXPECT_EQ(alive, 0) << "pools, locks, extensions or converters are left";
  for (const auto& handle : handles_)
    EXPECT_TRUE(handle->closed) << "a file is left open";
}

void FakeHost::fail(uint32_t kinds, int nth, bool forEver, int second) {
  faultKinds_ = kinds;
  calls_ = 0;
  nth_ = nth;
  second_ = second;
  forEver_ = forEver;
  fired_ = 0;
}

bool FakeHost::takeFault(FaultKind kind) {
  // Relaxed, so that asking orders no threads: that would hide the module's races.
  if ((faultKinds_.load(std::memory_order_relaxed) & kind) == 0) return false;
  const std::lock_guard lock(mutex_);
  ++calls_;
  const bool fires = forEver_ ? calls_ >= nth_ : calls_ == nth_ || calls_ == second_;
  fired_ += fires ? 1 : 0;
  return fires;
}

void FakeHost::note(const char* what, int64_t offset, int64_t length) {
  const std::lock_guard lock(mutex_);
  events.push_back({what, offset, length});
}

Bytes& FakeHost::file(const Path& path) {
  std::shared_ptr<Bytes>& bytes = files_[path];
  if (bytes == nullptr) bytes = std::make_shared<Bytes>();
  return *bytes;
}

Disk FakeHost::disk() const {
  Disk all;
  for (const auto& [path, bytes] : files_)
    all[path] = *bytes;
  return all;
}

void FakeHost::setDisk(const Disk& disk) {
  for (const auto& [path, bytes] : disk)
    file(path) = bytes;
}

int64_t FakeHost::blocksIn(const Pool* pool) {
  return static_cast<int64_t>(static_cast<const FakePool*>(pool)->blocks.size());
}

int64_t FakeHost::mostBytesIn(const Pool* pool) {
  return static_cast<int64_t>(static_cast<const FakePool*>(pool)->most);
}

bool FakeHost::holds(const Pool* pool, const void* block) {
  return static_cast<const FakePool*>(pool)->blocks.count(block) != 0;
}

int64_t FakeHost::count(std::string_view what, int64_t length) const {
  return std::count_if(events.begin(), events.end(), [&](const Event& event) {
    return what == event.what && (length < 0 || length == event.length);
  });
}

FakeFile* FakeHost::openFile(const Path& path, int32_t accessMode) {
  note("open", accessMode);
  const bool canWrite = accessMode == HX_ACCESS_UPDATE;
  const bool exists = hasFile(path);
  if (takeFault(kOpenFault) || path.empty() || (!exists && !canWrite)) return nullptr;
  file(path);
  auto* handle = new FakeFile(this, path, files_[path], canWrite);
  handles_.emplace_back(handle);
  if (canWrite && exists) handle->before = std::make_unique<Bytes>(*handle->bytes);
  return handle;
}

int32_t FakeHost::removeFile(const Path& path) {
  note("remove");
  if (removeResult != 0) return removeResult;
  if (takeFault(kRemoveFault)) return HX_REMOVE_IO_ERROR;
  return files_.erase(path) == 1 ? 0 : -1;
}

// Ends an update: all of it stays, or nothing.
void FakeHost::settle(FakeFile* handle) {
  undone.erase(handle->name);
  if (!handle->failed) return;
  undone.insert(handle->name);
  if (handle->before != nullptr) {
    *handle->bytes = *handle->before;
  } else if (hasFile(handle->name) && files_[handle->name] == handle->bytes) {
    files_.erase(handle->name);
  }
}

void fillIdentity(void* id, bool bigEndian) {
  const std::string identity = bigEndian ? "fake/big" : "fake/little";
  for (size_t i = 0; i < HX_ENCODING_ID_LENGTH; ++i)
    static_cast<char*>(id)[i] = i < identity.size() ? identity[i] : '\0';
}

}  // namespace hx::fake
