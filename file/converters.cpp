#include "file/converters.h"

#include "records/bytes.h"

namespace hx {

namespace {

Converter** placeOf(Store* root, Direction direction) {
  return direction == Direction::toInstance ? &root->storeToInstanceConverter
                                            : &root->instanceToStoreConverter;
}

void releaseOne(Converter*& kept) {
  if (kept != nullptr) kept->release(kept);
  kept = nullptr;
}

}  // namespace

bool isForeign(const Store* store) {
  return !equalBytes(&store->encodingId, &store->extension->encodingId, sizeof(EncodingId));
}

// Atomic, because readers look for it while another one makes it.
Converter* keptConverter(const Store* store, Direction direction) {
  return __atomic_load_n(placeOf(store->root, direction), __ATOMIC_ACQUIRE);
}

Converter* makeConverter(Store* store, Direction direction) {
  Converter* kept = keptConverter(store, direction);
  const ExtensionInstance* instance = store->extension;
  Encoding* encoding = instance->encodingExtension;
  if (kept != nullptr || encoding == nullptr) return kept;
  const bool reads = direction == Direction::toInstance;
  const EncodingId* from = reads ? &store->encodingId : &instance->encodingId;
  const EncodingId* to = reads ? &instance->encodingId : &store->encodingId;
  kept = encoding->makeConverter(encoding, 0, from, to);
  __atomic_store_n(placeOf(store->root, direction), kept, __ATOMIC_RELEASE);
  return kept;
}

void releaseConverters(Store* root) {
  releaseOne(root->instanceToStoreConverter);
  releaseOne(root->storeToInstanceConverter);
}

}  // namespace hx
