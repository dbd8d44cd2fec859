#include "store/member_table.h"

#include "store/memory.h"

namespace hx {

namespace {

// Chains of a few members are as fast as an index. At 63 chains this is four or five in each.
constexpr uint32_t kIndexedFrom = 256;

IndexLink& linkOf(Member* member) {
  return member->kind == kStoreKind ? asStore(member)->indexLink : asItem(member)->indexLink;
}

int32_t bucketOf(uint32_t hash) {
  return static_cast<int32_t>(hash % static_cast<uint32_t>(kBucketCount));
}

bool isPowerOfTwo(uint32_t number) {
  return (number & (number - 1)) == 0;
}

void reverseList(Member** list) {
  Member* reversed = nullptr;
  while (*list != nullptr) {
    Member* member = *list;
    *list = linkOf(member).next;
    linkOf(member).next = reversed;
    reversed = member;
  }
  *list = reversed;
}

void pushToList(const MemberIndex& index, Member* member) {
  Member** list = &index.lists[linkOf(member).hash & index.mask];
  linkOf(member).next = *list;
  *list = member;
}

// Makes an index of `listCount` lists from the chains. When the pool refuses it, what there was
// goes on serving.
void buildIndex(const Container& container, uint32_t listCount) {
  const uint64_t size = uint64_t{listCount} * sizeof(void*);
  auto** lists = static_cast<Member**>(allocateBlock(container.pool, size));
  if (lists == nullptr) return;
  MemberIndex& index = container.index;
  freeBlock(container.pool, index.lists);
  index.lists = lists;
  index.mask = listCount - 1;
  for (Member* member : container.table.buckets) {
    for (; member != nullptr; member = member->next)
      pushToList(index, member);
  }
  // Members of one name lie in one chain, newest first; that is how a list must have them, too.
  for (uint32_t i = 0; i < listCount; ++i)
    reverseList(&lists[i]);
}

void removeFromList(const MemberIndex& index, Member* member) {
  Member** link = &index.lists[linkOf(member).hash & index.mask];
  while (*link != member)
    link = &linkOf(*link).next;
  *link = linkOf(member).next;
}

Member* findInIndex(const MemberIndex& index, uint32_t hash, Name name) {
  Member* member = index.lists[hash & index.mask];
  while (member != nullptr && (linkOf(member).hash != hash || !equalNames(nameOf(member), name))) {
    member = linkOf(member).next;
  }
  return member;
}

}  // namespace

extern "C" Member* lookup(const MemberTable* table, int32_t bucket, const char32_t* name,
                          int32_t length) {
  const Name wanted = makeName(name, length);
  Member* member = table->buckets[bucket];
  while (member != nullptr && !equalNames(nameOf(member), wanted))
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
  const uint32_t hash = hashName(name);
  if (container.index.lists != nullptr) return findInIndex(container.index, hash, name);
  return lookup(&container.table, bucketOf(hash), name.characters, name.length);
}

void insertMember(const Container& container, Member* member) {
  MemberIndex& index = container.index;
  const uint32_t hash = hashName(nameOf(member));
  linkOf(member).hash = hash;
  Member*& head = container.table.buckets[bucketOf(hash)];
  member->next = head;
  head = member;
  ++index.memberCount;
  if (index.lists != nullptr) pushToList(index, member);
  // A pool that refused is asked again when the table has doubled.
  if (index.memberCount >= kIndexedFrom && isPowerOfTwo(index.memberCount)) {
    buildIndex(container, 2 * index.memberCount);
  }
}

void removeMember(const Container& container, Member* member) {
  Member** link = &container.table.buckets[bucketOf(hashName(nameOf(member)))];
  while (*link != nullptr && *link != member)
    link = &(*link)->next;
  if (*link == nullptr) return;
  *link = member->next;
  --container.index.memberCount;
  if (container.index.lists != nullptr) removeFromList(container.index, member);
}

Member* firstMember(const MemberTable& table, int32_t bucket) {
  for (int32_t i = bucket; i < kBucketCount; ++i) {
    if (table.buckets[i] != nullptr) return table.buckets[i];
  }
  return nullptr;
}

Member* nextMember(const MemberTable& table, Member* member) {
  if (member->next != nullptr) return member->next;
  return firstMember(table, bucketOf(linkOf(member).hash) + 1);
}

void releaseIndex(const Container& container) {
  freeBlock(container.pool, container.index.lists);
  container.index.lists = nullptr;
}

}  // namespace hx
