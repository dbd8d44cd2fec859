#include "tests/module_world.h"

#include <algorithm>
#include <sstream>

#include "store/close_store.h"

namespace hx::fake {

namespace {

constexpr int32_t kSkipped = 1;

Member* named(const MemberTable& table, const std::string& name) {
  for (Member* member : chained(table)) {
    if (narrow(member) == name) return member;
  }
  return nullptr;
}

// The byte of an item at a place.
char byteAt(const ItemMember* item, int64_t place) {
  const int64_t seed = item->nameLength == 0 ? 0 : static_cast<int64_t>(item->name[0]);
  return static_cast<char>('a' + (place + place / 7 + place / 4096 + seed) % 26);
}

bool isForeign(const Store* store) {
  const EncodingId& own = store->extension->encodingId;
  return std::memcmp(&own, &store->encodingId, sizeof(own)) != 0;
}

bool holdsDirtyPages(const Store* store) {
  for (Member* member : chained(store->members)) {
    if (member->kind == kStoreKind && holdsDirtyPages(asStore(member))) return true;
    const PageBuf* page = member->kind == kItemKind ? asItem(member)->firstPage : nullptr;
    for (; page != nullptr; page = page->next) {
      if ((page->flags & kPageDirty) != 0) return true;
    }
  }
  return false;
}

int32_t toNumber(const std::string& word) {
  return word.empty() ? 0 : std::stoi(word);
}

}  // namespace

bool isBlobName(const std::string& name) {
  return name[0] >= 'A' && name[0] <= 'Z';
}

std::string pathOf(const Store* store) {
  return store->parent == nullptr ? "" : pathOf(store->parent) + narrow(store) + "/";
}

std::string pathOf(const ItemMember* item) {
  return pathOf(item->parent) + narrow(item);
}

std::vector<Member*> chained(const MemberTable& table) {
  std::vector<Member*> members;
  for (Member* member : table.buckets) {
    for (; member != nullptr; member = member->next)
      members.push_back(member);
  }
  return members;
}

uint32_t flagsOf(const std::string& letters) {
  uint32_t flags = 0;
  for (const char letter : letters)
    flags |= letter == '-' ? 0u : 1u << std::string("RUCPXN").find(letter);
  return flags;
}

std::u32string widen(std::string word) {
  if (const size_t star = word.find('*'); star != std::string::npos) {
    size_t digits = 0;
    const int times = std::stoi(word.substr(star + 1), &digits);
    word.replace(star, digits + 1, static_cast<size_t>(times - 1), word[star - 1]);
  }
  const auto* bytes = reinterpret_cast<const uint8_t*>(word.data());
  return {bytes, bytes + word.size()};
}

// ---- the instance

World::World(const Disk& disk, bool knowsEncodings) {
  host.files = disk;
  host.knowsEncodings = knowsEncodings;
  hxmodent(&host);
  instance = hx::hxcrate();
}

World::~World() {
  closeAll();
  for (Member* member : chained(instance->stores))
    hxcrateCloseAndDeleteStore(asStore(member));
  EXPECT_EQ(host.blocks.size(), instance->storeIndex.slots == nullptr ? 1 : 2) << "left records";
  instance->destroy(instance);
}

void World::closeAll() {
  host.stopFailing();
  host.longestRead = INT64_MAX;
  host.removeResult = 0;
  while (!handles_.empty())
    step("shut " + handles_.begin()->first, false);
  while (!blobStores_.empty())
    step("close " + blobStores_.begin()->first, false);
  for (Member* member : chained(instance->stores)) {
    while (asStore(member)->openCount != 0)
      closeStore({"close", narrow(member)});
  }
  EXPECT_EQ(host.alive, host.knowsEncodings ? 4 : 3) << "converters are left";
}

void World::settle(bool comparesTrees) {
  closeAll();
  for (const auto& [path, sizes] : std::map(saved_)) {
    if (isBlobName(path)) continue;
    SCOPED_TRACE("in the end, " + path);
    ASSERT_EQ(host.files.count(path), 1);
    World other({{path, image(path)}});
    other.run("open " + path + " R");
    if (!isForeign(other.find(path))) checkImage(image(path));
    EXPECT_EQ(other.contents(path), sizes) << "as a new instance sees it";
    if (!comparesTrees) continue;
    tryToRun("open " + path + " R");
    const bool keepsNews = status == kFileNotOpen && stale_.count(path) != 0;
    if (keepsNews && holdsDirtyPages(find(path))) continue;
    EXPECT_EQ(status, kOk);
    run("tree " + path);
  }
}

Store* World::find(const std::string& ref) {
  if (const auto blob = blobStores_.find(ref); blob != blobStores_.end()) return blob->second;
  Member* member = named(instance->stores, ref);
  const size_t split = ref.find_last_of(":/");
  if (member == nullptr && split != std::string::npos) {
    Store* parent = find(ref.substr(0, split));
    if (parent != nullptr) member = named(parent->members, ref.substr(split + 1));
  }
  return member != nullptr && member->kind == kStoreKind ? asStore(member) : nullptr;
}

ItemHandle* World::handle(const std::string& name) const {
  const auto found = handles_.find(name);
  return found == handles_.end() ? nullptr : found->second;
}

Bytes& World::image(const std::string& name) {
  return isBlobName(name) ? blobs_[name] : host.files[name];
}

// ---- calls of the instance

Store* World::openStore(Store* parent, std::u32string_view name, const std::string& flags) {
  const auto length = static_cast<int32_t>(name.size());
  return instance->openStore(instance, parent, name.data(), length, flagsOf(flags), &status);
}

ItemHandle* World::openItem(Store* store, const std::u32string& name, const std::string& flags) {
  const auto length = static_cast<int32_t>(name.size());
  return instance->openItem(instance, store, name.data(), length, flagsOf(flags), &status);
}

Store* World::openBlob(const void* blob, uint64_t size, const std::u32string& name,
                       const std::string& flags) {
  const auto length = static_cast<int32_t>(name.size());
  host.opensBlob = true;
  Store* store = instance->openStoreFromMemory(instance, blob, size, name.data(), length,
                                               flagsOf(flags), &status);
  host.opensBlob = false;
  return store;
}

// ---- scripts

const std::map<std::string, World::Verb World::*> World::kVerbs = {
    {"open", &World::openStore},  {"close", &World::closeStore}, {"delete", &World::deleteStore},
    {"item", &World::openItem},   {"write", &World::write},      {"read", &World::read},
    {"convert", &World::read},    {"shut", &World::shut},        {"put", &World::useWhole},
    {"get", &World::useWhole},    {"list", &World::list},        {"tree", &World::tree},
    {"blob", &World::makeBlob},   {"load", &World::loadBlob},    {"copy", &World::copy},
    {"foreign", &World::copy},    {"grow", &World::grow},        {"set", &World::arrange},
    {"page", &World::arrange},    {"restart", &World::arrange},  {"mark", &World::arrange},
    {"fail", &World::arrange},    {"heal", &World::arrange},     {"refuse", &World::arrange},
    {"deliver", &World::arrange}, {"size", &World::ask},         {"pages", &World::ask},
    {"count", &World::ask}};

void World::run(const std::string& script, bool isStrict) {
  std::istringstream statements(script);
  for (std::string statement; std::getline(statements, statement, ';');)
    step(statement, isStrict);
}

void World::step(const std::string& statement, bool isStrict) {
  std::istringstream stream(statement);
  Words words;
  int32_t wantedStatus = kOk;
  std::optional<int64_t> wantedNumber;
  for (std::string word; stream >> word;) {
    if (word[0] == '!') wantedStatus = -std::stoi(word.substr(1));
    if (word[0] == '=') wantedNumber = std::stoll(word.substr(1));
    if (word[0] != '!' && word[0] != '=') words.push_back(word);
  }
  if (words.empty()) return;
  SCOPED_TRACE(statement);
  words.resize(std::max<size_t>(words.size(), 4));
  isStrict_ = isStrict;
  const bool hadFailed = host.fired != 0;
  status = kOk;
  number = 0;
  (this->*kVerbs.at(words[0]))(words);
  if (!hadFailed && host.fired != 0) firstOutcome = status;
  EXPECT_TRUE(status <= kSkipped && (status >= kPageSizeFixed || status < -2134906850)) << status;
  if (isStrict) {
    EXPECT_EQ(status, wantedStatus);
    EXPECT_EQ(number, wantedNumber.value_or(number));
  }
  checkIndex(instance->stores, instance->storeIndex);
  for (Member* member : chained(instance->stores))
    checkTree(asStore(member), handles_);
  for (const auto& [name, store] : blobStores_)
    checkTree(store, handles_);
}

// What else scripts look at and arrange.
void World::ask(const Words& words) {
  if (words[0] == "count") {
    number = host.count(words[1], words[2].empty() ? -1 : toNumber(words[2]));
  } else if (words[0] == "size") {
    number = host.files.count(words[1]) != 0 ? static_cast<int64_t>(image(words[1]).size()) : -1;
  } else if (const ItemHandle* raw = handle(words[1])) {
    for (const PageBuf* page = raw->item->firstPage; page != nullptr; page = page->next)
      ++number;
  }
}

void World::arrange(const Words& words) {
  const std::string& verb = words[0];
  if (verb == "mark") host.events.clear();
  if (verb == "heal") host.stopFailing();
  if (verb == "refuse") host.removeResult = toNumber(words[1]);
  if (verb == "deliver") host.longestRead = toNumber(words[1]);
  if (verb == "fail") {
    host.fail(words[1], toNumber(words[2]), words[3] == "*" ? kAllAfter : toNumber(words[3]));
  }
  if (verb == "set") {
    setNamedField(image(words[1]), words[2], words[3]);
    saved_.erase(words[1]);
    unknown_.insert(words[1]);
  }
  if (verb == "restart") {
    closeAll();
    instance->destroy(instance);
    instance = hx::hxcrate();
  }
  if (verb == "page") {
    Store* store = find(words[1]);
    if (store == nullptr) return skip();
    status = store->setPageSize(store, toNumber(words[2]));
  }
}

// ---- items

void World::openItem(const Words& words) {
  const size_t colon = words[2].rfind(':');
  Store* parent = find(words[2].substr(0, colon));
  if ((parent == nullptr && colon != 0) || handle(words[1]) != nullptr) return skip();
  const std::string top = words[2].substr(1, words[2].find('/') - 1);
  const bool existed = parent != nullptr || find(top) != nullptr;
  ItemHandle* raw = openItem(parent, widen(words[2].substr(colon + 1)), words[3]);
  EXPECT_EQ(raw != nullptr, status == kOk);
  if (parent == nullptr) noteOpening(top, kRead, existed, status == kOk);
  if (raw == nullptr) return;
  number = raw->item->openCount;
  handles_[words[1]] = raw;
  if (has(flagsOf(words[3]), kCreate))
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
  int converts = words[0] == "convert" ? 1 : 0;
  const int64_t width = converts != 0 && isForeign(item->parent) ? 2 : 1;
  std::string bytes(static_cast<size_t>(std::max(toNumber(words[2]), 0)), '?');
  number = item->read(raw, bytes.data(), toNumber(words[2]), converts != 0 ? &converts : nullptr,
                      &status);
  for (int64_t i = 0; i < number; ++i) {
    const char wanted = byteAt(item, start + width * i + width - 1);
    ASSERT_EQ(bytes[static_cast<size_t>(i)], wanted) << "byte " << i << " from " << start;
  }
  const bool isTouchedBehind =
      bytes.find_first_not_of('?', static_cast<size_t>(number)) < bytes.size();
  EXPECT_TRUE(!isTouchedBehind || status == kUnreadable);
  EXPECT_TRUE(number == static_cast<int64_t>(bytes.size()) || status != kOk || bytes.empty());
}

void World::shut(const Words& words) {
  ItemHandle* raw = handle(words[1]);
  if (raw == nullptr) return skip();
  number = raw->item->close(raw);
  if (number == 0) handles_.erase(words[1]);
}

// Puts or gets.
void World::useWhole(const Words& words) {
  openItem({"item", "~", words[1], words[0] == "put" ? "UC" : "R"});
  if (status != kOk) return;
  if (words[0] == "put") {
    write({"write", "~", words[2]});
  } else {
    read({"read", "~", std::to_string(handle("~")->item->size)});
  }
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

void World::tree(const Words& words) {
  if (find(words[1]) == nullptr) return skip();
  const Sizes sizes = contents(words[1]);
  EXPECT_TRUE(!isStrict_ || sizes == now_[words[1]]) << testing::PrintToString(sizes);
  status = kOk;
}

Sizes World::contents(const std::string& ref) {
  Sizes sizes;
  const Store* store = find(ref);
  if (store == nullptr) return sizes;
  for (Member* member : chained(store->members)) {
    const std::string inside = ref + ":" + narrow(member);
    if (member->kind == kStoreKind) {
      sizes[pathOf(asStore(member)) + "."] = 0;
      sizes.merge(contents(inside));
    } else {
      useWhole({"get", inside});
      const bool isRead = status == kOk || status == kEndOfItem;
      sizes[pathOf(asItem(member))] = isRead ? static_cast<int32_t>(number) : status;
    }
  }
  return sizes;
}

}  // namespace hx::fake
