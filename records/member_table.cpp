#include "records/member_table.h"

#include "records/member_index.h"

namespace hx {

namespace {

int32_t bucketOf(uint32_t hash) {
  return static_cast<int32_t>(hash % static_cast<uint32_t>(kBucketCount));
}

}  // namespace

Member* findInChain(Member* head, Name name) {
  Member* member = head;
  while (member != nullptr && !equalNames(nameOf(member), name))
    member = member->next;
  return member;
}

Container membersOf(Store* store) {
  return {store->members, store->memberIndex, store->extension->pool};
}

Container storesOf(ExtensionInstance* instance) {
  return {instance->stores, instance->storeIndex, instance->pool};
}

Container containerOf(Store* store) {
  return store->parent != nullptr ? membersOf(store->parent) : storesOf(store->extension);
}

Member* findMember(const Container& container, Name name) {
  fillIndex(container.index, container.table);
  if (container.index.isFilled) return findInIndex(container.index, name);
  return findInChain(container.table.buckets[bucketOf(name)], name);
}

Member* findToOpen(const Container& container, Name name) {
  makeIndexRoom(container);
  return findMember(container, name);
}

void insertMember(const Container& container, Member* member) {
  const uint32_t hash = hashName(nameOf(member));
  hashesOf(member) = {hash, keyedHash(container.index, nameOf(member))};
  Member*& head = container.table.buckets[bucketOf(hash)];
  member->next = head;
  head = member;
  ++container.index.memberCount;
  addToIndex(container.index, container.pool, member);
}

void removeMember(const Container& container, Member* member) {
  Member** link = &container.table.buckets[bucketOf(hashesOf(member).chained)];
  while (*link != nullptr && *link != member)
    link = &(*link)->next;
  if (*link == nullptr) return;
  *link = member->next;
  --container.index.memberCount;
  removeFromIndex(container.index, member);
}

Member* firstMember(const MemberTable& table, int32_t bucket) {
  for (int32_t i = bucket; i < kBucketCount; ++i) {
    if (table.buckets[i] != nullptr) return table.buckets[i];
  }
  return nullptr;
}

Member* nextMember(const MemberTable& table, Member* member) {
  if (member->next != nullptr) return member->next;
  return firstMember(table, bucketOf(hashesOf(member).chained) + 1);
}

bool isNewestOfItsName(const Container& container, Member* member) {
  if (container.index.isFilled && container.index.olderCount == 0) return true;
  return findMember(container, nameOf(member)) == member;
}

void makeIndexRoom(const Container& container) {
  reserveIndex(container.index, container.pool);
}

void releaseIndex(const Container& container) {
  freeIndex(container.index, container.pool);
}

}  // namespace hx
