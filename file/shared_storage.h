// What a tree's bytes lie in, read without the instance's lock: its file while that is open for
// reading and the host has `readAt`, or its blob. Whoever takes it away waits for such reads.
#pragma once

#include "records/records.h"

namespace hx {

// Lets the tree's file or blob be read so, if it can be. With the lock held, once it is open.
void shareStorage(Store* root);

// No such read is under way afterwards, and none begins. With the lock held, before the file is
// closed or the blob given back.
void withdrawStorage(Store* root);

// One such read, until the end of the scope. It must not take the lock: who withdraws holds it, and
// waits for the scope's end.
class SharedStorage {
 public:
  explicit SharedStorage(Store* root) : root_(root) {
    __atomic_add_fetch(&root->sharedReads, 1, __ATOMIC_SEQ_CST);
    storage_ = __atomic_load_n(&root->sharedStorage, __ATOMIC_SEQ_CST);
  }
  ~SharedStorage() { __atomic_sub_fetch(&root_->sharedReads, 1, __ATOMIC_RELEASE); }
  SharedStorage(const SharedStorage&) = delete;
  SharedStorage& operator=(const SharedStorage&) = delete;

  // One of them, or none.
  FileHandle* file() const {
    return isInBlob(root_) ? nullptr : static_cast<FileHandle*>(storage_);
  }
  const uint8_t* blob() const {
    return isInBlob(root_) ? static_cast<const uint8_t*>(storage_) : nullptr;
  }

 private:
  Store* root_;
  void* storage_;
};

}  // namespace hx
