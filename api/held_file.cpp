#include "held_file.h"

#include <new>

#include "host/linux/open_request.h"

namespace hxcrate {

namespace {

hx::FileHandle* openForReading(hx::FileIo* files, const std::u32string& path) {
  hx::OpenParameters parameters{};
  parameters.accessMode = hx::HX_ACCESS_READ;
  parameters.fixed40 = 1024;
  parameters.fixed48 = 1;
  parameters.fixed200 = 1;
  std::int64_t word = 0;
  return files->open(files, path.data(), static_cast<std::int64_t>(path.size()), &parameters, 0, 0,
                     "hxfio", &word, 0);
}

}  // namespace

OwnedFileService loadFileService(hx::HostHandle* host) {
  void* files = host->loadExtension(host, U"hxfio", 5, 0);
  if (files == nullptr) throw std::bad_alloc();
  return OwnedFileService(static_cast<hx::FileIo*>(files));
}

HeldFile::HeldFile(hx::FileIo* files, const std::u32string& path,
                   std::chrono::milliseconds lockWait) {
  const hxhost::OpenRequest request({.lockWait = lockWait});
  if (hxhost::LinuxHost::reserve(files, path, hxhost::Purpose::kRead)) {
    file_.reset(openForReading(files, path));
  }
  refusal_ = refusalOf(request);
}

}  // namespace hxcrate
