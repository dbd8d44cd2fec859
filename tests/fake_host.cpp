#include "tests/fake_host.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "host/linux/byte_order.h"

namespace hx::fake {

namespace {

// What a slot holds that leads to a method of the object.
template <typename Self, auto method, typename Result, typename Base, typename... Arguments>
Result slot(Base* object, Arguments... arguments) {
  return (static_cast<Self*>(object)->*method)(arguments...);
}

// An object that is counted while it lives; `Self` is the type that `destroy` deletes.
template <typename Self, typename Base>
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

struct FakePool : Counted<FakePool, Pool> {
  explicit FakePool(FakeHost* owner) : Counted(owner) {
    allocate = slot<FakePool, &FakePool::give>;
    free = slot<FakePool, &FakePool::takeBack>;
  }
  ~FakePool() {
    std::erase_if(host->blocks, [this](const auto& block) {
      if (block.second.pool == this) std::free(const_cast<void*>(block.first));
      return block.second.pool == this;
    });
  }

  void* give(uint64_t size, uint32_t flags) {
    EXPECT_EQ(flags, HX_ALLOCATE_ZEROED);
    host->events.push_back({"allocate", 0, static_cast<int64_t>(size)});
    if (host->takesFault("allocate") || size > host->largestBlock) return nullptr;
    void* block = std::calloc(1, size);
    host->blocks[block] = {this, size};
    host->bytes += size;
    host->mostBytes = std::max(host->mostBytes, host->bytes);
    return block;
  }

  void takeBack(void* block) {
    const auto found = host->blocks.find(block);
    ASSERT_TRUE(found != host->blocks.end() && found->second.pool == this)
        << "not a block of this pool, or freed before";
    host->bytes -= found->second.size;
    host->blocks.erase(found);
    std::free(block);
  }
};

struct FakeLock : Counted<FakeLock, Lock> {
  explicit FakeLock(FakeHost* owner) : Counted(owner) {
    acquire = slot<FakeLock, &FakeLock::take>;
    release = slot<FakeLock, &FakeLock::giveBack>;
  }

  int32_t take(int64_t, int64_t) {
    host->events.push_back({"lock", 0, 0});
    EXPECT_FALSE(host->isLocked) << "the lock is taken twice on one path";
    EXPECT_FALSE(host->opensBlob) << "opening a blob takes the lock";
    if (host->takesFault("lock")) return 5;
    host->isLocked = true;
    return 0;
  }

  int32_t giveBack() {
    EXPECT_TRUE(std::exchange(host->isLocked, false)) << "released, but not held";
    return 0;
  }
};

constexpr char kIdentities[2][HX_ENCODING_ID_LENGTH] = {"fake/little", "fake/big"};

bool isIdentity(const void* id, bool bigEndian) {
  return std::memcmp(kIdentities[bigEndian ? 1 : 0], id, HX_ENCODING_ID_LENGTH) == 0;
}

// Item bytes are stored as 16-bit numbers of the storing machine; a reader gets their low bytes.
struct FakeConverter : Counted<FakeConverter, Converter> {
  FakeConverter(FakeHost* owner, bool fromBig, bool toBig)
      : Counted(owner), swaps(fromBig != toBig), low(fromBig ? 1 : 0) {
    Converter::convertRecord = slot<FakeConverter, &FakeConverter::convertRecord>;
    Converter::convert = slot<FakeConverter, &FakeConverter::convert>;
    Converter::measure = slot<FakeConverter, &FakeConverter::measure>;
    release = [](Converter* converter) { delete static_cast<FakeConverter*>(converter); };
  }

  int32_t convertRecord(const void* map, const void* record, int64_t length, void* out, int64_t) {
    if (host->takesFault("record")) return 7;
    std::memcpy(out, record, static_cast<size_t>(length));
    const auto* entries = static_cast<const RecordMapEntry*>(map);
    EXPECT_TRUE(!swaps || hxhost::swapRecord(static_cast<uint8_t*>(out), length, entries))
        << "a map that does not cover its record";
    return 0;
  }

  int32_t convert(void*, const void* stored, int64_t storedLength, void* buffer,
                  int64_t bufferLength, const void**, uint32_t* count) {
    if (host->takesFault("convert")) return 7;
    EXPECT_LE(storedLength / 2, bufferLength);
    const auto* numbers = static_cast<const uint8_t*>(stored);
    for (*count = 0; *count < storedLength / 2; ++*count)
      static_cast<uint8_t*>(buffer)[*count] = numbers[2 * *count + low];
    return 0;
  }

  uint32_t measure(void*, const void*, int64_t length) {
    const bool fails = length < 0 || host->takesFault("measure");
    return fails ? 0 : static_cast<uint32_t>(2 * length);
  }

  bool swaps;
  uint32_t low;
};

struct FakeEncoding : Counted<FakeEncoding, Encoding> {
  explicit FakeEncoding(FakeHost* owner) : Counted(owner) {
    makeConverter = slot<FakeEncoding, &FakeEncoding::make>;
    fillEncodingId = [](Encoding*, void* buffer, int64_t, int64_t, int64_t) {
      fillIdentity(buffer, false);
      return 0;
    };
  }

  Converter* make(int64_t, const void* from, const void* to) {
    EXPECT_TRUE(host->isLocked || host->opensBlob) << "a converter is made without the lock";
    host->events.push_back({"make_converter", 0, 0});
    const bool fromBig = isIdentity(from, true);
    const bool toBig = isIdentity(to, true);
    const bool areKnown = (fromBig || isIdentity(from, false)) && (toBig || isIdentity(to, false));
    if (host->takesFault("make") || !areKnown) return nullptr;
    return new FakeConverter(host, fromBig, toBig);
  }
};

}  // namespace

struct FakeFile : FileHandle {
  FakeFile(FakeHost* owner, const Path& named, bool forUpdate)
      : FileHandle{}, host(owner), name(named), canWrite(forUpdate) {
    close = slot<FakeFile, &FakeFile::closeOnce>;
    read = slot<FakeFile, &FakeFile::deliver>;
    write = slot<FakeFile, &FakeFile::take>;
    seek = slot<FakeFile, &FakeFile::moveTo>;
    readAt = slot<FakeFile, &FakeFile::fill>;
    if (host->files.count(name) != 0) before = host->files[name];
    bytes = &host->files[name];
    const Path full = "/full/" + named;
    std::copy(full.begin(), full.end(), path);
    pathLength = static_cast<int32_t>(full.size());
  }

  // What every operation begins with.
  bool fails(const std::string& kind) {
    EXPECT_FALSE(closed) << "a file is used after its close";
    EXPECT_TRUE(host->isLocked) << "a file is used without the lock";
    const bool now = host->takesFault(kind.c_str());
    failed = failed || now;
    // What the file would look like is not known any more.
    hasLost = hasLost || (now && canWrite && kind != "read");
    return now || (hasLost && kind != "close");
  }

  int32_t deliver(ReadRequest* request, int64_t*, int64_t, int64_t, int64_t) {
    host->events.push_back({"read", static_cast<int64_t>(position), request->count});
    if (fails("read") || position >= bytes->size() || request->count <= 0) return 9;
    const auto left = static_cast<int64_t>(bytes->size() - position);
    request->count = std::min({request->count, left, host->longestRead});
    if (host->takesFault("short")) request->count = 1;
    const auto count = static_cast<size_t>(request->count);
    std::memcpy(request->destination, bytes->data() + position, count);
    position += count;
    return 0;
  }

  int32_t take(const void* source, int64_t length, int64_t, int64_t, int64_t) {
    EXPECT_TRUE(canWrite) << "a file that is open for reading is written";
    host->events.push_back({"write", static_cast<int64_t>(position), length});
    EXPECT_LT(position, size_t{1} << 30) << "written far outside";
    if (fails("write") || position >= size_t{1} << 30) return 9;
    const auto count = static_cast<size_t>(length);
    bytes->resize(std::max(bytes->size(), position + count));
    std::memcpy(bytes->data() + position, source, count);
    position += count;
    return 0;
  }

  int32_t moveTo(int64_t* to, int32_t whence, int64_t) {
    if (fails("seek")) return 9;
    if (whence == HX_SEEK_END) *to += static_cast<int64_t>(bytes->size());
    EXPECT_GE(*to, 0);
    position = static_cast<size_t>(*to);
    return 0;
  }

  int32_t fill(const ReadRequest* parts, int32_t number, int64_t offset) {
    EXPECT_FALSE(closed || canWrite || host->isLocked) << "a file is read so at the wrong time";
    int64_t length = 0;
    for (int32_t i = 0; i < number; ++i)
      length += parts[i].count;
    host->events.push_back({"vector", offset, length});
    EXPECT_GE(offset, 0);
    if (host->takesFault("vector") || offset + length > std::ssize(*bytes)) return 9;
    for (int32_t i = 0; i < number; offset += parts[i++].count) {
      EXPECT_GE(parts[i].count, 0);
      std::copy_n(bytes->data() + offset, parts[i].count,
                  static_cast<uint8_t*>(parts[i].destination));
    }
    return 0;
  }

  // Ends an update: all of it stays, or nothing.
  void closeOnce() {
    fails("close");
    host->events.push_back({"close", 0, 0});
    closed = true;
    if (!canWrite) return;
    host->undone.erase(name);
    if (!failed) return;
    host->undone.insert(name);
    if (before) {
      *bytes = *before;
    } else {
      host->files.erase(name);
    }
  }

  FakeHost* host;
  Path name;
  Bytes* bytes;
  std::optional<Bytes> before;  // none: there was no file
  size_t position = 0;
  bool canWrite;
  bool failed = false;
  bool hasLost = false;  // bytes that were to be written
  bool closed = false;
};

namespace {

struct FakeFileIo : Counted<FakeFileIo, FileIo> {
  explicit FakeFileIo(FakeHost* owner) : Counted(owner) {
    FileIo::open = slot<FakeFileIo, &FakeFileIo::open>;
    FileIo::remove = slot<FakeFileIo, &FakeFileIo::remove>;
    head.getVersion = [](void* io, int64_t* a, int64_t* b, int64_t* c) -> int32_t {
      *a = HX_READ_AT_MAJOR;
      *b = HX_READ_AT_MINOR - (static_cast<FakeFileIo*>(io)->host->readsAt ? 0 : 1);
      *c = 0;
      return 0;
    };
  }

  FileHandle* open(const char32_t* characters, int64_t length, const OpenParameters* parameters,
                   int64_t, int64_t, const char*, void*, int64_t) {
    const Path path(characters, characters + length);
    EXPECT_TRUE(parameters->fixed40 == 1024 && parameters->fixed48 == 1);
    EXPECT_TRUE(host->isLocked) << "a file is opened without the lock";
    host->events.push_back({"open", 0, 0});
    const bool canWrite = parameters->accessMode == HX_ACCESS_UPDATE;
    const bool isThere = canWrite || host->files.count(path) != 0;
    if (host->takesFault("open") || path.empty() || !isThere) return nullptr;
    return host->handles.emplace_back(new FakeFile(host, path, canWrite)).get();
  }

  int32_t remove(const char32_t* characters, int64_t length, int64_t, int64_t) {
    const Path path(characters, characters + length);
    if (host->removeResult != 0) return host->removeResult;
    if (host->takesFault("remove")) return HX_REMOVE_IO_ERROR;
    for (const auto& handle : host->handles)
      EXPECT_TRUE(handle->closed || handle->name != path) << "a file is removed while it is open";
    return host->files.erase(path) == 1 ? 0 : -1;
  }
};

template <typename Made, typename Service>
Service* makeService(HostHandle* handle, const void*, int64_t, const char*) {
  auto* host = static_cast<FakeHost*>(handle);
  return host->takesFault("service") ? nullptr : new Made(host);
}

}  // namespace

FakeHost::FakeHost() : HostHandle{} {
  createLock = makeService<FakeLock, Lock>;
  createPool = makeService<FakePool, Pool>;
  loadExtension = [](HostHandle* host, const char32_t* name, int64_t length, int64_t) -> void* {
    if (Path(name, name + length) == "hxfio") {
      return makeService<FakeFileIo, FileIo>(host, nullptr, 0, nullptr);
    }
    if (!static_cast<FakeHost*>(host)->knowsEncodings) return nullptr;
    return makeService<FakeEncoding, Encoding>(host, nullptr, 0, nullptr);
  };
}

FakeHost::~FakeHost() {
  EXPECT_EQ(alive, 0) << "pools, locks, extensions or converters are left";
  for (const auto& handle : handles)
    EXPECT_TRUE(handle->closed) << "a file is left open";
}

void FakeHost::fail(const std::string& kinds, int nth, int second) {
  faultKinds_ = kinds;
  nth_ = nth;
  second_ = second;
  calls_ = 0;
  fired = 0;
}

bool FakeHost::takesFault(const char* kind) {
  if (faultKinds_.find(kind) == std::string::npos) return false;
  ++calls_;
  const bool fires = calls_ == nth_ || calls_ == second_ || (second_ == kAllAfter && calls_ > nth_);
  fired += fires ? 1 : 0;
  return fires;
}

int64_t FakeHost::count(std::string_view what, int64_t length) const {
  return std::count_if(events.begin(), events.end(), [&](const Event& event) {
    return what == event.what && (length < 0 || length == event.length);
  });
}

void fillIdentity(void* id, bool bigEndian) {
  std::memcpy(id, kIdentities[bigEndian ? 1 : 0], HX_ENCODING_ID_LENGTH);
}

}  // namespace hx::fake
