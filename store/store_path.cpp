#include "store/store_path.h"

#include "records/bytes.h"
#include "records/status.h"

namespace hx {

namespace {

int32_t clamp(int32_t value, int32_t most) {
  if (value < 0) return 0;
  return value < most ? value : most;
}

}  // namespace

extern "C" int32_t hxcratePath(Store* store, char32_t* buffer, int32_t* length) {
  const FileHandle* file = fileOf(store);
  const int32_t pathLength = file == nullptr ? 0 : clamp(file->pathLength, HX_PATH_CAPACITY);
  *length = clamp(*length, pathLength);
  if (*length > 0) {
    copyBytes(buffer, file->path, static_cast<uint64_t>(*length) * sizeof(char32_t));
  }
  return kOk;
}

}  // namespace hx
