#include "file/header.h"

#include "file/record_maps.h"
#include "file/translate.h"

namespace hx {

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
  if (translateStructure(root, &header, kHeaderSize, HEADER_map) != 0) return kUnreadable;
  root->pageSize = pageSizeFromCode(header.pageSizeCode);
  root->directoryOffset = header.directoryOffset;
  return root->pageSize == 0 ? kUnreadable : kOk;
}

}  // namespace hx
