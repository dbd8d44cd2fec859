#include "records/member_index.h"

#include "records/memory.h"

namespace hx {

namespace {

// Chains of a few members are as fast as an index. At 63 chains this is four or five in each.
constexpr uint32_t kIndexedFrom = 256;

// Spreads the hashes, which are alike for names that differ in their last character only.
uint32_t homeOf(const MemberIndex& index, uint32_t hash) {
  const uint32_t mixed = hash * 0x9e3779b1u;
  return (mixed ^ mixed >> 15) & index.mask;
}

uint32_t slotBehind(const MemberIndex& index, uint32_t slot) {
  return (slot + 1) & index.mask;
}

// Behind all of its hash: what is added this way comes newest first.
void addBehind(const MemberIndex& index, IndexSlot added) {
  uint32_t slot = homeOf(index, added.hash);
  while (index.slots[slot].member != nullptr)
    slot = slotBehind(index, slot);
  index.slots[slot] = added;
}

// Before all of its hash: each of them moves to the place of the next.
void addBefore(const MemberIndex& index, IndexSlot added) {
  uint32_t slot = homeOf(index, added.hash);
  for (; index.slots[slot].member != nullptr; slot = slotBehind(index, slot)) {
    IndexSlot& taken = index.slots[slot];
    if (taken.hash != added.hash) continue;
    const IndexSlot older = taken;
    taken = added;
    added = older;
  }
  index.slots[slot] = added;
}

void addChains(const MemberIndex& index, const MemberTable& table) {
  for (Member* member : table.buckets) {
    for (; member != nullptr; member = member->next)
      addBehind(index, {member, hashOf(member)});
  }
}

// Starts behind an empty slot, where no run of slots is cut in two.
void addSlots(const MemberIndex& index, const MemberIndex& former) {
  uint32_t start = 0;
  while (former.slots[start].member != nullptr)
    ++start;
  for (uint32_t i = 1; i <= former.mask; ++i) {
    const IndexSlot& slot = former.slots[(start + i) & former.mask];
    if (slot.member != nullptr) addBehind(index, slot);
  }
}

// False, with everything as it was, when the pool refuses or the number has overflown to 0.
bool giveSlots(MemberIndex& index, Pool* pool, uint32_t slotCount) {
  if (slotCount == 0) return false;
  auto* slots = static_cast<IndexSlot*>(allocateBlock(pool, slotCount * sizeof(IndexSlot)));
  if (slots == nullptr) return false;
  index.slots = slots;
  index.mask = slotCount - 1;
  return true;
}

bool enlarge(MemberIndex& index, Pool* pool) {
  const MemberIndex former = index;
  if (!giveSlots(index, pool, 2 * (former.mask + 1))) return false;
  addSlots(index, former);
  freeBlock(pool, former.slots);
  return true;
}

// Closes the gap that a removed member leaves: what may stand there moves up, in its order.
void closeGap(const MemberIndex& index, uint32_t gap) {
  uint32_t slot = slotBehind(index, gap);
  for (; index.slots[slot].member != nullptr; slot = slotBehind(index, slot)) {
    const uint32_t home = homeOf(index, index.slots[slot].hash);
    const bool isBehindHome = ((slot - home) & index.mask) >= ((slot - gap) & index.mask);
    if (!isBehindHome) continue;
    index.slots[gap] = index.slots[slot];
    gap = slot;
  }
  index.slots[gap] = {};
}

}  // namespace

uint32_t& hashOf(Member* member) {
  return member->kind == kStoreKind ? asStore(member)->nameHash : asItem(member)->nameHash;
}

void prepareIndex(MemberIndex& index, const MemberTable& table, Pool* pool) {
  if (index.slots != nullptr || index.memberCount < kIndexedFrom) return;
  uint32_t slotCount = 2 * kIndexedFrom;
  while (slotCount != 0 && slotCount / 2 < index.memberCount)
    slotCount *= 2;
  if (giveSlots(index, pool, slotCount)) addChains(index, table);
}

Member* findInIndex(const MemberIndex& index, uint32_t hash, Name name) {
  uint32_t slot = homeOf(index, hash);
  for (; index.slots[slot].member != nullptr; slot = slotBehind(index, slot)) {
    const IndexSlot& taken = index.slots[slot];
    if (taken.hash == hash && equalNames(nameOf(taken.member), name)) return taken.member;
  }
  return nullptr;
}

void addToIndex(MemberIndex& index, Pool* pool, Member* member) {
  if (index.slots == nullptr) return;
  addBefore(index, {member, hashOf(member)});
  // Up to three quarters full a probe is a few slots long.
  if (index.memberCount <= index.mask - index.mask / 4) return;
  if (!enlarge(index, pool) && index.memberCount == index.mask) freeIndex(index, pool);
}

void removeFromIndex(MemberIndex& index, Member* member) {
  if (index.slots == nullptr) return;
  uint32_t slot = homeOf(index, hashOf(member));
  while (index.slots[slot].member != member)
    slot = slotBehind(index, slot);
  closeGap(index, slot);
}

void freeIndex(MemberIndex& index, Pool* pool) {
  freeBlock(pool, index.slots);
  index.slots = nullptr;
}

}  // namespace hx
