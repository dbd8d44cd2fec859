#include "store_walk.h"

#include <algorithm>
#include <utility>

namespace tool {

std::vector<hxcrate::Member> listSorted(const hxcrate::Store& store) {
  std::vector<hxcrate::Member> members;
  for (const hxcrate::Member& member : store.members())
    members.push_back(member);
  std::sort(members.begin(), members.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return members;
}

StoreWalk::StoreWalk(hxcrate::Store start, const Selection* selection, ListMembers list)
    : place_(start.place()), selection_(selection), list_(std::move(list)) {
  push(std::move(start));
  if (selection_ != nullptr && selection_->isEverything()) selection_ = nullptr;
  if (selection_ != nullptr) findWays();
}

StoreWalk::Event StoreWalk::next() {
  Event event = step();
  while (!isWanted(event))
    event = step();
  return event;
}

void StoreWalk::enter() {
  push(container().openStore(name()));
  if (way_) nextWay_ = *way_ + 1;
}

// Whether a store leads to something is known when its end is reached only, so the walk is made
// twice rather than each store's part of it once for each store around it.
void StoreWalk::findWays() {
  std::vector<std::size_t> open;
  for (Event event = step(); event != Event::end; event = step()) {
    if (event == Event::leave) {
      ways_[open.back()].behind = ways_.size();
      open.pop_back();
      continue;
    }
    const auto verdict = selection_->judge(place_, event == Event::store);
    if (verdict == Selection::Verdict::yes) markWays(open);
    if (verdict != Selection::Verdict::onTheWay) continue;
    open.push_back(ways_.size());
    ways_.push_back({});
    try {
      push(container().openStore(name()));
    } catch (const hxcrate::Error&) {  // it is told of when its turn comes
      markWays(open);
      ways_.back().behind = ways_.size();
      open.pop_back();
    }
  }
  levels_.front().next = 0;
}

void StoreWalk::markWays(const std::vector<std::size_t>& open) {
  for (auto way = open.rbegin(); way != open.rend() && !ways_[*way].leads; ++way)
    ways_[*way].leads = true;
}

bool StoreWalk::isWanted(Event event) {
  way_.reset();
  if (selection_ == nullptr || event == Event::leave || event == Event::end) return true;
  const auto verdict = selection_->judge(place_, event == Event::store);
  if (verdict != Selection::Verdict::onTheWay) return verdict == Selection::Verdict::yes;
  way_ = nextWay_;
  nextWay_ = ways_[*way_].behind;
  return ways_[*way_].leads;
}

StoreWalk::Event StoreWalk::step() {
  Level& level = levels_.back();
  place_.resize(level.placeLength);
  if (level.next < level.members.size()) {
    const hxcrate::Member& member = level.members[level.next++];
    if (!place_.empty()) place_ += '/';
    place_ += member.name;
    return member.kind == hxcrate::MemberKind::store ? Event::store : Event::item;
  }
  if (levels_.size() == 1) return Event::end;
  levels_.pop_back();
  return Event::leave;
}

void StoreWalk::push(hxcrate::Store store) {
  std::vector<hxcrate::Member> members = list_(store);
  levels_.push_back({std::move(store), std::move(members), place_.size()});
}

std::optional<hxcrate::Store> openIfStore(hxcrate::Store& store, const std::string& path) {
  if (path.empty()) return std::move(store);
  auto nested = openIfThere([&] { return store.openStore(path); });
  if (!nested) store.read(path).close();
  return nested;
}

std::optional<hxcrate::View> openIfItem(const hxcrate::Store& store, const std::string& path) {
  if (path.empty()) return std::nullopt;
  auto item = openIfThere([&] { return store.view(path); });
  if (!item) store.openStore(path).close();
  return item;
}

std::optional<hxcrate::MemberKind> kindOf(const hxcrate::Store& store, const std::string& path) {
  if (openIfThere([&] { return store.openStore(path); })) return hxcrate::MemberKind::store;
  if (openIfThere([&] { return store.read(path); })) return hxcrate::MemberKind::item;
  return std::nullopt;
}

bool enterOrNote(StoreWalk& walk, ExitCode& outcome) {
  try {
    walk.enter();
    return true;
  } catch (const hxcrate::Error& error) {
    complain(error);
    outcome = worse(outcome, ExitCode::damaged);
    return false;
  }
}

std::optional<std::int64_t> ItemSizes::sizeOrNote(const hxcrate::Store& store,
                                                  const std::string& path, ExitCode& outcome) {
  if (isOver_) return std::nullopt;
  try {
    return sizeOf(store, path);
  } catch (const hxcrate::Error& error) {
    complain(error);
  } catch (const Failure& failure) {
    failure.print();
    isOver_ = true;
  }
  outcome = worse(outcome, ExitCode::damaged);
  return std::nullopt;
}

std::optional<std::int64_t> ItemSizes::sizeIfReadable(const hxcrate::Store& store,
                                                      const std::string& path) {
  if (isOver_) return std::nullopt;
  try {
    return sizeOf(store, path);
  } catch (const hxcrate::Error&) {
    return std::nullopt;
  } catch (const Failure&) {
    isOver_ = true;
    return std::nullopt;
  }
}

std::int64_t ItemSizes::sizeOf(const hxcrate::Store& store, const std::string& path) {
  const std::int64_t size = limit_.whileReading(store, [&] { return store.stat(path).size; });
  limit_.require(store, (bytes_ += size) / times_);
  return size;
}

void expectItems(Progress& progress, hxcrate::Session& session, const std::string& path,
                 const Selection& selection) {
  if (!progress.isShown()) return;
  std::int64_t bytes = 0;
  std::int64_t items = 0;
  ItemSizes sizes;
  StoreWalk walk(session.open(path, hxcrate::Mode::read, {.acceptDamaged = true}), &selection);
  for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
    throwIfInterrupted();
    try {
      if (event == StoreWalk::Event::store) walk.enter();
    } catch (const hxcrate::Error&) {  // it is told of when its turn comes
    }
    if (event != StoreWalk::Event::item) continue;
    bytes += sizes.sizeIfReadable(walk.container(), walk.name()).value_or(0);
    ++items;
  }
  progress.expect(bytes, items);
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

void requireThere(const hxcrate::Store& store, const std::vector<std::string>& paths) {
  for (const std::string& path : paths) {
    try {
      if (kindOf(store, path)) continue;
    } catch (const hxcrate::Error& error) {
      if (error.errc() == hxcrate::Errc::badName) throw;
      continue;
    }
    throw hxcrate::Error(hxcrate::Errc::notFound, store.path(), path);
  }
}

}  // namespace tool
