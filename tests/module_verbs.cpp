// The statements about stores and blobs, and what the model learns from them.
#include "tests/module_world.h"

namespace hx::fake {

// What the model has to learn when a top-level store was opened, or was to be.
void World::noteOpening(const std::string& path, uint32_t flags, bool existed, bool succeeded) {
  const bool replaces = has(flags, kUpdate | kReplace);
  const bool isLoaded = !replaces && (!has(flags, kNoFile) || has(flags, kRead));
  // The old file goes before the new store comes, whatever becomes of that.
  const bool isGone = succeeded || host.files.count(path) == 0 || image(path).empty();
  if (replaces && !has(flags, kNoFile) && isGone) {
    saved_.erase(path);
    unknown_.erase(path);
  }
  if (find(path) == nullptr) now_.erase(path);
  const bool keepsTree = existed && !replaces && !(isLoaded && stale_.count(path) != 0);
  if (!succeeded || keepsTree) return;
  now_[path] = isLoaded && saved_.count(path) != 0 ? saved_[path] : Sizes();
  stale_.erase(path);
}

void World::openStore(const Words& words) {
  const size_t colon = words[1].rfind(':');
  const bool isTop = colon == std::string::npos;
  Store* parent = isTop ? nullptr : find(words[1].substr(0, colon));
  if (!isTop && parent == nullptr) return skip();
  const bool needsNoFile = !isTop || has(flagsOf(words[2]), kNoFile);
  if (!isStrict_ && needsNoFile && isDoubtful(isTop ? words[1] : narrow(parent->root)))
    return skip();
  const Store* known = find(words[1]);
  const bool existed = known != nullptr;
  const std::u32string asked = widen(words[1].substr(isTop ? 0 : colon + 1));
  std::u32string_view name = asked;
  // The record that the name lies in may not last as long as the call.
  if (isTop && existed) name = {known->name, asked.size()};
  Store* store = openStore(parent, name, words[2]);
  EXPECT_TRUE(store != nullptr || status < kOk);
  if (isTop) noteOpening(words[1], flagsOf(words[2]), existed, store != nullptr);
  if (store == nullptr) return;
  number = store->openCount;
  if (!isTop) now_[narrow(store->root)].emplace(pathOf(store) + ".", 0);
}

// Whether the last update of the closed store was undone. If that was to change nothing the tree in
// memory stays, else it goes; the model can't tell, so nothing is added to such a tree.
bool World::isDoubtful(const std::string& path) {
  const Store* store = find(path);
  return store != nullptr && store->openCount == 0 && host.undone.count(path) != 0;
}

void World::closeStore(const Words& words) {
  const std::string& ref = words[1];
  Store* store = find(ref);
  if (store == nullptr) return skip();
  const bool isUpdate = store->openCount == -1 && openFile(store) != nullptr;
  store->closeStore(store);
  if (forgetDropped(ref, store)) return;
  number = store->openCount;
  if (!isUpdate || number != 0) return;
  stale_.erase(ref);
  if (host.undone.count(ref) != 0) {
    stale_.insert(ref);
  } else if (unknown_.count(ref) == 0) {
    saved_[ref] = now_[ref];
  }
}

void World::deleteStore(const Words& words) {
  Store* store = find(words[1]);
  if (store == nullptr) return skip();
  const bool hadFile = store->hasHadFile;
  store->closeAndDeleteStore(store);
  if (!forgetDropped(words[1], store)) {
    number = store->openCount;
  } else if (hadFile) {
    saved_.erase(words[1]);
    if (host.files.count(words[1]) != 0) unknown_.insert(words[1]);
  }
}

// Whether the store is no more, or only as long as its handles are open.
bool World::forgetDropped(const std::string& ref, const Store* store) {
  if (host.blocks.count(store) != 0 && !store->condemned) return false;
  blobStores_.erase(ref);
  now_.erase(ref);
  return true;
}

void World::makeBlob(const Words& words) {
  Store* store = find(words[1]);
  if (store == nullptr || !isQuiet(words[2])) return skip();
  Pool* pool = host.createPool(&host, nullptr, 0, "Pool");
  const size_t blocks = host.blocks.size();
  uint64_t size = 99;
  auto* made = static_cast<uint8_t*>(store->createBlobFromStore(store, &size, pool));
  EXPECT_EQ(host.blocks.size(), blocks + (made == nullptr ? 0 : 1));
  if (made != nullptr) {
    blobs_[words[2]].assign(made, made + size);
    saved_[words[2]] = now_[words[1]];
    checkImage(blobs_[words[2]]);
  }
  status = made == nullptr ? kNoMemory : kOk;
  number = static_cast<int64_t>(size);
  pool->head.destroy(pool);
}

void World::loadBlob(const Words& words) {
  if (blobs_.count(words[1]) == 0 || blobStores_.count(words[1]) != 0) return skip();
  const Bytes& blob = blobs_[words[1]];
  Store* store = openBlob(blob.data(), blob.size(), widen(words[1]), words[2]);
  EXPECT_EQ(store == nullptr, status != kOk);
  if (store == nullptr) return;
  blobStores_[words[1]] = store;
  now_[words[1]] = saved_[words[1]];
}

// Whether nobody has the file or the blob open.
bool World::isQuiet(const std::string& name) {
  const Store* store = find(name);
  return store == nullptr ||
         (!isBlobName(name) && store->openCount == 0 && store->openHandles == 0);
}

void World::copy(const Words& words) {
  const bool isKnown = saved_.count(words[2]) != 0;
  const bool isSafe = isKnown && isQuiet(words[1]) && isQuiet(words[2]);
  if (!isStrict_ && !isSafe) return skip();
  const Bytes from = image(words[2]);
  image(words[1]) = words[0] == "copy" ? from : asBigEndian(from);
  if (isKnown) saved_[words[1]] = Sizes(saved_[words[2]]);
  stale_.insert(words[1]);
}

void World::grow(const Words& words) {
  if (!isStrict_ && !isQuiet(words[1])) return skip();
  image(words[1]).resize(image(words[1]).size() + static_cast<size_t>(std::stoi(words[2])));
  stale_.insert(words[1]);
}

}  // namespace hx::fake
