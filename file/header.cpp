#include "file/header.h"

#include "file/storage.h"
#include "file/translation.h"

namespace hx {

constexpr int64_t kNoStamp = -1;

Header currentHeader(const Store* root) {
  Header header = {};
  const ExtensionInstance* instance = root->extension;
  header.encodingId = instance->encodingId;
  if (Encoding* encoding = instance->encodingExtension) {
    encoding->fillEncodingId(encoding, &header.encodingId, HX_ENCODING_ID_LENGTH, 0, 0);
  }
  header.pageSizeCode = pageSizeCodeOf(root->pageSize);
  header.directoryOffset = root->directoryOffset;
  return header;
}

Status takeHeader(Store* root, Header header) {
  root->encodingId = header.encodingId;
  if (!translate(root, &header)) return kUnreadable;
  root->pageSize = pageSizeFromCode(header.pageSizeCode);
  root->directoryOffset = header.directoryOffset;
  return root->pageSize == 0 ? kUnreadable : kOk;
}

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
