#include "tests/fuzzed.h"

#include <gtest/gtest.h>

#include "tests/module_world.h"

namespace hx::fake {
namespace {

// A number below 64 chooses one, so that small changes of a byte are small changes of the sequence.
const Words kOperations = {
    "put x:I N", "put x:I N", "put x:I N", "get x:I", "get x:I", "item H x:I A", "item H x:I A",
    "item H x:I A", "write H N", "write H N", "write H N", "read H N", "read H N", "read H N",
    "shut H", "shut H", "open x:S A", "open x:S A", "close x:S", "list x", "list x:S", "shut H",
    "put x:I N", "get x:I",
    // From here on in the second life only.
    "fail K F", "fail K F", "fail K F", "fail K F *", "heal", "close x", "close x", "open x T",
    "open x T", "open x T", "open x U", "delete x", "open m UCN", "open m T", "put m:I N",
    "close m", "delete m", "blob m B", "load B R", "get B:I", "close B", "item H B:I R", "copy y x",
    "open y T", "put y:I N", "close y", "foreign f x", "open f R", "get f:I", "convert H N",
    "close f", "list f", "grow y 1", "copy y x", "open x R", "open x U", "item H f:I R",
    "item H :x/I A", "page m N", "blob x B"};
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
    if (!reopened.hasHandles()) reopened.run("restart; open x U");
  }
  memory.closeAll();
  memory.run("tree x; blob x B; load B R; tree B");
  file.settle();
  reopened.settle();
}

}  // namespace

void expectSoundLife(std::span<const uint8_t> bytes) {
  if (bytes.empty()) return;
  const std::string page = "; page x " + kChoices.at('N')[2 + bytes[0] % 6];
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
