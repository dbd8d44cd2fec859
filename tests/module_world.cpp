#include "tests/module_world.h"

#include "store/close_store.h"

namespace hx::fake {

namespace {

Member* named(const MemberTable& table, const std::string& name) {
  for (Member* member : chained(table)) {
    if (nameIn(member) == name) return member;
  }
  return nullptr;
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

}  // namespace

bool isBlobName(const std::string& name) {
  return name[0] >= 'A' && name[0] <= 'Z';
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

bool isForeign(const Store* store) {
  const EncodingId& own = store->extension->encodingId;
  return std::memcmp(&own, &store->encodingId, sizeof(own)) != 0;
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
  while (!handles.empty())
    tryToRun("shut " + handles.begin()->first);
  while (!blobStores.empty())
    tryToRun("close " + blobStores.begin()->first);
  for (Member* member : chained(instance->stores)) {
    while (asStore(member)->openCount != 0)
      kVerbs.at("close")(*this, {"close", nameIn(member)});
  }
  EXPECT_EQ(host.alive, host.knowsEncodings ? 4 : 3) << "converters are left";
}

void World::settle(bool comparesTrees) {
  closeAll();
  for (const auto& [path, sizes] : std::map(model.saved)) {
    if (isBlobName(path)) continue;
    SCOPED_TRACE("in the end, " + path);
    ASSERT_EQ(host.files.count(path), 1);
    World other({{path, image(path)}});
    other.run("open " + path + " R");
    if (!isForeign(other.find(path))) checkImage(image(path));
    EXPECT_EQ(other.contents(path), sizes) << "as a new instance sees it";
    if (!comparesTrees) continue;
    tryToRun("open " + path + " R");
    const bool keepsNews = status == kFileNotOpen && model.stale.count(path) != 0;
    if (keepsNews && holdsDirtyPages(find(path))) continue;
    EXPECT_EQ(status, kOk);
    run("tree " + path);
  }
}

Store* World::find(const std::string& path) const {
  if (const auto blob = blobStores.find(path); blob != blobStores.end()) return blob->second;
  Member* member = named(instance->stores, path);
  const size_t split = path.find_last_of(":/");
  if (member == nullptr && split != std::string::npos) {
    Store* parent = find(path.substr(0, split));
    if (parent != nullptr) member = named(parent->members, path.substr(split + 1));
  }
  return member != nullptr && member->kind == kStoreKind ? asStore(member) : nullptr;
}

ItemHandle* World::handle(const std::string& name) const {
  const auto found = handles.find(name);
  return found == handles.end() ? nullptr : found->second;
}

Bytes& World::image(const std::string& name) {
  return isBlobName(name) ? blobs[name] : host.files[name];
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

void World::run(const Script& script, bool strictly) {
  isStrict = strictly;
  for (const Statement& statement : script) {
    step(statement);
    if (isStrict && !isAsWritten(statement)) return;  // what comes behind would only follow from it
  }
}

void World::run(const std::string& script, const char* file, int line) {
  run(parse(script, file, line));
}

void World::tryToRun(const std::string& script, const char* file, int line) {
  run(parse(script, file, line), false);
}

void World::step(const Statement& statement) {
  const testing::ScopedTrace trace(statement.file.c_str(), statement.line, statement.text);
  const auto verb = kVerbs.find(statement.words[0]);
  ASSERT_NE(verb, kVerbs.end()) << "no such verb";
  const bool hadFailed = host.fired != 0;
  status = kOk;
  number = 0;
  names.clear();
  verb->second(*this, statement.words);
  if (!hadFailed && host.fired != 0) firstOutcome = status;
  EXPECT_TRUE(nameOfStatus(status) || status == kSkipped) << status;
  checkIndex(instance->stores, instance->storeIndex);
  for (Member* member : chained(instance->stores))
    checkTree(asStore(member), handles);
  for (const auto& [name, store] : blobStores)
    checkTree(store, handles);
}

bool World::isAsWritten(const Statement& statement) const {
  const int64_t wanted = statement.number.value_or(number);
  const bool isListed = statement.names.empty() || names == statement.names;
  if (status == statement.status && number == wanted && isListed) return true;
  const auto shown = [](int64_t count, int32_t outcome, const Words& listed) {
    std::string text = std::to_string(count) + " " + nameOfStatus(outcome).value_or("not begun");
    for (const std::string& name : listed)
      text += " " + name;
    return text;
  };
  ADD_FAILURE_AT(statement.file.c_str(), statement.line)
      << "  statement:" << statement.text
      << "\n  expected:  " << shown(wanted, statement.status, statement.names)
      << "\n  got:       " << shown(number, status, names);
  return false;
}

}  // namespace hx::fake
