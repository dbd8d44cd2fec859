// Where the pages of an item lie, as far as its records were followed. Pages that were written in a
// row lie at equal distances and make up one run: an item that was written alone is one, whatever
// its length.
#pragma once

#include "records/records.h"

namespace hx {

// A page and those behind it in its run, as far as they are known.
struct PagePlace {
  int64_t place;    // of the page's bytes: in the file or the blob, or their address
  int64_t stride;   // from a page of the run to the next; 0 while it has one page
  int32_t pages;    // 0: the page is not known
  bool isInMemory;  // `place` is an address
};

// Begins as zero bytes. Pages are added with the instance's lock held; finding needs none, because
// what is known of a page never changes and an array that was outgrown stays until the end.
class PageRuns {
 public:
  // How many pages are known: those from 0 on.
  int32_t pageCount() const { return __atomic_load_n(&pageCount_, __ATOMIC_ACQUIRE); }

  PagePlace find(int32_t page) const;

  // The page behind those that are known. False without memory.
  bool add(Pool* pool, int64_t place, bool isInMemory);

  // Frees its memory.
  void release(Pool* pool);

 private:
  struct Run {
    int64_t place;
    int64_t stride;  // set with the second page
    int32_t firstPage;
    bool isInMemory;
  };
  // In front of an array of runs.
  struct Former {
    Run* runs;  // null: first_
    void* reserved;
  };

  const Run* runs() const;
  Run* last() { return const_cast<Run*>(runs()) + runCount_ - 1; }
  bool joinLast(int64_t place, bool isInMemory);
  bool grow(Pool* pool);

  Run first_;  // the array of one, until it is outgrown
  Run* runs_;  // null: first_
  int32_t capacity_;
  int32_t runCount_;
  int32_t pageCount_;
};

}  // namespace hx
