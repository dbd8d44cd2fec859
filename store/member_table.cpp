#include "store/member_table.h"

namespace hx {

extern "C" Member* lookup(const MemberTable* table, int32_t bucket, const char32_t* name,
                          int32_t length) {
  const Name wanted = makeName(name, length);
  Member* member = table->buckets[bucket];
  while (member != nullptr && !equalNames(nameOf(member), wanted))
    member = member->next;
  return member;
}

Member* findMember(const MemberTable& table, Name name) {
  return lookup(&table, bucketOf(name), name.characters, name.length);
}

void insertMember(MemberTable& table, Member* member) {
  Member*& head = table.buckets[bucketOf(nameOf(member))];
  member->next = head;
  head = member;
}

void removeMember(MemberTable& table, const Member* member) {
  Member** link = &table.buckets[bucketOf(nameOf(member))];
  while (*link != nullptr && *link != member)
    link = &(*link)->next;
  if (*link != nullptr) *link = member->next;
}

Member* firstMember(const MemberTable& table, int32_t bucket) {
  for (int32_t i = bucket; i < kBucketCount; ++i) {
    if (table.buckets[i] != nullptr) return table.buckets[i];
  }
  return nullptr;
}

Member* nextMember(const MemberTable& table, const Member* member) {
  if (member->next != nullptr) return member->next;
  return firstMember(table, bucketOf(nameOf(member)) + 1);
}

}  // namespace hx
