// Where a tree is written to: its open file, or a blob in the making. Both get the same bytes at
// the same offsets.
#pragma once

#include "file/storage.h"

namespace hx {

class Image {
 public:
  // `blob` has room for every place handed out in the tree; null: the tree's file.
  Image(const Store* root, uint8_t* blob) : root_(root), blob_(blob) {}

  // In a file only what changed is written again; a blob is always written in full.
  bool isBlob() const { return blob_ != nullptr; }

  void write(int64_t offset, const void* from, int64_t length) const {
    if (isBlob()) {
      copyBytes(blob_ + offset, from, static_cast<uint64_t>(length));
    } else {
      writeStored(root_, offset, from, length);
    }
  }

  // Sets one link of an ENTRY that is already written. An ENTRY that can't be read back is left
  // alone: garbage in its place would be worse than a stale link.
  void setLink(int64_t entryOffset, int64_t Entry::*field, int64_t link) const {
    Entry entry;
    if (!read(entryOffset, &entry) || entry.*field == link) return;
    entry.*field = link;
    write(entryOffset, &entry, kEntrySize);
  }

 private:
  bool read(int64_t offset, Entry* entry) const {
    if (!isBlob()) return readStored(root_, offset, entry, kEntrySize);
    copyBytes(entry, blob_ + offset, kEntrySize);
    return true;
  }

  const Store* root_;
  uint8_t* blob_;
};

}  // namespace hx
