// Every story in tests/stories is a test of its own, with its title for a name: `hx_tests
// --gtest_filter=Stories.AWriterStreams`. Those in faults.txt run under faults, too.
#include <gtest/gtest.h>

#include <cctype>
#include <functional>
#include <numeric>

#include "tests/module_world.h"

namespace hx::fake {
namespace {

// ---- as written

void goAsWritten(const Story& story) {
  World w;
  w.run(story.before);
  w.run(story.steps);
  if (!testing::Test::HasFailure()) w.settle();
}

// A statement of openings.txt is many: it ends in several flags, and has a world of its own for
// each. What fails leaves the disk and the stores on the way alone.
void openEveryWay(const Story& story) {
  for (const Statement& statement : story.steps) {
    const Words& words = statement.words;
    const size_t flags = words[0] == "item" ? 3 : 2;
    for (size_t i = flags; i < words.size() && !words[i].empty(); ++i) {
      SCOPED_TRACE("flags " + words[i]);
      World w;
      w.run(story.before);
      const Disk before = w.host.files;
      Statement one = statement;
      one.words[flags] = words[i];
      w.run(Script{one});
      EXPECT_TRUE(w.status == kOk || w.status == kNotFound || w.host.files == before);
      const bool isIt = words[0] == "open" && words[1] == "updating:e" && w.status == kOk;
      EXPECT_EQ(w.find("updating:e")->openCount, isIt ? 2 : 1) << "a store on the way stays open";
    }
  }
}

// ---- faults: the host's slots are the module's only way out, so every call of every one fails

struct Kind {
  std::string name;
  std::set<int32_t> statuses;  // of the statement in which the call failed, besides kOk; none: any
  std::string faults = name;
};

const std::set<int32_t> kUnusable = {kUnreadable, kFileNotOpen, kNotFound, kStoreInUse,
                                     HX_REMOVE_IO_ERROR};
const std::vector<Kind> kKinds = {{"allocate", {kNoMemory}},
                                  {"lock", {kNotLocked}},
                                  {"open", {kFileNotOpen, kNotFound}},
                                  {"read", kUnusable},
                                  {"short", {kEndOfItem}},
                                  {"seek", kUnusable},
                                  {"write", {}},
                                  {"remove", {HX_REMOVE_IO_ERROR}},
                                  {"close", {}},
                                  {"make", {kUnreadable, kNoMemory}},
                                  {"record", {kUnreadable, kNotFound}},
                                  {"measure", {kNoMemory}},
                                  {"convert", {kNoMemory}},
                                  {"file", kUnusable, kFileFaults}};

// One life under one fault or more; how many calls failed.
int liveThrough(const Story& story, const Kind& kind, int nth, int second) {
  SCOPED_TRACE(testing::Message() << kind.name << " " << nth << " " << second);
  World w;
  w.run(story.before);
  w.host.fail(kind.faults, nth, second);
  w.run(story.steps, false);
  const int fired = w.host.fired;
  const int32_t outcome = w.firstOutcome.value_or(kOk);
  const bool isDocumented = kind.statuses.empty() || kind.statuses.count(outcome) != 0;
  EXPECT_TRUE(outcome == kOk || isDocumented) << outcome;
  // A record that the host did not convert can't be told from another: the tree may be wrong.
  w.settle(kind.faults.find("record") == std::string::npos);
  return fired;
}

// The call fails alone, then with all after it; n = 1, 2, 3 ... until a run in which none failed.
int failEachInTurn(const Story& story, const Kind& kind) {
  int failed = 0;
  for (const int second : {0, kAllAfter}) {
    for (int nth = 1; liveThrough(story, kind, nth, second) != 0; ++nth, ++failed) {
      if (testing::Test::HasFailure()) return failed;
    }
  }
  return failed;
}

// Prints how often what failed: a row for each story that runs, and their sums.
class Faults : public testing::Test {
 public:
  static void SetUpTestSuite() {
    std::printf("%-10s", "");
    for (const Kind& kind : kKinds)
      std::printf("%9s", kind.name.c_str());
    std::printf("%9s\n", "all");
  }

  static void TearDownTestSuite() {
    printRow("all", sums_);
    std::printf("%d pairs\n", pairs_);
  }

  static void failEveryCall(const Story& story) {
    std::vector<int> row;
    sums_.resize(kKinds.size());
    for (size_t i = 0; i < kKinds.size() && !HasFailure(); ++i) {
      row.push_back(failEachInTurn(story, kKinds[i]));
      sums_[i] += row.back();
    }
    printRow(story.title, row);
  }

  // Every two calls of whatever kinds.
  static void failPairs(const Story& story) {
    const Kind any = {"any", {}, kAnyFault};
    for (int first = 1;; ++first) {
      for (int second = first + 1;; ++second, ++pairs_) {
        const int fired = liveThrough(story, any, first, second);
        if (fired == 0 || HasFailure()) return;
        if (fired == 1) break;
      }
    }
  }

 private:
  static void printRow(const std::string& name, const std::vector<int>& row) {
    std::printf("%-10s", name.c_str());
    for (const int failed : row)
      std::printf("%9d", failed);
    std::printf("%9d\n", std::accumulate(row.begin(), row.end(), 0));
  }

  static inline std::vector<int> sums_;
  static inline int pairs_ = 0;
};

TEST_F(Faults, EveryKindOfCallCanFail) {
  for (const Kind& kind : kKinds) {
    bool fired = false;
    for (const Story& story : storiesIn("faults.txt"))
      fired = fired || liveThrough(story, kind, 1, 0) != 0;
    EXPECT_TRUE(fired) << kind.name;
  }
}

// ---- the tests

template <typename Fixture>
struct Told : Fixture {
  explicit Told(std::function<void()> telling) : tell(std::move(telling)) {}
  void TestBody() override { tell(); }
  std::function<void()> tell;
};

// "A writer streams" is AWriterStreams.
std::string testNameOf(const std::string& title) {
  std::string name;
  bool begins = true;
  for (const char letter : title) {
    if (std::isalnum(static_cast<unsigned char>(letter)) != 0)
      name += begins ? static_cast<char>(std::toupper(letter)) : letter;
    begins = letter == ' ';
  }
  return name;
}

template <typename Fixture = testing::Test>
void add(const char* suite, const std::string& name, const Story& story,
         void (*tell)(const Story&)) {
  testing::RegisterTest(suite, name.c_str(), nullptr, nullptr, story.file.c_str(), story.line,
                        [=]() -> Fixture* { return new Told<Fixture>([=] { tell(story); }); });
}

bool addAll() {
  for (const char* file :
       {"stores.txt", "items.txt", "blobs.txt", "foreign.txt", "damage.txt", "faults.txt"}) {
    for (const Story& story : storiesIn(file))
      add("Stories", testNameOf(story.title), story, goAsWritten);
  }
  for (const Story& story : storiesIn("openings.txt"))
    add("Stories", testNameOf(story.title), story, openEveryWay);
  // Pairs take long: those of the first story, which is short, run always.
  std::string disabled;
  for (const Story& story : storiesIn("faults.txt")) {
    add<Faults>("Faults", testNameOf(story.title), story, Faults::failEveryCall);
    add<Faults>("Faults", disabled + testNameOf(story.title) + "Twice", story, Faults::failPairs);
    disabled = "DISABLED_";
  }
  return true;
}

const bool kAreAdded = addAll();

}  // namespace
}  // namespace hx::fake
