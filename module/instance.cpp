#include "blob/open_blob.h"
#include "item/open_item.h"
#include "item/open_view.h"
#include "item/read_at.h"
#include "module/entry.h"
#include "records/bytes.h"
#include "records/memory.h"
#include "store/find_member.h"
#include "store/open_store.h"

namespace hx {

namespace {

constexpr int64_t kInterfaceMajor = 6;
constexpr int64_t kInterfaceMinor = 1;

// What hosts are told of the module itself. It goes with the interface and not with the project,
// whose versions follow what users of the C++ API and the command notice.
constexpr int64_t kModuleVersion[] = {1, 0, 3};

constexpr uint8_t poolparm[24] = {};
constexpr uint8_t lockargs[24] = {};

// The host may write into the block, so it gets a copy.
struct Parameters {
  uint8_t bytes[24];
  explicit Parameters(const uint8_t (&constant)[24]) : bytes() {
    copyBytes(bytes, constant, sizeof(bytes));
  }
};

// Drops a pool with all that came from it, unless an instance has taken it over.
class PoolGuard {
 public:
  explicit PoolGuard(HostHandle* host) {
    const Parameters parameters(poolparm);
    pool_ = host->createPool(host, parameters.bytes, 0, "Pool");
  }
  ~PoolGuard() {
    if (pool_ != nullptr) pool_->head.destroy(pool_);
  }
  PoolGuard(const PoolGuard&) = delete;
  PoolGuard& operator=(const PoolGuard&) = delete;

  Pool* get() const { return pool_; }
  void release() { pool_ = nullptr; }

 private:
  Pool* pool_;
};

Lock* createLock(HostHandle* host) {
  const Parameters parameters(lockargs);
  return host->createLock(host, parameters.bytes, 0, "HXCRATE");
}

bool getServices(ExtensionInstance* instance, HostHandle* host) {
  instance->lock = createLock(host);
  if (instance->lock == nullptr) return false;
  instance->fileExtension = static_cast<FileIo*>(host->loadExtension(host, U"hxfio", 5, 0));
  if (instance->fileExtension != nullptr) return true;
  instance->lock->head.destroy(instance->lock);
  return false;
}

bool canReadAt(FileIo* files) {
  int64_t major = 0, minor = 0, patch = 0;
  if (files->head.getVersion == nullptr) return false;
  if (files->head.getVersion(files, &major, &minor, &patch) != 0) return false;
  return major == HX_READ_AT_MAJOR && minor >= HX_READ_AT_MINOR;
}

void fillInstance(ExtensionInstance* instance) {
  copyBytes(instance->eyeCatcher, "nevo", sizeof(instance->eyeCatcher));
  instance->getRequiredVersion = hxcrateGetReqVersion;
  instance->getVersion = hxcrateGetVersion;
  instance->destroy = hxcrateRealDestroy;
  instance->openStore = hxcrateOpenStore;
  instance->openItem = hxcrateOpenItem;
  instance->openStoreFromMemory = hxcrateOpenStoreFromMemory;
  instance->openView = hxcrateOpenView;
  instance->readItem = hxcrateReadItem;
  instance->sizeOfItem = hxcrateSizeOfItem;
  instance->findMember = hxcrateFindMember;
  instance->filesReadAt = canReadAt(instance->fileExtension);
}

// Without the extension the identity stays all zero, and headers carry that.
void getEncoding(ExtensionInstance* instance, HostHandle* host) {
  auto* encoding = static_cast<Encoding*>(host->loadExtension(host, U"hxmok", 5, 0));
  instance->encodingExtension = encoding;
  if (encoding == nullptr) return;
  encoding->fillEncodingId(encoding, &instance->encodingId, HX_ENCODING_ID_LENGTH, 0, 0);
}

}  // namespace

extern "C" {

HostHandle* Exported_HXHandle = nullptr;

int32_t hxmodent(HostHandle* host) {
  Exported_HXHandle = host;
  return 0;
}

int32_t hxmodver(HostHandle* host, int64_t* major, int64_t* minor) {
  *major = kInterfaceMajor;
  *minor = kInterfaceMinor;
  return hxmodent(host);
}

ExtensionInstance* hxcrate() {
  HostHandle* host = Exported_HXHandle;
  if (host == nullptr) return nullptr;
  PoolGuard pool(host);
  if (pool.get() == nullptr) return nullptr;
  auto* instance = allocateRecord<ExtensionInstance>(pool.get());
  if (instance == nullptr) return nullptr;
  instance->pool = pool.get();
  if (!getServices(instance, host)) return nullptr;
  fillInstance(instance);
  getEncoding(instance, host);
  pool.release();
  return instance;
}

int32_t hxcrateGetReqVersion(void* /*instance*/, int64_t* a, int64_t* b, int64_t* c) {
  *a = kInterfaceMajor;
  *b = kInterfaceMinor;
  *c = 1;
  return 0;
}

int32_t hxcrateGetVersion(void* /*instance*/, int64_t* a, int64_t* b, int64_t* c) {
  *a = kModuleVersion[0];
  *b = kModuleVersion[1];
  *c = kModuleVersion[2];
  return 0;
}

int32_t hxcrateRealDestroy(void* object) {
  auto* instance = static_cast<ExtensionInstance*>(object);
  // The instance itself lies in the pool.
  Pool* pool = instance->pool;
  Lock* lock = instance->lock;
  if (Encoding* encoding = instance->encodingExtension) encoding->head.destroy(encoding);
  if (FileIo* files = instance->fileExtension) files->head.destroy(files);
  lock->head.destroy(lock);
  pool->head.destroy(pool);
  return 0;
}

}  // extern "C"

}  // namespace hx
