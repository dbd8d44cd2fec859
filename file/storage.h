// A tree's bytes at an offset, from its file or from its blob, and the file itself. What can't be
// had whole is not had at all.
#pragma once

#include "file/format.h"
#include "records/name.h"
#include "records/records.h"

namespace hx {

// The file at a path, or null.
FileHandle* openStoreFile(ExtensionInstance* instance, Name path, int32_t accessMode);

// The file's length in bytes, or -1.
int64_t fileLength(FileHandle* file);

// `length` bytes at `offset`; false when they are not all there.
bool readFile(FileHandle* file, int64_t offset, void* to, int64_t length);

// Closes the tree's file, if one is open, and forgets it.
void closeStoreFile(Store* root);

// Closes a file that nothing has taken over by the end of the scope.
class FileGuard {
 public:
  explicit FileGuard(FileHandle* file) : file_(file) {}
  ~FileGuard() {
    if (file_ != nullptr) file_->close(file_);
  }
  FileGuard(const FileGuard&) = delete;
  FileGuard& operator=(const FileGuard&) = delete;

  FileHandle* get() const { return file_; }
  FileHandle* release() {
    FileHandle* file = file_;
    file_ = nullptr;
    return file;
  }

 private:
  FileHandle* file_;
};

// How many bytes the tree's file or blob holds, space that is handed out but not written included.
int64_t storedLength(const Store* store);

// Whether `length` bytes at `offset` lie behind the header and inside the file or the blob.
bool liesInside(const Store* store, int64_t offset, int64_t length);

// `length` bytes at `offset` of the tree; false when they lie outside or can't be read.
bool readStored(const Store* store, int64_t offset, void* to, int64_t length);

// Writes into the tree's open file. Says nothing of a failure: the host keeps it and answers for
// it when the file is closed.
void writeStored(const Store* store, int64_t offset, const void* from, int64_t length);

}  // namespace hx
