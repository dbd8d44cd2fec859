#include "file/write_directory.h"

#include "file/disk_space.h"
#include "file/write_pages.h"
#include "records/name.h"
#include "records/tree_cursor.h"

namespace hx {

namespace {

uint64_t allocateUnsigned(Store* store, int32_t size) {
  return static_cast<uint64_t>(allocateDiskSpace(store, size));
}

int64_t entryOffsetOf(Member* member) {
  return member->kind == kStoreKind ? asStore(member)->directoryOffset
                                    : static_cast<int64_t>(asItem(member)->entryOffset);
}

int64_t linkTo(Member* member) {
  const int64_t offset = entryOffsetOf(member);
  return member->kind == kStoreKind ? -offset : offset;
}

// The low 8 bits of at most 64 characters, into a field that is all zero.
void narrowName(Name name, uint8_t (&field)[kStoredNameLength]) {
  for (int32_t i = 0; i < name.length && i < kStoredNameLength; ++i)
    field[i] = static_cast<uint8_t>(name.characters[i]);
}

// Writes the directory along a walk over the tree. Only the member written last is remembered: on
// the way back up that is the nested store just left, so a level needs no state of its own.
class TreeWriter {
 public:
  TreeWriter(Store* top, const Image& image) : cursor_(top), image_(image) {}

  void write(int64_t parentLink, int64_t previousLink) {
    writeOwnEntry(cursor_.top, parentLink, previousLink);
    while (!cursor_.isBehindAll()) {
      if (cursor_.member == nullptr) {
        leaveStore();
      } else {
        writeMember();
      }
    }
    finishStore();
  }

 private:
  bool isRewritten(const Store* store) const { return image_.isBlob() || (store->dirty & 1) != 0; }

  void writeOwnEntry(Store* store, int64_t parentLink, int64_t previousLink) {
    if (!isRewritten(store)) return;
    Entry entry{parentLink, previousLink, 0, 0, {}};
    narrowName(parentLink == 0 ? lastComponent(nameOf(store)) : nameOf(store), entry.name);
    image_.write(store->directoryOffset, &entry, kEntrySize);
  }

  // Links a member behind the one before it and writes it.
  void writeMember() {
    Member* member = cursor_.member;
    placeMember(member, cursor_.store);
    linkLast(linkTo(member));
    if (member->kind == kStoreKind) {
      enterStore(asStore(member));
    } else {
      writeItemMember(asItem(member));
    }
  }

  void writeItemMember(ItemMember* item) {
    Member* member = asMember(item);
    const int64_t previous = last_ == nullptr ? 0 : entryOffsetOf(last_);
    const auto firstChunk = static_cast<int64_t>(item->firstChunkOffset);
    lastItemEntry_ = {cursor_.store->directoryOffset, previous, 0, firstChunk, {}};
    narrowName(nameOf(member), lastItemEntry_.name);
    writePages(item, image_);
    last_ = member;
    cursor_.advance();
  }

  void enterStore(Store* nested) {
    writeOwnEntry(nested, cursor_.store->directoryOffset, lastNestedOffset_);
    last_ = nullptr;
    lastNestedOffset_ = 0;
    cursor_.enter();
  }

  void leaveStore() {
    finishStore();
    last_ = asMember(cursor_.store);
    lastNestedOffset_ = cursor_.store->directoryOffset;
    cursor_.leave();
  }

  // Gives the member written last its `next`, which is known only when its successor has a place.
  // An item's ENTRY has waited for that, and is written once; a nested store's was written before
  // its members and is changed.
  void linkLast(int64_t next) {
    if (last_ == nullptr) return;
    if (last_->kind == kItemKind) {
      lastItemEntry_.next = next;
      image_.write(entryOffsetOf(last_), &lastItemEntry_, kEntrySize);
    } else {
      image_.setLink(entryOffsetOf(last_), &Entry::next, next);
    }
  }

  // Ends the chain of the store's members and links its head.
  void finishStore() {
    if (last_ == nullptr) return;
    linkLast(0);
    Member* first = firstMember(cursor_.store->members);
    image_.setLink(cursor_.store->directoryOffset, &Entry::firstLink, linkTo(first));
  }

  TreeCursor cursor_;
  Image image_;
  Member* last_ = nullptr;        // the member of the cursor's store written last
  Entry lastItemEntry_ = {};      // of `last_`, when that is an item: all but `next`
  int64_t lastNestedOffset_ = 0;  // the nested store of the cursor's store written last
};

}  // namespace

void placeMember(Member* member, Store* container) {
  if (member->kind == kStoreKind) {
    Store* store = asStore(member);
    if (store->directoryOffset == 0) {
      store->directoryOffset = allocateDiskSpace(container, kEntrySize);
    }
    return;
  }
  ItemMember* item = asItem(member);
  if (item->entryOffset == 0) item->entryOffset = allocateUnsigned(container, kEntrySize);
  if (item->firstChunkOffset == 0) item->firstChunkOffset = allocateUnsigned(container, kChunkSize);
}

void writeTree(Store* top, const Image& image, int64_t parentLink, int64_t previousLink) {
  TreeWriter(top, image).write(parentLink, previousLink);
}

}  // namespace hx
