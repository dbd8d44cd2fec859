#include "store_walk.h"

#include <algorithm>
#include <utility>

namespace tool {

StoreWalk::Event StoreWalk::next() {
  Level& level = levels_.back();
  if (level.next < level.members.size()) {
    const hxcrate::Member& member = level.members[level.next++];
    return member.kind == hxcrate::MemberKind::store ? Event::store : Event::item;
  }
  if (levels_.size() == 1) return Event::end;
  levels_.pop_back();
  return Event::leave;
}

StoreWalk::Level StoreWalk::listStore(hxcrate::Store store) {
  Level level{std::move(store), {}};
  for (const hxcrate::Member& member : level.store.members())
    level.members.push_back(member);
  std::sort(level.members.begin(), level.members.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return level;
}

hxcrate::Store openWhatThereIs(hxcrate::Session& session, const std::string& path,
                               ExitCode& outcome) {
  hxcrate::Store store = session.open(path, hxcrate::Mode::read, {.acceptDamaged = true});
  if (const std::error_code damage = store.damage()) {
    complain(path, "", "the directory was read only in part: " + damage.message());
    outcome = worse(outcome, ExitCode::damaged);
  }
  return store;
}

}  // namespace tool
