#include "file/shared_storage.h"

namespace hx {

void shareStorage(Store* root) {
  const bool isShared = isInBlob(root) || (root->openCount > 0 && root->extension->filesReadAt);
  if (isShared) __atomic_store_n(&root->sharedStorage, root->file, __ATOMIC_SEQ_CST);
}

// A read counts itself before it looks for the storage, so after this order of the two none has it.
// Waiting costs what is left of one read, and only where a file is closed under its readers.
void withdrawStorage(Store* root) {
  __atomic_store_n(&root->sharedStorage, static_cast<void*>(nullptr), __ATOMIC_SEQ_CST);
  while (__atomic_load_n(&root->sharedReads, __ATOMIC_SEQ_CST) != 0)
    __builtin_ia32_pause();
}

}  // namespace hx
