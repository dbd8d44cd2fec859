#include "file/converters.h"

#include "records/bytes.h"

namespace hx {

namespace {

Converter* makeOnce(Converter*& kept, Encoding* encoding, const EncodingId& from,
                    const EncodingId& to) {
  if (kept == nullptr && encoding != nullptr) {
    kept = encoding->makeConverter(encoding, 0, &from, &to);
  }
  return kept;
}

void releaseOne(Converter*& kept) {
  if (kept != nullptr) kept->release(kept);
  kept = nullptr;
}

}  // namespace

bool isForeign(const Store* store) {
  return !equalBytes(&store->encodingId, &store->extension->encodingId, sizeof(EncodingId));
}

Converter* storeToInstanceConverter(Store* store) {
  const ExtensionInstance* instance = store->extension;
  return makeOnce(store->root->storeToInstanceConverter, instance->encodingExtension,
                  store->encodingId, instance->encodingId);
}

Converter* instanceToStoreConverter(Store* store) {
  const ExtensionInstance* instance = store->extension;
  return makeOnce(store->root->instanceToStoreConverter, instance->encodingExtension,
                  instance->encodingId, store->encodingId);
}

void releaseConverters(Store* root) {
  releaseOne(root->instanceToStoreConverter);
  releaseOne(root->storeToInstanceConverter);
}

}  // namespace hx
