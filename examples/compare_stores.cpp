// Compares a store file with another one that is mapped into memory, member by member.
#include <cstdio>
#include <hxcrate/crate.hpp>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

std::map<std::string, hxcrate::MemberKind> membersOf(const hxcrate::Store& store) {
  std::map<std::string, hxcrate::MemberKind> members;
  for (const hxcrate::Member& member : store.members())
    members.emplace(member.name, member.kind);
  return members;
}

// What the comparison has seen, and the first place where the stores differ.
struct Comparison {
  std::size_t items = 0;
  std::size_t bytes = 0;
  std::string difference;
};

Comparison compare(const hxcrate::Store& a, const hxcrate::Store& b) {
  Comparison seen;
  std::vector<std::string> places = {""};  // of the nested stores that are still to be compared
  while (!places.empty()) {
    const std::string place = std::move(places.back());
    places.pop_back();
    const auto members = place.empty() ? membersOf(a) : membersOf(a.openStore(place));
    const auto others = place.empty() ? membersOf(b) : membersOf(b.openStore(place));
    if (members != others) return {seen.items, seen.bytes, place + "/"};
    for (const auto& [name, kind] : members) {
      std::string path = place.empty() ? "" : place + "/";
      path += name;
      if (kind == hxcrate::MemberKind::store) {
        places.push_back(path);
        continue;
      }
      const std::vector<std::byte> bytes = a.read(path).readAll();
      if (bytes != b.read(path).readAll()) return {seen.items, seen.bytes, path};
      ++seen.items;
      seen.bytes += bytes.size();
    }
  }
  return seen;
}

}  // namespace

int main(int count, char** arguments) try {
  if (count != 3) {
    std::fprintf(stderr, "usage: %s STORE MAPPED-STORE\n", arguments[0]);
    return 2;
  }
  hxcrate::Session session;
  const hxcrate::Store file = session.open(arguments[1]);
  const std::uint64_t before = session.memoryUse().bytes;
  const hxcrate::Store mapped = session.openMapped(arguments[2]);
  const std::uint64_t directory = session.memoryUse().bytes - before;
  const Comparison seen = compare(file, mapped);
  if (!seen.difference.empty()) {
    std::fprintf(stderr, "%s and %s differ in %s\n", arguments[1], arguments[2],
                 seen.difference.c_str());
    return 1;
  }
  std::printf("equal: %zu items of %zu bytes; the mapped store's directory takes %zu bytes\n",
              seen.items, seen.bytes, static_cast<std::size_t>(directory));
  return 0;
} catch (const hxcrate::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
