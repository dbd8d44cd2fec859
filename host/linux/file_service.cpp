#include "host/linux/file_service.h"

#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "host/linux/open_file.h"
#include "host/linux/path_codec.h"
#include "host/linux/regular_file.h"

namespace hxhost {
namespace {

constexpr int32_t kRemoved = 0;
constexpr int32_t kNothingThere = 1;  // nor can there be, when the path is none

struct FileService : hx::FileIo {
  FileService(const FileServiceOptions& serviceOptions, FailureLog& failureLog)
      : hx::FileIo{}, options(serviceOptions), failures(failureLog) {}

  FileServiceOptions options;
  FailureLog& failures;
};

FileService& toFileService(hx::FileIo* io) {
  return *static_cast<FileService*>(io);
}

int encodePathOrFail(const char32_t* path, int64_t length, std::string& encoded) {
  auto utf8 = encodePath(path, length);
  if (!utf8) return length > hx::HX_PATH_CAPACITY ? ENAMETOOLONG : EINVAL;
  encoded = std::move(*utf8);
  return 0;
}

int openHandle(FileService& service, const std::string& path, bool writable,
               hx::FileHandle*& handle) {
  FileOps& ops = *service.options.ops;
  RegularFile file;
  if (const int error = openRegularFile(ops, path, writable, file); error != 0) return error;
  const auto fullPath = decodePath(file.path);
  if (!fullPath || fullPath->size() > hx::HX_PATH_CAPACITY) {
    removeIfLeftEmpty(ops, file);
    return fullPath ? ENAMETOOLONG : EILSEQ;
  }
  handle = new OpenFile(service.options.ops, std::move(file), service.failures, *fullPath,
                        service.options.cacheBytesPerFile);
  return 0;
}

// 0 or an errno.
int tryOpen(FileService& service, const char32_t* path, int64_t length,
            const hx::OpenParameters* parameters, hx::FileHandle*& handle) noexcept try {
  std::string encoded;
  if (const int error = encodePathOrFail(path, length, encoded); error != 0) return error;
  const int32_t mode = parameters != nullptr ? parameters->accessMode : 0;
  if (mode != hx::HX_ACCESS_READ && mode != hx::HX_ACCESS_UPDATE) return EINVAL;
  return openHandle(service, encoded, mode == hx::HX_ACCESS_UPDATE, handle);
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

int tryRemove(FileService& service, const char32_t* path, int64_t length) noexcept try {
  std::string encoded;
  if (const int error = encodePathOrFail(path, length, encoded); error != 0) return error;
  return removeRegularFile(*service.options.ops, encoded);
} catch (const std::bad_alloc&) {
  return ENOMEM;
}

void logFailure(FileService& service, int error, const char* operation, const char32_t* path,
                int64_t length) noexcept {
  std::string described;
  try {
    described = describePath(path, length);
  } catch (const std::bad_alloc&) {
  }
  service.failures.record(error, operation, -1, described);
}

int32_t removalResult(int error) {
  switch (error) {
    case 0:
      return kRemoved;
    case ENOENT:
    case ENOTDIR:
    case EINVAL:
    case ENAMETOOLONG:
      return kNothingThere;
    case EACCES:
    case EPERM:
    case EROFS:
      return hx::HX_REMOVE_NO_PERMISSION;
    case EBUSY:
    case ETXTBSY:
      return hx::HX_REMOVE_IN_USE;
    case EISDIR:
    case ENOTSUP:
      return hx::HX_REMOVE_NOT_REGULAR;
    default:
      return hx::HX_REMOVE_IO_ERROR;
  }
}

hx::FileHandle* openSlot(hx::FileIo* io, const char32_t* path, int64_t length,
                         const hx::OpenParameters* parameters, int64_t, int64_t, const char*, void*,
                         int64_t) noexcept {
  FileService& service = toFileService(io);
  hx::FileHandle* handle = nullptr;
  const int error = tryOpen(service, path, length, parameters, handle);
  if (error != 0) logFailure(service, error, "open", path, length);
  return handle;
}

int32_t removeSlot(hx::FileIo* io, const char32_t* path, int64_t length, int64_t,
                   int64_t) noexcept {
  FileService& service = toFileService(io);
  const int error = tryRemove(service, path, length);
  if (error != 0 && error != ENOENT) logFailure(service, error, "remove", path, length);
  return removalResult(error);
}

int32_t destroySlot(void* object) noexcept {
  delete &toFileService(static_cast<hx::FileIo*>(object));
  return 0;
}

}  // namespace

hx::FileIo* makeFileService(const FileServiceOptions& options, FailureLog& failures) noexcept {
  auto* service = new (std::nothrow) FileService(options, failures);
  if (service == nullptr) return nullptr;
  service->head = {{'f', 'i', 'o', '1'}, {}, nullptr, nullptr, nullptr, destroySlot};
  service->open = openSlot;
  service->remove = removeSlot;
  return service;
}

}  // namespace hxhost
