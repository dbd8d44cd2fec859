#include "tests/module_world.h"

#include <algorithm>
#include <sstream>

#include "store/close_store.h"
#include "store/name.h"

namespace hx::fake {

namespace {

constexpr int32_t kSkipped = 1;

Member* named(const MemberTable& table, const std::string& name) {
  for (Member* member : chained(table)) {
    if (narrow(member) == name) return member;
  }
  return nullptr;
}

bool isBlobName(const std::string& name) {
  return name[0] >= 'A' && name[0] <= 'Z';
}

}  // namespace

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

std::u32string widen(const std::string& word) {
  std::u32string name;
  for (size_t i = 0; i < word.size(); ++i) {
    if (word[i] != '*') {
      name += static_cast<unsigned char>(word[i]);
      continue;
    }
    size_t digits = 0;
    const int times = std::stoi(word.substr(i + 1), &digits);
    name.append(static_cast<size_t>(times - 1), name.back());
    i += digits;
  }
  return name;
}

// ---- the instance

World::World(const Disk& disk, bool knowsEncodings) {
  host.setDisk(disk);
  host.knowsEncodings = knowsEncodings;
  hxmodent(&host);
  instance = hx::hxcrate();
}

World::~World() {
  host.stopFailing();
  host.removeResult = 0;
  closeAll();
  for (Member* member : chained(instance->stores))
    hxcrateCloseAndDeleteStore(asStore(member));
  EXPECT_EQ(blocks(), instance->storeIndex.slots == nullptr ? 1 : 2) << "records are left";
  EXPECT_EQ(host.liveConverters, 0);
  instance->destroy(instance);
}

void World::closeAll() {
  while (!handles_.empty())
    step("shut " + handles_.back().name, false);
  while (!blobStores_.empty())
    step("close " + blobStores_.begin()->first, false);
  for (Member* member : chained(instance->stores)) {
    while (asStore(member)->openCount != 0)
      closeStore({"close", narrow(member)});
  }
}

void World::settle(bool comparesTrees) {
  host.stopFailing();
  host.longestRead = INT64_MAX;
  host.removeResult = 0;
  closeAll();
  for (const auto& [path, sizes] : std::map(saved_)) {
    SCOPED_TRACE("in the end, " + path);
    ASSERT_TRUE(host.hasFile(path));
    World other({{path, host.file(path)}});
    const Store* store = other.open(path, "R");
    if (store != nullptr && !isForeign(store)) checkImage(host.file(path));
    EXPECT_EQ(other.contents(other.find(path)), sizes) << "as a new instance sees it";
    if (comparesTrees) run("open " + path + " R; tree " + path);
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

Store* World::open(const std::string& ref, const std::string& flags) {
  run("open " + ref + " " + flags);
  return find(ref);
}

ItemHandle* World::handle(const std::string& name) {
  for (const Handle& known : handles_) {
    if (known.name == name) return known.raw;
  }
  return nullptr;
}

Bytes& World::image(const std::string& name) {
  return isBlobName(name) ? blobs_[name] : host.file(name);
}

void World::check() const {
  checkIndex(instance->stores, instance->storeIndex);
  for (Member* member : chained(instance->stores))
    checkTree(asStore(member), handles_);
  for (const auto& [name, store] : blobStores_)
    checkTree(store, handles_);
}

// ---- scripts

const std::map<std::string, World::Verb> World::kVerbs = {
    {"open", &World::openStore}, {"close", &World::closeStore}, {"delete", &World::deleteStore},
    {"item", &World::openItem},  {"write", &World::write},      {"read", &World::read},
    {"convert", &World::read},   {"shut", &World::shut},        {"put", &World::put},
    {"get", &World::get},        {"list", &World::list},        {"tree", &World::tree},
    {"blob", &World::makeBlob},  {"load", &World::loadBlob},    {"copy", &World::copy},
    {"foreign", &World::copy},   {"size", &World::ask},         {"pages", &World::ask},
    {"count", &World::ask},      {"page", &World::arrange},     {"grow", &World::arrange},
    {"mark", &World::arrange},   {"fail", &World::arrange},     {"heal", &World::arrange},
    {"refuse", &World::arrange}, {"restart", &World::arrange},  {"set", &World::arrange},
    {"deliver", &World::arrange}};

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
  words.resize(std::max<size_t>(words.size(), 5));
  isStrict_ = isStrict;
  const bool hadFailed = host.fired() != 0;
  status = kOk;
  number = 0;
  (this->*kVerbs.at(words[0]))(words);
  if (!hadFailed && host.fired() != 0) firstOutcome = status;
  const bool isDocumented =
      status <= kSkipped && (status >= kPageSizeFixed || status < -2134906850);
  EXPECT_TRUE(isDocumented) << status;
  if (isStrict) {
    EXPECT_EQ(status, wantedStatus);
    EXPECT_EQ(number, wantedNumber.value_or(number));
  }
  check();
}

// ---- stores

// What the model has to learn when a top-level store was opened, or was to be.
void World::noteOpening(const std::string& path, uint32_t flags, bool existed, bool succeeded) {
  const bool replaces = has(flags, kUpdate | kReplace);
  // The old file goes before the new store comes, whatever becomes of that.
  const bool isGone = succeeded || !host.hasFile(path) || host.file(path).empty();
  if (replaces && !has(flags, kNoFile) && isGone) {
    saved_.erase(path);
    unknown_.erase(path);
  }
  if (find(path) == nullptr) now_.erase(path);
  const bool isLoaded = !replaces && !has(flags, kNoFile);
  if (!succeeded || (existed && !replaces && !(isLoaded && stale_.count(path) != 0))) return;
  now_[path] = isLoaded && saved_.count(path) != 0 ? saved_[path] : Sizes();
  stale_.erase(path);
}

void World::openStore(const Words& words) {
  const size_t colon = words[1].rfind(':');
  const bool isTop = colon == std::string::npos;
  Store* parent = isTop ? nullptr : find(words[1].substr(0, colon));
  if (!isTop && parent == nullptr) return skip();
  const bool existed = find(words[1]) != nullptr;
  const std::u32string name = widen(isTop ? words[1] : words[1].substr(colon + 1));
  const uint32_t flags = flagsOf(words[2]);
  Store* store = instance->openStore(instance, parent, name.data(),
                                     static_cast<int32_t>(name.size()), flags, &status);
  EXPECT_TRUE(store != nullptr || status < kOk);
  if (isTop) noteOpening(words[1], flags, existed, store != nullptr);
  if (store == nullptr) return;
  number = store->openCount;
  if (!isTop) now_[narrow(store->root)].emplace(pathOf(store) + "/", 0);
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
  if (host.undone.count(ref) != 0)
    stale_.insert(ref);
  else if (unknown_.count(ref) == 0)
    saved_[ref] = now_[ref];
}

void World::deleteStore(const Words& words) {
  Store* store = find(words[1]);
  if (store == nullptr) return skip();
  const bool hadFile = store->hasHadFile;
  store->closeAndDeleteStore(store);
  if (forgetDropped(words[1], store)) {
    if (hadFile) saved_.erase(words[1]);
    if (hadFile && host.hasFile(words[1])) unknown_.insert(words[1]);
  } else {
    number = store->openCount;
  }
}

// Whether the store is no more, or only as long as its handles are open.
bool World::forgetDropped(const std::string& ref, const Store* store) {
  if (FakeHost::holds(instance->pool, store) && !store->condemned) return false;
  if (blobStores_.erase(ref) == 0) now_.erase(ref);
  return true;
}

void World::makeBlob(const Words& words) {
  Store* store = find(words[1]);
  Pool* pool = store == nullptr || !isQuiet(words[2]) ? nullptr : host.makePool();
  if (pool == nullptr) return skip();
  uint64_t size = 99;
  auto* made = static_cast<uint8_t*>(store->createBlobFromStore(store, &size, pool));
  EXPECT_EQ(FakeHost::blocksIn(pool), made == nullptr ? 0 : 1);
  if (made != nullptr) {
    blobs_[words[2]].assign(made, made + size);
    now_[words[2]] = now_[words[1]];
    checkImage(blobs_[words[2]]);
  }
  status = made == nullptr ? kNoMemory : kOk;
  number = static_cast<int64_t>(size);
  pool->head.destroy(pool);
}

void World::loadBlob(const Words& words) {
  if (blobs_.count(words[1]) == 0 || blobStores_.count(words[1]) != 0) return skip();
  const Bytes& blob = blobs_[words[1]];
  const std::u32string name = widen(words[1]);
  Store* store =
      instance->openStoreFromMemory(instance, blob.data(), blob.size(), name.data(),
                                    static_cast<int32_t>(name.size()), flagsOf(words[2]), &status);
  EXPECT_EQ(store == nullptr, status != kOk);
  if (store != nullptr) blobStores_[words[1]] = store;
}

// Whether nobody has the file or the blob open.
bool World::isQuiet(const std::string& name) {
  const Store* store = find(name);
  return store == nullptr ||
         (!isBlobName(name) && store->openCount == 0 && store->openHandles == 0);
}

void World::copy(const Words& words) {
  const auto& models = isBlobName(words[2]) ? now_ : saved_;
  const auto known = models.find(words[2]);
  const bool isSafe = known != models.end() && isQuiet(words[1]) && isQuiet(words[2]);
  if (!isStrict_ && !isSafe) return skip();
  const Bytes from = image(words[2]);
  image(words[1]) = words[0] == "copy" ? from : asBigEndian(from);
  if (known != models.end())
    (isBlobName(words[1]) ? now_ : saved_)[words[1]] = Sizes(known->second);
  if (!isBlobName(words[1])) stale_.insert(words[1]);
}

}  // namespace hx::fake
