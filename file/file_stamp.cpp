#include "file/file_stamp.h"

#include "file/storage.h"

namespace hx {

constexpr int64_t kNoStamp = -1;

FileStamp stampOf(FileHandle* file) {
  FileStamp stamp = {};
  const bool read = readFile(file, 0, stamp.header, kHeaderSize);
  stamp.length = read ? fileLength(file) : kNoStamp;
  return stamp;
}

bool isKnown(const FileStamp& stamp) {
  return stamp.length != kNoStamp;
}

bool sameStamp(const FileStamp& a, const FileStamp& b) {
  return isKnown(a) && a.length == b.length && equalBytes(a.header, b.header, sizeof(a.header));
}

}  // namespace hx
