// The statements about items, and what else scripts look at and arrange.
#include <algorithm>

#include "tests/module_world.h"

namespace hx::fake {

namespace {

int32_t toNumber(const std::string& word) {
  return word.empty() ? 0 : std::stoi(word);
}

uint32_t faultsOf(const std::string& word) {
  static const std::map<std::string, uint32_t> kKinds = {
      {"allocate", kAllocateFault}, {"lock", kAcquireFault},    {"open", kOpenFault},
      {"read", kReadFault},         {"write", kWriteFault},     {"seek", kSeekFault},
      {"remove", kRemoveFault},     {"close", kCloseFault},     {"make", kMakeConverterFault},
      {"measure", kMeasureFault},   {"convert", kConvertFault}, {"record", kRecordFault}};
  return kKinds.at(word);
}

}  // namespace

char byteAt(const ItemMember* item, int64_t place) {
  const int64_t seed = item->nameLength == 0 ? 0 : static_cast<int64_t>(item->name[0]);
  return static_cast<char>('a' + (place + place / 7 + place / 4096 + seed) % 26);
}

// ---- items

void World::openItem(const Words& words) {
  const size_t colon = words[2].rfind(':');
  Store* parent = find(words[2].substr(0, colon));
  if ((parent == nullptr && colon != 0) || handle(words[1]) != nullptr) return skip();
  const std::u32string name = widen(words[2].substr(colon + 1));
  const std::string top = words[2].substr(1, words[2].find('/') - 1);
  const bool existed = parent != nullptr || find(top) != nullptr;
  ItemHandle* raw = instance->openItem(
      instance, parent, name.data(), static_cast<int32_t>(name.size()), flagsOf(words[3]), &status);
  EXPECT_EQ(raw != nullptr, status == kOk);
  if (parent == nullptr) noteOpening(top, kRead, existed, status == kOk);
  if (raw == nullptr) return;
  number = raw->item->openCount;
  handles_.push_back({words[1], raw});
  now_[narrow(raw->item->parent->root)].emplace(pathOf(raw->item), 0);
}

void World::write(const Words& words) {
  ItemHandle* raw = handle(words[1]);
  if (raw == nullptr || raw->item->write == nullptr) return skip();
  const ItemMember* item = raw->item;
  std::string bytes(static_cast<size_t>(std::max(toNumber(words[2]), 0)), ' ');
  for (size_t i = 0; i < bytes.size(); ++i)
    bytes[i] = byteAt(item, raw->position + static_cast<int64_t>(i));
  number = item->write(raw, bytes.data(), toNumber(words[2]), &status);
  EXPECT_TRUE(number == static_cast<int64_t>(bytes.size()) || status != kOk);
  if (item->parent->root->condemned || raw->access != kUpdate) return;
  now_[narrow(item->parent->root)][pathOf(item)] = item->size;
}

void World::read(const Words& words) {
  ItemHandle* raw = handle(words[1]);
  if (raw == nullptr) return skip();
  const ItemMember* item = raw->item;
  const int64_t start = raw->position;
  const int64_t width = words[0] == "convert" && isForeign(item->parent) ? 2 : 1;
  std::string bytes(static_cast<size_t>(std::max(toNumber(words[2]), 0)), '?');
  int argument = 0;
  number = item->read(raw, bytes.data(), toNumber(words[2]),
                      words[0] == "convert" ? &argument : nullptr, &status);
  for (int64_t i = 0; i < number; ++i) {
    const char wanted = byteAt(item, start + width * i + width - 1);
    ASSERT_EQ(bytes[static_cast<size_t>(i)], wanted) << "byte " << i << " from " << start;
  }
  EXPECT_EQ(bytes.find_first_not_of('?', static_cast<size_t>(number)), std::string::npos);
  EXPECT_TRUE(number == static_cast<int64_t>(bytes.size()) || status != kOk || bytes.empty());
}

void World::shut(const Words& words) {
  ItemHandle* raw = handle(words[1]);
  if (raw == nullptr) return skip();
  number = raw->item->close(raw);
  if (number != 0) return;
  const auto isIt = [&](const Handle& known) { return known.raw == raw; };
  handles_.erase(std::find_if(handles_.begin(), handles_.end(), isIt));
}

void World::put(const Words& words) {
  openItem({"item", "~", words[1], "UC"});
  if (status != kOk) return;
  write({"write", "~", words[2]});
  const auto outcome = std::pair(status, number);
  shut({"shut", "~"});
  std::tie(status, number) = outcome;
}

void World::get(const Words& words) {
  openItem({"item", "~", words[1], "R"});
  if (status != kOk) return;
  read({"read", "~", std::to_string(handle("~")->item->size)});
  const auto outcome = std::pair(status, number);
  shut({"shut", "~"});
  std::tie(status, number) = outcome;
}

// ---- what is there

void World::list(const Words& words) {
  Store* store = find(words[1]);
  if (store == nullptr) return skip();
  std::string all, wanted;
  std::vector<char32_t> name(4096);
  int32_t length = 0;
  int32_t kind = 0;
  while ((status = store->getNextMember(store, name.data(), length, name.data(), &length, &kind)) ==
         kOk) {
    all += std::string(name.begin(), name.begin() + length) + (kind == kStoreKind ? "/ " : " ");
    ASSERT_LT(++number, 100000) << "the list does not end";
  }
  for (size_t i = 2; i < words.size() && !words[i].empty(); ++i)
    wanted += words[i] + " ";
  EXPECT_TRUE(!isStrict_ || wanted.empty() || all == wanted) << all;
  if (status == kNotFound) status = kOk;
}

void World::addContents(Store* store, const std::string& prefix, Sizes& sizes) {
  for (Member* member : chained(store->members)) {
    const std::string path = prefix + narrow(member);
    sizes[path + (member->kind == kStoreKind ? "/" : "")] = 0;
    if (member->kind == kStoreKind) {
      addContents(asStore(member), path + "/", sizes);
      continue;
    }
    ItemHandle* raw =
        instance->openItem(instance, store, member->name, member->nameLength, kRead, &status);
    sizes[path] = status;
    if (raw == nullptr) continue;
    handles_.push_back({"^", raw});
    read({"read", "^", std::to_string(raw->item->size)});
    sizes[path] = status == kOk || status == kEndOfItem ? static_cast<int32_t>(number) : status;
    shut({"shut", "^"});
  }
}

Sizes World::contents(Store* store) {
  Sizes sizes;
  if (store != nullptr) addContents(store, "", sizes);
  return sizes;
}

void World::tree(const Words& words) {
  Store* store = find(words[1]);
  if (store == nullptr) return skip();
  const Sizes sizes = contents(store);
  EXPECT_TRUE(!isStrict_ || sizes == now_[words[1]]) << testing::PrintToString(sizes);
  status = kOk;
}

void World::ask(const Words& words) {
  if (words[0] == "count") {
    number = host.count(words[1], words[2].empty() ? -1 : toNumber(words[2]));
  } else if (words[0] == "size") {
    number = host.hasFile(words[1]) ? static_cast<int64_t>(host.file(words[1]).size()) : -1;
  } else if (ItemHandle* raw = handle(words[1])) {
    for (const PageBuf* page = raw->item->firstPage; page != nullptr; page = page->next)
      ++number;
  }
}

void World::arrange(const Words& words) {
  if (words[0] == "mark") host.events.clear();
  if (words[0] == "deliver") host.longestRead = toNumber(words[1]);
  if (words[0] == "set") {
    setNamedField(image(words[1]), words[2], words[3]);
    saved_.erase(words[1]);
    unknown_.insert(words[1]);
  }
  if (words[0] == "heal") host.stopFailing();
  if (words[0] == "restart") {
    closeAll();
    instance->destroy(instance);
    instance = hx::hxcrate();
  }
  if (words[0] == "refuse") host.removeResult = toNumber(words[1]);
  if (words[0] == "grow") {
    if (!isStrict_ && !isQuiet(words[1])) return skip();
    image(words[1]).resize(image(words[1]).size() + static_cast<size_t>(toNumber(words[2])));
    stale_.insert(words[1]);
  }
  if (words[0] == "fail") {
    const bool forEver = words[3] == "*";
    host.fail(faultsOf(words[1]), toNumber(words[2]), forEver, forEver ? 0 : toNumber(words[3]));
  }
  if (words[0] != "page") return;
  Store* store = find(words[1]);
  if (store == nullptr) return skip();
  status = store->setPageSize(store, toNumber(words[2]));
}

}  // namespace hx::fake
