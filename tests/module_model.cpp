#include "tests/module_model.h"

#include "records/status.h"

namespace hx::fake {

void Model::noteOpening(const std::string& name, uint32_t flags, bool wasCached, bool isCached,
                        bool succeeded) {
  const bool replaces = has(flags, kUpdate | kReplace);
  const bool isLoaded = !replaces && (!has(flags, kNoFile) || has(flags, kRead));
  // The old file goes before the new store comes, whatever becomes of that.
  const auto file = host.files.find(name);
  const bool isGone = succeeded || file == host.files.end() || file->second.empty();
  if (replaces && !has(flags, kNoFile) && isGone) {
    saved.erase(name);
    unknown.erase(name);
  }
  if (!isCached) now.erase(name);
  const bool keepsTree = wasCached && !replaces && !(isLoaded && stale.count(name) != 0);
  if (!succeeded || keepsTree) return;
  now[name] = isLoaded && saved.count(name) != 0 ? saved[name] : Sizes();
  stale.erase(name);
}

void Model::noteUpdate(const std::string& name) {
  stale.erase(name);
  if (host.undone.count(name) != 0) {
    stale.insert(name);
  } else if (unknown.count(name) == 0) {
    saved[name] = now[name];
  }
}

void Model::noteDrop(const std::string& name, bool withFile) {
  now.erase(name);
  if (!withFile) return;
  saved.erase(name);
  if (host.files.count(name) != 0) unknown.insert(name);
}

void Model::noteDamage(const std::string& file) {
  saved.erase(file);
  unknown.insert(file);
}

char Model::byteAt(const std::string& item, int64_t place) {
  const int64_t seed = item.empty() ? 0 : static_cast<uint8_t>(item[0]);
  return static_cast<char>('a' + (place + place / 7 + place / 4096 + seed) % 26);
}

}  // namespace hx::fake
