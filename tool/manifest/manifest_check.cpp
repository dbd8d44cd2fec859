#include "manifest_check.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include "item_sums.h"

namespace tool {

namespace {

using hxcrate::Severity;

class ManifestChecker {
 public:
  ManifestChecker(InspectedStore& store, std::int64_t manifestOffset)
      : store_(store), manifestOffset_(manifestOffset) {}

  // What can't be read of the items was found before, and what can is compared.
  void check() {
    try {
      compare();
    } catch (const Failure& failure) {
      store_.add({Severity::error, manifestOffset_, std::string(kManifestName), failure.what()});
    } catch (const hxcrate::Error& error) {
      store_.add({Severity::warning, manifestOffset_, std::string(kManifestName),
                  "the checksums in it were not compared: " + error.reason()});
    }
  }

 private:
  hxcrate::Store open() {
    return session_.open(store_.file().name(), hxcrate::Mode::read, {.acceptDamaged = true});
  }

  void compare() {
    const std::optional<Manifest> manifest = readManifest(open());
    if (!manifest) {
      return store_.add(
          {Severity::warning, manifestOffset_, std::string(kManifestName),
           "it has the name of a manifest and is none, so nothing tells the checksums"});
    }
    const Selection everything;
    Progress progress("summing");
    ItemSums sums(open(), everything, &progress, [](const hxcrate::Error&) {});
    compareSums(sums, checksumsOf(*manifest), everything,
                [this](SumFault fault, const std::string& place) { add(fault, place); });
  }

  void add(SumFault fault, const std::string& place) {
    switch (fault) {
      case SumFault::differs:
        return store_.add({Severity::error, offsetOf(place), place,
                           "its bytes are not those that .mtree has the checksum of"});
      case SumFault::grown:
        return store_.add(
            {Severity::note, offsetOf(place), place, "it has grown since .mtree was written"});
      case SumFault::missing:
        return store_.add({Severity::warning, manifestOffset_, place,
                           ".mtree tells of it, and there is no such item"});
      case SumFault::unlisted:  // it came later
      case SumFault::unsummed:
        return;  // as without a manifest
    }
  }

  std::int64_t offsetOf(const std::string& place) {
    const auto& members = store_.inspection().members();
    if (offsets_.empty()) {
      for (std::size_t i = 0; i < members.size(); ++i)
        offsets_.emplace(store_.inspection().pathOf(i), members[i].entryOffset);
    }
    const auto found = offsets_.find(place);
    return found == offsets_.end() ? manifestOffset_ : found->second;
  }

  InspectedStore& store_;
  const std::int64_t manifestOffset_;
  hxcrate::Session session_;
  std::map<std::string, std::int64_t> offsets_;  // of records, by path; made when it is needed
};

}  // namespace

void checkManifest(InspectedStore& store) {
  const auto& members = store.inspection().members();
  const auto isManifest = [](const hxcrate::InspectedMember& member) {
    return member.container == 0 && member.name == kManifestName &&
           member.kind == hxcrate::MemberKind::item;
  };
  const auto found = std::find_if(members.begin(), members.end(), isManifest);
  if (found != members.end()) ManifestChecker(store, found->entryOffset).check();
}

}  // namespace tool
