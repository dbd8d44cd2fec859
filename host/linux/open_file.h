// The file handle of host/file_io.h: a position in a cached file.
#pragma once

#include <memory>
#include <string_view>

#include "host/file_io.h"
#include "host/linux/block_cache.h"
#include "host/linux/disk_file.h"

namespace hxhost {

// Reads and writes are refused, with a nonzero result and nothing changed, for a negative count, a
// null buffer and an end past the largest position; seeks for a target that is negative or too
// large and for an unknown origin. A write that is refused because the file is open for reading
// only or can't grow so far is a failure to be told. Once bytes were lost, all reads and writes
// fail: what the file would look like is not known any more.
class OpenFile : public hx::FileHandle {
 public:
  // `fullPath` has at most HX_PATH_CAPACITY characters; see BlockCache for the shelf. Throws
  // std::bad_alloc.
  OpenFile(LockedFiles& files, FileLease lease, std::u32string_view fullPath,
           std::shared_ptr<BlockShelf> shelf, int64_t cacheBytes);

  // Completes an update, all of it or nothing, and closes the file.
  ~OpenFile();

  int32_t readOn(hx::ReadRequest& request, int64_t& count) noexcept;
  int32_t writeOn(const void* source, int64_t count) noexcept;
  int32_t moveTo(int64_t& position, int32_t whence) noexcept;

  // Past the cache and the position, by several threads at once.
  int32_t readPartsAt(const hx::ReadRequest* parts, int32_t count, int64_t offset) const noexcept;

  // Makes an update fail on purpose.
  void abandon() noexcept;

  // Ends an update and begins the next; see DiskFile.
  bool commit() noexcept;

  const std::shared_ptr<FileOutcome>& outcome() const { return disk_.outcome(); }
  OpenedFile opened() const { return disk_.opened(); }

 private:
  DiskFile disk_;
  const std::shared_ptr<BlockShelf> shelf_;  // outlives the cache, and the service perhaps
  BlockCache cache_;
  int64_t position_ = 0;
};

}  // namespace hxhost
