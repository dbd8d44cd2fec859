#include "mount/manifest_index.h"

#include "mount/mount_log.h"

namespace mounted {

ManifestIndex::ManifestIndex(const hxcrate::View& item, const std::string& name) {
  try {
    if (item.isOpen()) read(item);
  } catch (const hxcrate::Error& error) {
    say(name + ": " + error.reason());
  } catch (const tool::ManifestError& error) {
    say(name + ": " + error.what());
  }
}

void ManifestIndex::read(const hxcrate::View& item) {
  if (item.size() > std::int64_t{tool::Manifest::kMostBytes}) {
    throw tool::ManifestError("it is too long");
  }
  manifest_ = tool::Manifest(item.readAll());
  for (const auto& member : manifest_.members()) {
    if (member.second.type != tool::MemberAttributes::Type::symbolicLink) continue;
    const std::string_view path = member.first;
    const std::size_t end = path.rfind('/');
    links_.emplace(end == path.npos ? std::string_view() : path.substr(0, end), &member);
  }
}

const tool::MemberAttributes* ManifestIndex::find(std::string_view path, bool isStore) const {
  const tool::MemberAttributes* found = manifest_.find(path);
  if (found == nullptr) return nullptr;
  const bool isFolder = found->type == tool::MemberAttributes::Type::folder;
  return isStore ? (isFolder ? found : nullptr) : (found->isFile() ? found : nullptr);
}

}  // namespace mounted
