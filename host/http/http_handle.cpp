#include "host/http/http_handle.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string_view>

#include "host/http/http_file.h"

namespace hxremote {
namespace {

constexpr int32_t kDone = 0;
constexpr int32_t kFailed = 1;

struct HttpHandle : hx::FileHandle {
  HttpHandle(HttpFile& remote, std::u32string_view name) : hx::FileHandle{}, file(remote) {
    std::ranges::copy(name, path);
    pathLength = static_cast<int32_t>(name.size());
  }

  HttpFile& file;
  int64_t position = 0;
};

HttpHandle& toHandle(hx::FileHandle* handle) {
  return *static_cast<HttpHandle*>(handle);
}

void closeSlot(hx::FileHandle* handle) noexcept {
  delete &toHandle(handle);
}

int32_t readSlot(hx::FileHandle* handle, hx::ReadRequest* request, int64_t* count, int64_t, int64_t,
                 int64_t) noexcept {
  if (request == nullptr || count == nullptr) return kFailed;
  if (request->destination == nullptr || request->count <= 0) return kFailed;
  HttpHandle& self = toHandle(handle);
  const int64_t done = self.file.read(self.position, request->destination, request->count);
  if (done == 0) return kFailed;
  self.position += done;
  *count = done;
  return kDone;
}

int32_t writeSlot(hx::FileHandle*, const void*, int64_t, int64_t, int64_t, int64_t) noexcept {
  return kFailed;
}

int32_t seekSlot(hx::FileHandle* handle, int64_t* position, int32_t whence, int64_t) noexcept {
  if (position == nullptr) return kFailed;
  if (whence != hx::HX_SEEK_START && whence != hx::HX_SEEK_END) return kFailed;
  HttpHandle& self = toHandle(handle);
  const int64_t origin = whence == hx::HX_SEEK_END ? self.file.length() : 0;
  if (*position > std::numeric_limits<int64_t>::max() - origin || *position < -origin) {
    return kFailed;
  }
  self.position = origin + *position;
  *position = self.position;
  return kDone;
}

int32_t readAtSlot(hx::FileHandle* handle, const hx::ReadRequest* parts, int32_t count,
                   int64_t offset) noexcept {
  HttpFile& file = toHandle(handle).file;
  if (parts == nullptr || count < 0 || offset < 0) return kFailed;
  int64_t sum = 0;
  for (int32_t i = 0; i < count; ++i)
    sum += parts[i].count;
  file.prepare(offset, sum);
  for (int32_t i = 0; i < count; ++i) {
    if (file.read(offset, parts[i].destination, parts[i].count) != parts[i].count) return kFailed;
    offset += parts[i].count;
  }
  return kDone;
}

hx::FileHandle* openSlot(hx::FileIo* io, const char32_t* path, int64_t length,
                         const hx::OpenParameters* parameters, int64_t, int64_t, const char*, void*,
                         int64_t) noexcept {
  if (parameters == nullptr || parameters->accessMode != hx::HX_ACCESS_READ) return nullptr;
  if (path == nullptr || length < 0 || length > hx::HX_PATH_CAPACITY) return nullptr;
  auto* handle = new (std::nothrow)
      HttpHandle(static_cast<FileService*>(io)->file(), {path, static_cast<size_t>(length)});
  if (handle == nullptr) return nullptr;
  handle->head = {{'h', 't', 't', 'p'}, {}, nullptr, nullptr, nullptr, nullptr};
  handle->close = closeSlot;
  handle->read = readSlot;
  handle->write = writeSlot;
  handle->seek = seekSlot;
  handle->readAt = readAtSlot;
  return handle;
}

int32_t removeSlot(hx::FileIo*, const char32_t*, int64_t, int64_t, int64_t) noexcept {
  return hx::HX_REMOVE_NO_PERMISSION;
}

int32_t versionSlot(void*, int64_t* a, int64_t* b, int64_t* c) noexcept {
  *a = hx::HX_READ_AT_MAJOR;
  *b = hx::HX_READ_AT_MINOR;
  *c = 0;
  return 0;
}

int32_t destroySlot(void*) noexcept {
  return 0;
}

}  // namespace

FileService::FileService(HttpFile& file) : hx::FileIo{}, file_(file) {
  head = {{'h', 't', 't', 'p'}, {}, nullptr, versionSlot, nullptr, destroySlot};
  open = openSlot;
  remove = removeSlot;
}

}  // namespace hxremote
