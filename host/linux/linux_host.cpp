#include "host/linux/linux_host.h"

#include <string_view>

#include "host/linux/encoding_service.h"
#include "host/linux/file_ops.h"
#include "host/linux/file_service.h"
#include "host/linux/memory_pool.h"
#include "host/linux/open_file.h"
#include "host/linux/thread_lock.h"

namespace hxhost {

struct HostServices : hx::HostHandle {
  explicit HostServices(const HostOptions& hostOptions);

  PoolMeter meter;
  HostOptions fileOptions;
};

namespace {

hx::Lock* createLockSlot(hx::HostHandle*, const void*, int64_t, const char*) noexcept {
  return makeThreadLock();
}

hx::Pool* createPoolSlot(hx::HostHandle* host, const void*, int64_t, const char*) noexcept {
  return makeMemoryPool(static_cast<HostServices*>(host)->meter);
}

void* loadExtensionSlot(hx::HostHandle* host, const char32_t* name, int64_t length,
                        int64_t) noexcept {
  if (name == nullptr || length != 5) return nullptr;
  const std::u32string_view wanted(name, 5);
  auto* services = static_cast<HostServices*>(host);
  hx::FileIo* given = services->fileOptions.files;
  if (wanted == U"hxfio") return given != nullptr ? given : makeFileService(services->fileOptions);
  if (wanted == U"hxmok") return makeEncodingService();
  return nullptr;
}

}  // namespace

HostServices::HostServices(const HostOptions& options) : hx::HostHandle{}, fileOptions(options) {
  if (fileOptions.fileOps == nullptr) fileOptions.fileOps = makeSystemFileOps();
  head = {{'h', 'o', 's', 't'}, {}, nullptr, nullptr, nullptr, nullptr};
  createLock = createLockSlot;
  createPool = createPoolSlot;
  loadExtension = loadExtensionSlot;
}

LinuxHost::LinuxHost(const HostOptions& options)
    : services_(std::make_unique<HostServices>(options)) {}

LinuxHost::~LinuxHost() = default;

hx::HostHandle* LinuxHost::handle() {
  return services_.get();
}

PoolUse LinuxHost::poolUse() const {
  return services_->meter.use();
}

bool LinuxHost::reserve(hx::FileIo* files, std::u32string_view path, Purpose purpose) {
  return reserveFile(files, path, purpose);
}

std::shared_ptr<FileOutcome> LinuxHost::outcomeOf(hx::FileHandle* file) {
  return static_cast<OpenFile*>(file)->outcome();
}

OpenedFile LinuxHost::openedOf(hx::FileHandle* file) {
  return static_cast<OpenFile*>(file)->opened();
}

bool LinuxHost::commitUpdate(hx::FileHandle* file) {
  return static_cast<OpenFile*>(file)->commit();
}

void LinuxHost::abandonUpdate(hx::FileHandle* file) {
  static_cast<OpenFile*>(file)->abandon();
}

}  // namespace hxhost
