#include "session_files.h"

#include <algorithm>

#include "module_library.h"

namespace hxcrate {

namespace {

bool isSame(const hxhost::FileInfo& a, const hxhost::FileInfo& b) {
  return a.device == b.device && a.inode == b.inode && a.birth == b.birth;
}

bool isUnchanged(const hxhost::FileInfo& a, const hxhost::FileInfo& b) {
  return isSame(a, b) && a.size == b.size && a.modified == b.modified && a.changed == b.changed;
}

}  // namespace

bool SessionFiles::isTaken(const std::u32string& name, const hxhost::FileInfo& now) const {
  const auto known = open_.find(name);
  return known != open_.end() && !isSame(known->second.file, now);
}

void SessionFiles::check(const std::u32string& name, const hxhost::FileInfo& now) {
  const auto known = kept_.find(name);
  if (known == kept_.end() || !isUnchanged(known->second.file, now)) forget(name);
}

void SessionFiles::enter(const std::u32string& name, const hxhost::FileInfo& file) {
  OpenFile& entry = open_[name];
  if (entry.openings++ == 0) entry.file = file;
  kept_.erase(name);
}

void SessionFiles::leave(const std::u32string& name, const std::optional<hxhost::FileInfo>& left) {
  const auto known = open_.find(name);
  if (known == open_.end() || --known->second.openings > 0) return;
  open_.erase(known);
  if (!left || most_ == 0) return forget(name);
  kept_[name] = {*left, ++uses_};
  if (kept_.size() > most_) dropOldest();
}

void SessionFiles::forget(const std::u32string& name) {
  kept_.erase(name);
  forgetStore(module_, name);
}

void SessionFiles::dropOldest() {
  const auto oldest =
      std::ranges::min_element(kept_, {}, [](const auto& entry) { return entry.second.lastUse; });
  forget(std::u32string(oldest->first));
}

}  // namespace hxcrate
