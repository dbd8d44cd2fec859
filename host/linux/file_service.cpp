#include "host/linux/file_service.h"

#include <cerrno>
#include <new>
#include <string>
#include <utility>

#include "host/linux/locked_files.h"
#include "host/linux/open_file.h"
#include "host/linux/open_request.h"
#include "host/linux/path_codec.h"

namespace hxhost {
namespace {

constexpr int32_t kRemoved = 0;
constexpr int32_t kNothingThere = 1;  // nor can there be, when the path is none

// Memory of caches that waits for the next file: what one file uses at most unless told otherwise.
constexpr size_t kKeptBytes = 2 * 1024 * 1024;

struct FileService : hx::FileIo {
  explicit FileService(const HostOptions& options)
      : hx::FileIo{},
        files(std::make_shared<LockedFiles>(options.fileOps, options.durability, options.lockWait)),
        cacheBytesPerFile(options.cacheBytesPerFile),
        shelf(std::make_shared<BlockShelf>(
            static_cast<size_t>(BlockCache::blockBytesFor(options.cacheBytesPerFile)),
            kKeptBytes)) {}

  const std::shared_ptr<LockedFiles> files;
  const int64_t cacheBytesPerFile;
  const std::shared_ptr<BlockShelf> shelf;
};

FileService& toFileService(hx::FileIo* io) {
  return *static_cast<FileService*>(io);
}

bool takesOnlyNew() {
  const OpenRequest* request = OpenRequest::current();
  return request != nullptr && request->terms().onlyNew;
}

int encodePathOrFail(const char32_t* path, int64_t length, std::string& encoded) {
  auto utf8 = encodePath(path, length);
  if (!utf8) return length > hx::HX_PATH_CAPACITY ? ENAMETOOLONG : EINVAL;
  encoded = std::move(*utf8);
  return 0;
}

OpenResult openHandle(FileService& service, const std::string& path, bool forUpdate,
                      hx::FileHandle*& handle) {
  FileLease lease;
  const OpenResult result = service.files->open(path, forUpdate, lease);
  if (result.error != 0) return result;
  if (forUpdate && takesOnlyNew() && !lease.file().wasCreated) return {EEXIST};
  const std::u32string fullPath = decodePath(lease.file().path);
  if (fullPath.size() > hx::HX_PATH_CAPACITY) return {ENAMETOOLONG};
  auto* opened = new OpenFile(*service.files, std::move(lease), fullPath, service.shelf,
                              service.cacheBytesPerFile);
  if (OpenRequest* request = OpenRequest::current()) request->noteOpened(opened->outcome());
  handle = opened;
  return {};
}

OpenResult tryOpen(FileService& service, const char32_t* path, int64_t length,
                   const hx::OpenParameters* parameters, hx::FileHandle*& handle) noexcept try {
  std::string encoded;
  if (const int error = encodePathOrFail(path, length, encoded); error != 0) return {error};
  const int32_t mode = parameters != nullptr ? parameters->accessMode : 0;
  if (mode != hx::HX_ACCESS_READ && mode != hx::HX_ACCESS_UPDATE) return {EINVAL};
  return openHandle(service, encoded, mode == hx::HX_ACCESS_UPDATE, handle);
} catch (const std::bad_alloc&) {
  return {ENOMEM};
}

OpenResult tryRemove(FileService& service, const char32_t* path, int64_t length) noexcept try {
  std::string encoded;
  const int error = encodePathOrFail(path, length, encoded);
  return error != 0 ? OpenResult{error, FileOperation::kRemove} : service.files->remove(encoded);
} catch (const std::bad_alloc&) {
  return {ENOMEM, FileOperation::kRemove};
}

OpenResult tryReserve(FileService& service, std::u32string_view path, Purpose purpose,
                      OpenRequest& request) noexcept try {
  std::string encoded;
  const int error = encodePathOrFail(path.data(), std::ssize(path), encoded);
  if (error != 0) return {error};
  auto lease = std::make_shared<FileLease>();
  const OpenResult result = service.files->reserve(encoded, purpose, *lease);
  if (result.error == 0) request.keepReservation(std::move(lease));
  return result;
} catch (const std::bad_alloc&) {
  return {ENOMEM};
}

void tell(const OpenResult& result) noexcept {
  OpenRequest* request = OpenRequest::current();
  if (request != nullptr) request->noteFailure({result.error, result.operation}, result.holder);
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
  const OpenResult result = tryOpen(service, path, length, parameters, handle);
  if (result.error != 0) tell(result);
  return handle;
}

int32_t removeSlot(hx::FileIo* io, const char32_t* path, int64_t length, int64_t,
                   int64_t) noexcept {
  FileService& service = toFileService(io);
  const OpenResult result = tryRemove(service, path, length);
  if (result.error != 0 && result.error != ENOENT) tell(result);
  return removalResult(result.error);
}

int32_t versionSlot(void*, int64_t* a, int64_t* b, int64_t* c) noexcept {
  *a = hx::HX_READ_AT_MAJOR;
  *b = hx::HX_READ_AT_MINOR;
  *c = 0;
  return 0;
}

int32_t destroySlot(void* object) noexcept {
  delete &toFileService(static_cast<hx::FileIo*>(object));
  return 0;
}

}  // namespace

bool reserveFile(hx::FileIo* files, std::u32string_view path, Purpose purpose) noexcept {
  OpenRequest* request = OpenRequest::current();
  if (request == nullptr) return false;
  request->keepReservation(nullptr);
  const OpenResult result = tryReserve(toFileService(files), path, purpose, *request);
  if (result.error != 0) tell(result);
  return result.error == 0;
}

hx::FileIo* makeFileService(const HostOptions& options) noexcept try {
  auto* service = new FileService(options);
  service->head = {{'f', 'i', 'o', '1'}, {}, nullptr, versionSlot, nullptr, destroySlot};
  service->open = openSlot;
  service->remove = removeSlot;
  return service;
} catch (const std::bad_alloc&) {
  return nullptr;
}

}  // namespace hxhost
