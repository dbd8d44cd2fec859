#include "tests/fuzzed.h"

#include <algorithm>
#include <deque>

#include "records/name.h"
#include "tests/module_world.h"

namespace hx::fake {
namespace {

// ---- images

// Hostile trees may share one chain of pages between all their items, so that reading everything
// takes the product of both; what is looked at is bounded here, the same on both sides.
constexpr int kMostItems = 400;
constexpr int64_t kMostBytes = 1 << 20;

// A page buffer that the fuzzer's memory limit allows.
constexpr int32_t kLargestPage = 1 << 24;

// Besides what is read, a record in memory takes below ten times its ENTRY, and its name four
// times.
void expectLittleWork(const World& w, uint64_t imageSize, uint64_t mostReads, uint64_t pageBytes) {
  EXPECT_LE(static_cast<uint64_t>(w.host.count("read")), mostReads) << "too much work";
  EXPECT_LE(w.host.mostBytes, 16 * imageSize + 8192 + pageBytes);
  for (const auto& [what, offset, length] : w.host.events) {
    const bool isInside = offset + length <= static_cast<int64_t>(imageSize);
    EXPECT_TRUE(isInside || offset < kHeaderSize) << what << " at " << offset;
  }
}

// Everything that can be seen of an item: how its open went, its bytes and how reading ended.
std::string readItem(World& w, Store* store, const Member* member, uint64_t imageSize) {
  w.host.events.clear();
  ItemHandle* handle =
      w.instance->openItem(w.instance, store, member->name, member->nameLength, kRead, &w.status);
  if (handle == nullptr) return "open " + std::to_string(w.status);
  std::string bytes(static_cast<size_t>(std::min<int64_t>(handle->item->size, kMostBytes)), 0);
  const auto length = static_cast<int32_t>(bytes.size());
  bytes.resize(handle->item->read(handle, bytes.data(), length, nullptr, &w.status));
  EXPECT_EQ(handle->item->close(handle), 0);
  // A page is at least a record and a byte; walked once, then read as record and bytes.
  expectLittleWork(w, imageSize, 3 * (imageSize / (kChunkSize + 1)) + 4,
                   3 * static_cast<uint64_t>(store->root->pageSize));
  return "read " + std::to_string(w.status) + " " + bytes;
}

// Compares two trees member by member. Neither is walked by recursion: they may be deep.
void expectSameTree(World& a, Store* topOfA, World& b, Store* topOfB, uint64_t imageSize) {
  std::deque<std::pair<Store*, Store*>> stores = {{topOfA, topOfB}};
  int items = 0;
  for (; !stores.empty(); stores.pop_front()) {
    const auto [inA, inB] = stores.front();
    const std::vector<Member*> members = chained(inA->members);
    const std::vector<Member*> others = chained(inB->members);
    ASSERT_EQ(members.size(), others.size());
    for (size_t i = 0; i < members.size(); ++i) {
      ASSERT_TRUE(equalNames(nameOf(members[i]), nameOf(others[i])));
      ASSERT_EQ(members[i]->kind, others[i]->kind);
      if (members[i]->kind == kStoreKind) {
        stores.emplace_back(asStore(members[i]), asStore(others[i]));
      } else if (++items <= kMostItems) {
        ASSERT_EQ(readItem(a, inA, members[i], imageSize), readItem(b, inB, others[i], imageSize));
      }
    }
  }
}

// ---- sequences of operations

// A number below 64 chooses one, so that small changes of a byte are small changes of the sequence.
const Words kOperations = {
    "write x:I N", "write x:I N", "write x:I N", "read x:I", "read x:I", "item H x:I A",
    "item H x:I A", "item H x:I A", "write H N", "write H N", "write H N", "read H N", "read H N",
    "read H N", "shut H", "shut H", "open x:S A", "open x:S A", "close x:S", "list x", "list x:S",
    "shut H", "write x:I N", "read x:I",
    // From here on in the second life only.
    "fail K F", "fail K F", "fail K F", "fail K F onwards", "heal", "close x", "close x",
    "open x T", "open x T", "open x T", "open x U", "delete x", "open m UCN", "open m T",
    "write m:I N", "close m", "delete m", "blob m B", "load B R", "read B:I", "close B",
    "item H B:I R", "copy y x", "open y T", "write y:I N", "close y", "foreign f x", "open f R",
    "read f:I", "convert H N", "close f", "list f", "grow y 1", "copy y x", "open x R", "open x U",
    "item H f:I R", "item H :x/I A", "pagesize m N", "blob x B"};
constexpr size_t kCommon = 24;

const std::map<char, Words> kChoices = {{'I', {"a", "b", "n/c", "n/d", "n/o/e", "y", "", "n"}},
                                        {'S', {"n", "n/o", "e", "a"}},
                                        {'H', {"h", "i", "j"}},
                                        {'A', {"R", "UC", "U", "UCX", "-", "RX", "C", "RU"}},
                                        {'T', {"R", "U", "UC", "UCP", "UN", "UCN", "-", "RX"}},
                                        {'N', {"5", "0", "1", "15", "16", "17", "64", "100"}},
                                        {'K',
                                         {"allocate", "lock", "read", "write", "seek", "open",
                                          "remove", "close", "make", "measure", "convert"}},
                                        {'F', {"1", "2", "3", "5", "8"}}};

// The statement of an operation, with the capitals that stand for something chosen by `choice`.
std::string statementOf(const std::string& operation, size_t choice) {
  std::string statement;
  for (size_t i = 0; i < operation.size(); ++i) {
    const bool begins = i > 0 && std::string(" :/").find(operation[i - 1]) != std::string::npos;
    const bool ends = i + 1 == operation.size() || operation[i + 1] == ' ';
    const auto found = kChoices.find(operation[i]);
    if (found == kChoices.end() || !begins || !ends) {
      statement += operation[i];
      continue;
    }
    statement += found->second[choice % found->second.size()];
    choice = choice / found->second.size() + choice;
  }
  return statement;
}

// What a statement came to, without the order of a list and the openers of a store, which differ.
std::string outcomeIn(World& w, const std::string& statement) {
  w.tryToRun(statement);
  const bool isCount = statement[0] != 'o' && statement[0] != 'c';
  return std::to_string(w.status) + " " + std::to_string(isCount ? w.number : 0);
}

void liveThrice(const Words& statements, const std::string& page) {
  World file, memory, reopened;
  file.run("open x UC" + page);
  memory.run("open x UCN" + page);
  reopened.run("open x UC" + page);
  for (const std::string& statement : statements) {
    SCOPED_TRACE(statement);
    const std::string outcome = outcomeIn(file, statement);
    ASSERT_EQ(outcomeIn(memory, statement), outcome) << "in memory";
    ASSERT_EQ(outcomeIn(reopened, statement), outcome) << "loaded anew";
    if (reopened.handles.empty()) reopened.run("restart; open x U");
  }
  memory.closeAll();
  memory.run("tree x; blob x B; load B R; tree B");
  file.settle();
  reopened.settle();
}

}  // namespace

void expectAgreement(std::span<const uint8_t> image) {
  const Disk disk = {{"x", Bytes(image.begin(), image.end())}};
  World onFile(disk), inBlob;
  Store* file = onFile.openStore(nullptr, U"x", "R");
  expectLittleWork(onFile, image.size(), 2 * (image.size() / kEntrySize) + 4, 0);
  Store* blob = inBlob.openBlob(image.data(), image.size(), U"x");
  expectLittleWork(inBlob, image.size(), 0, 0);
  const bool isReadable = file != nullptr && file->pageSize <= kLargestPage;
  if (isReadable && blob != nullptr) {
    EXPECT_EQ(onFile.status, kOk);
    expectSameTree(onFile, file, inBlob, blob, image.size());
  } else if (image.size() < sizeof(Header)) {
    EXPECT_TRUE(onFile.status == kNotFound && inBlob.status == kUnreadable);
  } else {
    // A file whose directory is damaged opens in part, a blob does not. What the part holds is
    // read against itself.
    EXPECT_EQ(onFile.status, inBlob.status);
    if (isReadable) expectSameTree(onFile, file, onFile, file, image.size());
  }
  if (blob != nullptr) blob->closeStore(blob);
  if (!isReadable) return;
  // Whatever can be opened for update is written to; what can't stays as it is.
  World w(disk);
  w.tryToRun(
      "open x U; list x; write x:three 50; write x:new 50; write x:n/full 1; open x:deep UC");
  const bool isOpen = w.find("x") != nullptr;
  w.closeAll();
  EXPECT_TRUE(isOpen || w.host.files == disk);
}

void expectSoundLife(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  const std::string page = "; pagesize x " + kChoices.at('N')[2 + bytes[0] % 6];
  Words common;
  std::string all;
  for (size_t i = 1; i + 1 < bytes.size() && i < 200; i += 2) {
    const size_t chosen = bytes[i] % kOperations.size();
    const std::string statement = statementOf(kOperations[chosen], bytes[i + 1]);
    if (chosen < kCommon) common.push_back(statement);
    all += statement + ";";
  }
  liveThrice(common, page);
  if (testing::Test::HasFailure()) return;
  SCOPED_TRACE(all);
  World w;
  w.run("open x UC" + page);
  w.tryToRun(all);
  w.settle();
}

}  // namespace hx::fake
