#include "file/storage.h"

#include "file/shared_storage.h"

namespace hx {

namespace {

OpenParameters openParameters(int32_t accessMode) {
  OpenParameters parameters = {};
  parameters.accessMode = accessMode;
  parameters.fixed40 = 1024;
  parameters.fixed48 = 1;
  parameters.fixed200 = 1;
  return parameters;
}

bool seekFile(FileHandle* file, int64_t offset) {
  int64_t position = offset;
  return file->seek(file, &position, HX_SEEK_START, 0) == 0;
}

// Reads on from the position until all is in. A host that claims to have delivered nothing, or more
// than was wanted, is not believed.
bool readOn(FileHandle* file, void* to, int64_t length) {
  auto* destination = static_cast<uint8_t*>(to);
  int64_t missing = length;
  while (missing > 0) {
    ReadRequest request{destination, missing};
    if (file->read(file, &request, &request.count, 0, 0, 0) != 0) return false;
    if (request.count <= 0 || request.count > missing) return false;
    destination += request.count;
    missing -= request.count;
  }
  return true;
}

}  // namespace

FileHandle* openStoreFile(ExtensionInstance* instance, Name path, int32_t accessMode) {
  const OpenParameters parameters = openParameters(accessMode);
  int64_t outputWord = 0;
  FileIo* io = instance->fileExtension;
  return io->open(io, path.characters, path.length, &parameters, 0, 0, "hxfio", &outputWord, 0);
}

int64_t fileLength(FileHandle* file) {
  int64_t position = 0;
  return file->seek(file, &position, HX_SEEK_END, 0) == 0 ? position : -1;
}

bool readFile(FileHandle* file, int64_t offset, void* to, int64_t length) {
  return seekFile(file, offset) && readOn(file, to, length);
}

void closeStoreFile(Store* root) {
  FileHandle* file = fileOf(root);
  if (file == nullptr) return;
  withdrawStorage(root);
  root->file = nullptr;
  file->close(file);
}

int64_t storedLength(const Store* store) {
  const Store* root = store->root;
  if (!isInBlob(root)) return root->fileEnd;
  return root->blobSize > INT64_MAX ? INT64_MAX : static_cast<int64_t>(root->blobSize);
}

bool liesInside(const Store* store, int64_t offset, int64_t length) {
  return offset >= kHeaderSize && offset <= storedLength(store) - length;
}

bool readStored(const Store* store, int64_t offset, void* to, int64_t length) {
  if (!liesInside(store, offset, length)) return false;
  if (const uint8_t* blob = blobOf(store)) {
    copyBytes(to, blob + offset, static_cast<uint64_t>(length));
    return true;
  }
  FileHandle* file = fileOf(store);
  return file != nullptr && readFile(file, offset, to, length);
}

void writeStored(const Store* store, int64_t offset, const void* from, int64_t length) {
  FileHandle* file = fileOf(store);
  if (file == nullptr) return;
  int64_t& meantLength = store->root->stamp.length;
  if (meantLength < offset + length) meantLength = offset + length;
  if (!seekFile(file, offset)) return;
  file->write(file, from, length, 0, 0, 0);
}

}  // namespace hx
