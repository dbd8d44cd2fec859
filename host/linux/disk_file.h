// An open file on disk below a handle's cache: transfers whole stretches and remembers that one
// failed. Every byte of the file that changes passes through `write`.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/linux/failure_log.h"
#include "host/linux/regular_file.h"

namespace hxhost {

// One thread at a time calls it.
class DiskFile {
 public:
  DiskFile(std::shared_ptr<FileOps> ops, RegularFile file, FailureLog& failures);

  // Closes the file. One that was created by its open and is still empty is removed.
  ~DiskFile();

  const std::string& path() const { return file_.path; }
  bool isWritable() const { return file_.isWritable; }

  // Bytes that lie on disk: the file's size when it was opened, and what was written since.
  int64_t length() const { return file_.size; }

  // Reads `wanted` bytes within `length()`, or at least the first `needed` of them when the rest
  // can't be had. The number read, or -1 after noting the failure.
  int64_t read(int64_t offset, void* out, int64_t wanted, int64_t needed) noexcept;

  // Writes all bytes, or notes the failure and stops writing.
  bool write(int64_t offset, const void* bytes, int64_t count) noexcept;

  // From now on nothing is written any more: bytes were lost, and what follows would build on them.
  void stopWriting() { hasLostWrite_ = true; }
  bool hasLostWrite() const { return hasLostWrite_; }

  // Keeps a failure for the host, unless the file has had one before.
  void noteFailure(int error, const char* operation, int64_t offset) noexcept;

 private:
  std::shared_ptr<FileOps> ops_;
  RegularFile file_;
  FailureLog& failures_;
  bool hasFailed_ = false;
  bool hasLostWrite_ = false;
};

}  // namespace hxhost
