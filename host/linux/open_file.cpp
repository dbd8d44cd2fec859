#include "host/linux/open_file.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <span>
#include <utility>

namespace hxhost {
namespace {

constexpr int32_t kDone = 0;
constexpr int32_t kFailed = 1;
constexpr int64_t kLastPosition = std::numeric_limits<int64_t>::max();

OpenFile* toOpenFile(hx::FileHandle* handle) {
  return static_cast<OpenFile*>(handle);
}

void closeSlot(hx::FileHandle* handle) noexcept {
  delete toOpenFile(handle);
}

int32_t readSlot(hx::FileHandle* handle, hx::ReadRequest* request, int64_t* count, int64_t, int64_t,
                 int64_t) noexcept {
  if (request == nullptr || count == nullptr) return kFailed;
  return toOpenFile(handle)->readOn(*request, *count);
}

int32_t writeSlot(hx::FileHandle* handle, const void* source, int64_t count, int64_t, int64_t,
                  int64_t) noexcept {
  return toOpenFile(handle)->writeOn(source, count);
}

int32_t seekSlot(hx::FileHandle* handle, int64_t* position, int32_t whence, int64_t) noexcept {
  return position == nullptr ? kFailed : toOpenFile(handle)->moveTo(*position, whence);
}

int32_t readAtSlot(hx::FileHandle* handle, const hx::ReadRequest* parts, int32_t count,
                   int64_t offset) noexcept {
  return toOpenFile(handle)->readPartsAt(parts, count, offset);
}

}  // namespace

OpenFile::OpenFile(LockedFiles& files, FileLease lease, std::u32string_view fullPath,
                   std::shared_ptr<BlockShelf> shelf, int64_t cacheBytes)
    : hx::FileHandle{},
      disk_(files, std::move(lease), std::make_shared<FileOutcome>()),
      shelf_(std::move(shelf)),
      cache_(disk_, *shelf_, cacheBytes) {
  head = {{'f', 'i', 'l', 'e'}, {}, nullptr, nullptr, nullptr, nullptr};
  close = closeSlot;
  read = readSlot;
  write = writeSlot;
  seek = seekSlot;
  readAt = readAtSlot;
  std::copy(fullPath.begin(), fullPath.end(), path);
  pathLength = static_cast<int32_t>(fullPath.size());
}

OpenFile::~OpenFile() {
  if (!cache_.flush()) disk_.stopWriting();
}

int32_t OpenFile::readOn(hx::ReadRequest& request, int64_t& count) noexcept {
  if (request.destination == nullptr || request.count <= 0) return kFailed;
  if (disk_.hasLostWrite()) return kFailed;
  if (position_ >= cache_.size()) return kFailed;
  const int64_t delivered = cache_.read(position_, request.destination, request.count);
  if (delivered == 0) return kFailed;
  position_ += delivered;
  disk_.outcome()->noteRead(delivered);
  count = delivered;
  return kDone;
}

int32_t OpenFile::readPartsAt(const hx::ReadRequest* parts, int32_t count,
                              int64_t offset) const noexcept {
  if (!disk_.tryReadParts(parts, count, offset)) return kFailed;
  for (const hx::ReadRequest& part : std::span(parts, static_cast<size_t>(count)))
    disk_.outcome()->noteRead(part.count);
  return kDone;
}

int32_t OpenFile::writeOn(const void* source, int64_t count) noexcept {
  if (count == 0) return kDone;
  if (source == nullptr || count < 0) return kFailed;
  if (!disk_.isWritable() || count > kLongestFile - position_) {
    disk_.noteFailure({disk_.isWritable() ? EFBIG : EBADF, FileOperation::kWrite, position_});
    if (disk_.isWritable()) disk_.stopWriting();
    return kFailed;
  }
  if (disk_.hasLostWrite()) return kFailed;
  if (!cache_.write(position_, source, count)) {
    disk_.stopWriting();  // also when the bytes were lost for want of their neighbours on disk
    return kFailed;
  }
  position_ += count;
  return kDone;
}

void OpenFile::abandon() noexcept {
  if (!disk_.isWritable()) return;
  disk_.stopWriting();
  disk_.noteFailure({ECANCELED, FileOperation::kAbandon});
}

bool OpenFile::commit() noexcept {
  if (!disk_.isWritable()) return false;
  if (!cache_.flush()) disk_.stopWriting();
  return disk_.commitUpdate();
}

int32_t OpenFile::moveTo(int64_t& position, int32_t whence) noexcept {
  if (whence != hx::HX_SEEK_START && whence != hx::HX_SEEK_END) return kFailed;
  const int64_t origin = whence == hx::HX_SEEK_END ? cache_.size() : 0;
  if (position > kLastPosition - origin || position < -origin) return kFailed;
  position_ = origin + position;
  position = position_;
  return kDone;
}

}  // namespace hxhost
