#include "file/write_directory.h"

#include "file/disk_space.h"
#include "file/write_pages.h"
#include "store/member_table.h"

namespace hx {

namespace {

// A walk over a tree in table order, each nested store's members right after it. The way back up is
// found by the parent pointers, so any depth takes the same stack.
class TreeWriter {
 public:
  TreeWriter(Store* top, const Image& image) : top_(top), store_(top), image_(image) {}

  void write(int64_t parentLink, int64_t previousLink) {
    writeOwnEntry(top_, parentLink, previousLink);
    Member* member = firstMember(top_->members);
    while (member != nullptr || store_ != top_) {
      member = member == nullptr ? leaveStore() : writeMember(member);
    }
    finishStore();
  }

 private:
  bool isRewritten(const Store* store) const { return image_.isBlob() || (store->dirty & 1) != 0; }

  void writeEntry(int64_t offset, Name name, int64_t parentLink, int64_t previousLink,
                  int64_t firstLink) {
    Entry entry{parentLink, previousLink, 0, firstLink, {}};
    narrowName(name, entry.name);
    image_.write(offset, &entry, kEntrySize);
  }

  void writeOwnEntry(Store* store, int64_t parentLink, int64_t previousLink) {
    if (!isRewritten(store)) return;
    const Name name = parentLink == 0 ? lastComponent(nameOf(store)) : nameOf(store);
    writeEntry(store->directoryOffset, name, parentLink, previousLink, 0);
  }

  // Links a member behind the one before it, writes it and returns what comes next.
  Member* writeMember(Member* member) {
    place(member);
    if (last_ != nullptr) image_.setLink(entryOffsetOf(last_), &Entry::next, linkTo(member));
    return member->kind == kStoreKind ? enterStore(asStore(member)) : writeItemMember(member);
  }

  void place(Member* member) {
    if (member->kind == kStoreKind) {
      Store* store = asStore(member);
      if (store->directoryOffset == 0) {
        store->directoryOffset = allocateDiskSpace(store_, kEntrySize);
      }
      return;
    }
    ItemMember* item = asItem(member);
    if (item->entryOffset == 0) item->entryOffset = allocateAt(kEntrySize);
    if (item->firstChunkOffset == 0) item->firstChunkOffset = allocateAt(kChunkSize);
  }

  uint64_t allocateAt(int32_t size) {
    return static_cast<uint64_t>(allocateDiskSpace(store_, size));
  }

  Member* writeItemMember(Member* member) {
    ItemMember* item = asItem(member);
    const int64_t previous = last_ == nullptr ? 0 : entryOffsetOf(last_);
    writeEntry(entryOffsetOf(member), nameOf(member), store_->directoryOffset, previous,
               static_cast<int64_t>(item->firstChunkOffset));
    writePages(item, image_);
    last_ = member;
    return nextMember(store_->members, member);
  }

  Member* enterStore(Store* nested) {
    writeOwnEntry(nested, store_->directoryOffset, lastNestedOffset_);
    store_ = nested;
    last_ = nullptr;
    lastNestedOffset_ = 0;
    return firstMember(nested->members);
  }

  // Goes on behind a nested store whose members are all written.
  Member* leaveStore() {
    finishStore();
    Member* finished = asMember(store_);
    lastNestedOffset_ = store_->directoryOffset;
    store_ = store_->parent;
    last_ = finished;
    return nextMember(store_->members, finished);
  }

  // Ends the chain of the store's members and links its head.
  void finishStore() {
    if (last_ == nullptr) return;
    if (last_->kind == kStoreKind && !isRewritten(asStore(last_))) {
      image_.setLink(entryOffsetOf(last_), &Entry::next, 0);
    }
    image_.setLink(store_->directoryOffset, &Entry::firstLink,
                   linkTo(firstMember(store_->members)));
  }

  Store* top_;
  Store* store_;                  // whose members are being written
  Member* last_ = nullptr;        // the member of store_ written last
  int64_t lastNestedOffset_ = 0;  // the nested store of store_ written last
  Image image_;
};

}  // namespace

extern "C" int64_t writeDirectory(Store* store, int64_t parentLink, int64_t previousLink) {
  return writeTree(store, Image(store->root, nullptr), parentLink, previousLink);
}

int64_t writeTree(Store* top, const Image& image, int64_t parentLink, int64_t previousLink) {
  TreeWriter(top, image).write(parentLink, previousLink);
  return top->directoryOffset;
}

}  // namespace hx
