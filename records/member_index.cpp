#include "records/member_index.h"

#include "records/memory.h"

namespace hx {

namespace {

// Chains of a few members are as fast as an index. At 63 chains this is four or five in each.
constexpr uint32_t kIndexedFrom = 256;

uint32_t slotBehind(const MemberIndex& index, uint32_t slot) {
  return (slot + 1) & index.mask;
}

// The slot of that name, or the empty one that it would get.
IndexSlot& slotOf(const MemberIndex& index, uint32_t hash, Name name) {
  uint32_t slot = hash & index.mask;
  for (; index.slots[slot].member != nullptr; slot = slotBehind(index, slot)) {
    const IndexSlot& taken = index.slots[slot];
    if (taken.hash == hash && equalNames(nameOf(taken.member), name)) break;
  }
  return index.slots[slot];
}

// Of two members of one name the newer stays.
void enter(MemberIndex& index, Member* member, bool isNewer) {
  const uint32_t hash = hashesOf(member).indexed;
  IndexSlot& slot = slotOf(index, hash, nameOf(member));
  if (slot.member != nullptr) ++index.olderCount;
  if (slot.member == nullptr || isNewer) slot = {member, hash};
}

// No name is there twice.
void addSlots(const MemberIndex& index, const MemberIndex& former) {
  for (uint32_t i = 0; i <= former.mask; ++i) {
    if (former.slots[i].member == nullptr) continue;
    uint32_t slot = former.slots[i].hash & index.mask;
    while (index.slots[slot].member != nullptr)
      slot = slotBehind(index, slot);
    index.slots[slot] = former.slots[i];
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

// Closes the gap that a removed member leaves: what may stand there moves up.
void closeGap(const MemberIndex& index, uint32_t gap) {
  uint32_t slot = slotBehind(index, gap);
  for (; index.slots[slot].member != nullptr; slot = slotBehind(index, slot)) {
    const uint32_t home = index.slots[slot].hash & index.mask;
    const bool isBehindHome = ((slot - home) & index.mask) >= ((slot - gap) & index.mask);
    if (!isBehindHome) continue;
    index.slots[gap] = index.slots[slot];
    gap = slot;
  }
  index.slots[gap] = {};
}

}  // namespace

// The file chooses the names, and could choose them so that all have one hash. What it can't know
// is where this process keeps the index.
uint32_t keyedHash(const MemberIndex& index, Name name) {
  const uint64_t key = reinterpret_cast<uintptr_t>(&index) * 0x9e3779b97f4a7c15u | 1;
  uint64_t hash = key + static_cast<uint32_t>(name.length);
  for (int32_t i = 0; i < name.length; i += 2) {
    const uint64_t second = i + 1 < name.length ? name.characters[i + 1] : 0;
    hash = (hash ^ (second << 32 | name.characters[i])) * key;
    hash ^= hash >> 32;
  }
  return static_cast<uint32_t>(hash);
}

MemberHashes& hashesOf(Member* member) {
  return member->kind == kStoreKind ? asStore(member)->hashes : asItem(member)->hashes;
}

void reserveIndex(MemberIndex& index, Pool* pool) {
  if (index.slots != nullptr || index.memberCount < kIndexedFrom) return;
  uint32_t slotCount = 2 * kIndexedFrom;
  while (slotCount != 0 && slotCount / 2 < index.memberCount)
    slotCount *= 2;
  giveSlots(index, pool, slotCount);
}

void fillIndex(MemberIndex& index, const MemberTable& table) {
  if (index.slots == nullptr || index.isFilled) return;
  index.isFilled = true;
  for (Member* member : table.buckets) {
    for (; member != nullptr; member = member->next)
      enter(index, member, false);
  }
}

Member* findInIndex(const MemberIndex& index, Name name) {
  return slotOf(index, keyedHash(index, name), name).member;
}

void addToIndex(MemberIndex& index, Pool* pool, Member* member) {
  if (index.slots == nullptr) return;
  // Slots that no search has filled may be too few from now on.
  if (!index.isFilled) return freeIndex(index, pool);
  enter(index, member, true);
  // Up to three quarters full a probe is a few slots long.
  if (index.memberCount <= index.mask - index.mask / 4) return;
  if (!enlarge(index, pool) && index.memberCount == index.mask) freeIndex(index, pool);
}

void removeFromIndex(MemberIndex& index, Member* member) {
  if (!index.isFilled) return;
  IndexSlot& slot = slotOf(index, hashesOf(member).indexed, nameOf(member));
  if (slot.member == member) {
    slot.member = member->next;
    while (slot.member != nullptr && !equalNames(nameOf(slot.member), nameOf(member)))
      slot.member = slot.member->next;
    if (slot.member == nullptr) return closeGap(index, static_cast<uint32_t>(&slot - index.slots));
  }
  --index.olderCount;
}

void freeIndex(MemberIndex& index, Pool* pool) {
  freeBlock(pool, index.slots);
  index.slots = nullptr;
  index.olderCount = 0;
  index.isFilled = false;
}

}  // namespace hx
