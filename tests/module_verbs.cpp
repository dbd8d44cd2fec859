// The verbs: what each statement of a script does with the world, and what the model learns of it.
#include <algorithm>

#include "tests/module_world.h"

namespace hx::fake {

namespace {

int32_t toNumber(const std::string& word) {
  return word.empty() ? 0 : std::stoi(word);
}

void skip(World& w) {
  w.status = kSkipped;
}

// The path inside its tree of a nested store, with "/" behind it, or of an item.
std::string pathOf(const Store* store) {
  return store->parent == nullptr ? "" : pathOf(store->parent) + nameIn(store) + "/";
}
std::string pathOf(const ItemMember* item) {
  return pathOf(item->parent) + nameIn(item);
}

Sizes& modelOf(World& w, const Store* store) {
  return w.model.now[nameIn(store->root)];
}

// ---- stores

// Whether the last update of the closed store was undone. If that was to change nothing the tree in
// memory stays, else it goes; the model can't tell, so nothing is added to such a tree.
bool isDoubtful(const World& w, const std::string& path) {
  const Store* store = w.find(path);
  return store != nullptr && store->openCount == 0 && w.host.undone.count(path) != 0;
}

void enterStore(World& w, const Words& words) {
  const std::string& path = words[1];
  const size_t colon = path.rfind(':');
  const bool isTop = colon == std::string::npos;
  Store* parent = isTop ? nullptr : w.find(path.substr(0, colon));
  if (!isTop && parent == nullptr) return skip(w);
  const bool needsNoFile = !isTop || has(flagsOf(words[2]), kNoFile);
  const std::string top = isTop ? path : nameIn(parent->root);
  if (!w.isStrict && needsNoFile && isDoubtful(w, top)) return skip(w);
  const Store* known = w.find(path);
  const std::u32string asked = widen(path.substr(isTop ? 0 : colon + 1));
  // The record that the name lies in may not last as long as the call.
  const char32_t* name = isTop && known != nullptr ? known->name : asked.data();
  const Store* store = w.openStore(parent, {name, asked.size()}, words[2]);
  EXPECT_TRUE(store != nullptr || w.status < kOk);
  if (isTop) {
    w.model.noteOpening(path, flagsOf(words[2]), known != nullptr, w.find(path) != nullptr,
                        store != nullptr);
  }
  if (store == nullptr) return;
  w.number = store->openCount;
  if (!isTop) modelOf(w, store).emplace(pathOf(store) + ".", 0);
}

void leaveStore(World& w, const Words& words) {
  Store* store = w.find(words[1]);
  if (store == nullptr) return skip(w);
  const bool isUpdate = store->openCount == -1 && fileOf(store) != nullptr;
  const bool takesFile = words[0] == "delete" && store->hasHadFile;
  (words[0] == "delete" ? store->closeAndDeleteStore : store->closeStore)(store);
  // Condemned, it is there only as long as its handles are open.
  if (w.host.blocks.count(store) == 0 || store->condemned) {
    w.blobStores.erase(words[1]);
    return w.model.noteDrop(words[1], takesFile);
  }
  w.number = store->openCount;
  if (isUpdate && w.number == 0) w.model.noteUpdate(words[1]);
}

void setPageSize(World& w, const Words& words) {
  Store* store = w.find(words[1]);
  if (store == nullptr) return skip(w);
  w.status = store->setPageSize(store, toNumber(words[2]));
}

// ---- blobs and files

// Whether nobody has the file or the blob open.
bool isQuiet(const World& w, const std::string& name) {
  const Store* store = w.find(name);
  return store == nullptr ||
         (!isBlobName(name) && store->openCount == 0 && store->openHandles == 0);
}

void makeBlob(World& w, const Words& words) {
  Store* store = w.find(words[1]);
  if (store == nullptr || !isQuiet(w, words[2])) return skip(w);
  Pool* pool = w.host.createPool(&w.host, nullptr, 0, "Pool");
  const size_t blocks = w.host.blocks.size();
  uint64_t size = 99;
  auto* made = static_cast<uint8_t*>(store->createBlobFromStore(store, &size, pool));
  EXPECT_EQ(w.host.blocks.size(), blocks + (made == nullptr ? 0 : 1));
  if (made != nullptr) {
    w.blobs[words[2]].assign(made, made + size);
    w.model.saved[words[2]] = w.model.now[words[1]];
    checkImage(w.blobs[words[2]]);
  }
  w.status = made == nullptr ? kNoMemory : kOk;
  w.number = static_cast<int64_t>(size);
  pool->head.destroy(pool);
}

void loadBlob(World& w, const Words& words) {
  if (w.blobs.count(words[1]) == 0 || w.blobStores.count(words[1]) != 0) return skip(w);
  const Bytes& blob = w.blobs[words[1]];
  Store* store = w.openBlob(blob.data(), blob.size(), widen(words[1]), words[2]);
  EXPECT_EQ(store == nullptr, w.status != kOk);
  if (store == nullptr) return;
  w.blobStores[words[1]] = store;
  w.model.now[words[1]] = w.model.saved[words[1]];
}

void copy(World& w, const Words& words) {
  const bool isKnown = w.model.saved.count(words[2]) != 0;
  const bool isSafe = isKnown && isQuiet(w, words[1]) && isQuiet(w, words[2]);
  if (!w.isStrict && !isSafe) return skip(w);
  const Bytes from = w.image(words[2]);
  w.image(words[1]) = words[0] == "copy" ? from : asBigEndian(from);
  if (isKnown) w.model.saved[words[1]] = Sizes(w.model.saved[words[2]]);
  w.model.stale.insert(words[1]);
}

void grow(World& w, const Words& words) {
  if (!w.isStrict && !isQuiet(w, words[1])) return skip(w);
  Bytes& image = w.image(words[1]);
  image.resize(image.size() + static_cast<size_t>(toNumber(words[2])));
  w.model.stale.insert(words[1]);
}

// ---- items

void enterItem(World& w, const Words& words) {
  const std::string& path = words[2];
  const size_t colon = path.rfind(':');
  Store* parent = w.find(path.substr(0, colon));
  if ((parent == nullptr && colon != 0) || w.handle(words[1]) != nullptr) return skip(w);
  const std::string top = path.substr(1, path.find('/') - 1);
  const bool wasCached = w.find(top) != nullptr;
  ItemHandle* handle = w.openItem(parent, widen(path.substr(colon + 1)), words[3]);
  EXPECT_EQ(handle != nullptr, w.status == kOk);
  if (parent == nullptr)
    w.model.noteOpening(top, kRead, wasCached, w.find(top) != nullptr, handle != nullptr);
  if (handle == nullptr) return;
  w.number = handle->item->openCount;
  w.handles[words[1]] = handle;
  if (has(flagsOf(words[3]), kCreate))
    modelOf(w, handle->item->parent).emplace(pathOf(handle->item), 0);
}

void shut(World& w, const Words& words) {
  ItemHandle* handle = w.handle(words[1]);
  if (handle == nullptr) return skip(w);
  w.number = handle->item->close(handle);
  if (w.number == 0) w.handles.erase(words[1]);
}

void writeBytes(World& w, ItemHandle* handle, const Words& words) {
  ItemMember* item = handle->item;
  if (item->write == nullptr) return skip(w);
  const std::string name = nameIn(item);
  std::string bytes(static_cast<size_t>(std::max(toNumber(words[2]), 0)), ' ');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = Model::byteAt(name, handle->position + static_cast<int64_t>(i));
  w.number = item->write(handle, bytes.data(), toNumber(words[2]), &w.status);
  EXPECT_TRUE(w.number == static_cast<int64_t>(bytes.size()) || w.status != kOk);
  if (item->parent->root->condemned || handle->access != kUpdate) return;
  modelOf(w, item->parent)[pathOf(item)] = item->size;
}

void readBytes(World& w, ItemHandle* handle, const Words& words) {
  ItemMember* item = handle->item;
  const std::string name = nameIn(item);
  const int64_t start = handle->position;
  int converts = words[0] == "convert" ? 1 : 0;
  const int64_t width = converts != 0 && isForeign(item->parent) ? 2 : 1;
  const int32_t length = words[2].empty() ? item->size : toNumber(words[2]);
  std::string bytes(static_cast<size_t>(std::max(length, 0)), '?');
  w.number =
      item->read(handle, bytes.data(), length, converts != 0 ? &converts : nullptr, &w.status);
  for (int64_t i = 0; i < w.number; ++i) {
    const char wanted = Model::byteAt(name, start + width * i + width - 1);
    ASSERT_EQ(bytes[static_cast<size_t>(i)], wanted) << "byte " << i << " from " << start;
  }
  const size_t touched = bytes.find_first_not_of('?', static_cast<size_t>(w.number));
  EXPECT_TRUE(touched == std::string::npos || w.status == kUnreadable);
  EXPECT_TRUE(w.number == static_cast<int64_t>(bytes.size()) || w.status != kOk || bytes.empty());
}

// Writes or reads by a handle, or by one that is opened for that when an item's path is given.
void useItem(World& w, const Words& words) {
  const bool writes = words[0] == "write";
  const bool isPath = words[1].find(':') != std::string::npos;
  const std::string name = isPath ? "~" : words[1];
  if (isPath) enterItem(w, {"item", name, words[1], writes ? "UC" : "R"});
  if (w.status != kOk) return;
  if (w.handle(name) == nullptr) return skip(w);
  (writes ? writeBytes : readBytes)(w, w.handle(name), words);
  if (!isPath) return;
  const auto outcome = std::pair(w.status, w.number);
  shut(w, {"shut", name});
  std::tie(w.status, w.number) = outcome;
}

// What is read at any place is what a handle reads.
void compareView(World& w, const ItemMember* item, int64_t size) {
  View view(w, item->parent, {item->name, static_cast<size_t>(item->nameLength)});
  ASSERT_TRUE(view.isOpen()) << view.status;
  const auto length = static_cast<size_t>(2 * int64_t{item->parent->root->pageSize});
  for (int64_t offset = 0; offset <= size; offset += static_cast<int64_t>(length) * 3 / 4) {
    std::string expected;
    for (int64_t at = offset; at < size && expected.size() < length; ++at)
      expected += Model::byteAt(nameIn(item), at);
    const Bytes bytes = view.read(offset, length);
    ASSERT_EQ(std::string(bytes.begin(), bytes.end()), expected) << "from " << offset;
    EXPECT_EQ(view.status, expected.size() < length ? kEndOfItem : kOk);
  }
}

void countPages(World& w, const Words& words) {
  if (w.handle(words[1]) == nullptr) return skip(w);
  for (const PageBuf* page = w.handle(words[1])->item->firstPage; page != nullptr;
       page = page->next)
    ++w.number;
}

// ---- what is there

void list(World& w, const Words& words) {
  Store* store = w.find(words[1]);
  if (store == nullptr) return skip(w);
  std::vector<char32_t> name(4096);
  int32_t length = 0;
  int32_t kind = 0;
  while ((w.status = store->getNextMember(store, name.data(), length, name.data(), &length,
                                          &kind)) == kOk) {
    w.names.emplace_back(name.begin(), name.begin() + length);
    if (kind == kStoreKind) w.names.back() += '/';
    ASSERT_LT(++w.number, 100000) << "the list does not end";
  }
  if (w.status == kNotFound) w.status = kOk;
}

void compareTree(World& w, const Words& words) {
  if (w.find(words[1]) == nullptr) return skip(w);
  const Sizes sizes = w.contents(words[1]);
  EXPECT_TRUE(!w.isStrict || sizes == w.model.now[words[1]]) << testing::PrintToString(sizes);
  w.status = kOk;
}

void measureFile(World& w, const Words& words) {
  const auto file = w.host.files.find(words[1]);
  w.number = file == w.host.files.end() ? -1 : static_cast<int64_t>(file->second.size());
}

void setField(World& w, const Words& words) {
  setNamedField(w.image(words[1]), words[2], words[3]);
  w.model.noteDamage(words[1]);
}

// What the host does, and has done.
void arrange(World& w, const Words& words) {
  const std::string& verb = words[0];
  const int32_t length = words[2].empty() ? -1 : toNumber(words[2]);
  if (verb == "mark") w.host.events.clear();
  if (verb == "count") w.number = w.host.count(words[1], length);
  if (verb == "fail") w.host.fail(words[1], toNumber(words[2]), words[3].empty() ? 0 : kAllAfter);
  if (verb == "heal") w.host.stopFailing();
  if (verb == "refuse") w.host.removeResult = statusOf(words[1]);
  if (verb == "deliver") w.host.longestRead = toNumber(words[1]);
}

void restart(World& w, const Words&) {
  w.closeAll();
  w.instance->destroy(w.instance);
  w.instance = hx::hxcrate();
}

}  // namespace

const World::Verbs World::kVerbs = {  // by the words for them
    {"open", enterStore},  {"close", leaveStore},     {"delete", leaveStore}, {"list", list},
    {"tree", compareTree}, {"pagesize", setPageSize}, {"blob", makeBlob},     {"load", loadBlob},
    {"copy", copy},        {"foreign", copy},         {"grow", grow},         {"set", setField},
    {"size", measureFile}, {"item", enterItem},       {"shut", shut},         {"write", useItem},
    {"read", useItem},     {"convert", useItem},      {"pages", countPages},  {"mark", arrange},
    {"count", arrange},    {"fail", arrange},         {"heal", arrange},      {"refuse", arrange},
    {"deliver", arrange},  {"restart", restart}};

Sizes World::contents(const std::string& path) {
  Sizes sizes;
  const Store* store = find(path);
  if (store == nullptr) return sizes;
  for (Member* member : chained(store->members)) {
    const std::string inside = path + ":" + nameIn(member);
    if (member->kind == kStoreKind) {
      sizes[pathOf(asStore(member)) + "."] = 0;
      sizes.merge(contents(inside));
    } else {
      status = kOk;
      number = 0;
      useItem(*this, {"read", inside, ""});
      const bool isRead = status == kOk || status == kEndOfItem;
      sizes[pathOf(asItem(member))] = isRead ? static_cast<int32_t>(number) : status;
      if (isRead && !host.isFailing()) compareView(*this, asItem(member), number);
    }
  }
  return sizes;
}

}  // namespace hx::fake
