// The pages of items, by the chain of their DATACHUNK records.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

class ChainWalk {
 public:
  ChainWalk(Ledger& ledger, const PageWalkOptions& options) : ledger_(ledger), options_(options) {}

  // Tells the extents of the item's records and bytes, as far as its chain is sound, and sets how
  // long it is and whether that is all of it. Every record and byte that is followed gets its
  // owner, so shared chains and circles end where they meet what has one.
  void walkItem(std::size_t item);

  // What the pages walked since the last call have room for behind their items' ends. After all
  // items that are known, since members count more than nothing where the two overlap.
  void claimSlack();

  // When every byte has its owner: what was found where there should be zeros, if that was looked
  // for.
  void reportStrayBytes();

 private:
  struct Slack {
    ByteRange range;
    std::size_t item;
  };

  std::optional<Link> walkPage(const Link& link);
  bool checkRecord(const hx::DataChunk& chunk, int64_t at) const;
  bool checkEnd(const hx::DataChunk& chunk, int64_t at) const;
  bool checkPlace(const hx::DataChunk& chunk, int64_t at) const;
  bool takeBytes(const hx::DataChunk& chunk, int64_t at);
  void keepSlack(const hx::DataChunk& chunk);
  void keepBehindEmpty(int64_t start);
  void claimSlackOf(const Slack& slack);
  void lookForBytes(ByteRange range);
  void checkBehindEmpty(const Slack& empty);
  bool lacksPageInRow(int64_t record) const;
  void tell(ByteKind kind, ByteRange range, std::size_t item) const;
  bool reportDamage(int64_t offset, std::string reason) const;

  Ledger& ledger_;
  const PageWalkOptions& options_;
  std::size_t item_ = 0;
  int64_t pageIndex_ = 0;
  int64_t size_ = 0;  // of the item so far
  std::vector<Slack> slack_;
  // From where a page would lie, if the record had been one's, to the file's end.
  std::vector<Slack> behindEmpty_;
  // Where every byte has its owner by now, so that rests of pages which cover each other and the
  // whole file are gone through once.
  ClaimedBytes settled_;
  int64_t strayBytes_ = 0;  // in the slack, not zero
  int64_t firstStray_ = 0;
};

}  // namespace hxcrate
