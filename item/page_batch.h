// One positional read of the file: the bytes of pages in a row and the records between them, which
// are checked once they are there. So reading on needs no walk before, and a call of 64 KiB is one
// system call, also with pages of 4096 bytes.
#pragma once

#include "file/format.h"
#include "item/item_view.h"

namespace hx {

class PageBatch {
 public:
  // For bytes from `offset` on, before the item's end if that is known, into a buffer that has room
  // for `wanted` of them.
  PageBatch(ItemView* view, int64_t offset, uint8_t* to, int64_t wanted);

  // How many of them are in the buffer then, behind which it may have been written to as well. 0
  // when none can be had so: the file can't be read without the lock, or the read failed, or the
  // page that holds `offset` is not known and is not the item's first, from its start on.
  int64_t read();

 private:
  static constexpr int32_t kMostPages = 64;  // keeps the object below 4 KiB

  bool readShared();
  bool start();
  void addPages();
  bool addNextRecord(int32_t page);
  bool addPart(void* to, int64_t count);
  int64_t check() const;
  bool isKnownBy(int32_t record) const;
  int64_t placeOf(int32_t record) const { return firstPlace_ + record * (pageSize_ + kChunkSize); }

  ItemView* view_;
  int64_t pageSize_;
  int64_t offset_;
  uint8_t* to_;
  int64_t wanted_;

  int64_t start_ = 0;     // in the file
  int64_t position_ = 0;  // behind the parts
  int64_t fileEnd_ = 0;
  int64_t taken_ = 0;  // bytes of the item in the parts
  int32_t page_ = 0;   // the one that is added next
  int32_t known_ = 0;  // how many pages are known from there on, in one run
  // Bytes from a page's end to the next: a record, and so, it is supposed, between those behind; 0
  // where all records lie elsewhere; -1: not known.
  int64_t gap_ = -1;

  int32_t firstPage_ = 0;   // whose record is the first that is checked
  int64_t firstPlace_ = 0;  // of that record
  int64_t trusted_ = 0;     // bytes before it
  int32_t recordCount_ = 0;
  int32_t partCount_ = 0;
  ReadRequest parts_[2 * kMostPages + 1];
  DataChunk records_[kMostPages + 1];  // filled by the read alone
  DataChunk passed_{};                 // what lies between two pages that are known
};

}  // namespace hx
