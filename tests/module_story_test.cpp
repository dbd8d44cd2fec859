// What the module does, told in scripts (tests/module_world.h) that lie in tests/stories. A story
// begins with "# its name" and ends with all files compared with what they must hold. What stands
// above a line "--" comes before all stories of the file, or before the faults of one.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "tests/module_world.h"

namespace hx::fake {
namespace {

struct Story {
  std::string name;
  std::string before;
  std::string script;
};

std::vector<Story> storiesIn(const std::string& file) {
  std::ifstream stream(HX_SOURCE_DIR "/tests/stories/" + file);
  EXPECT_TRUE(stream.is_open()) << file;
  std::vector<Story> stories = {{}};
  for (std::string line; std::getline(stream, line);) {
    if (line[0] == '#') {
      stories.push_back({line.substr(2), stories[0].before, ""});
    } else if (line == "--") {
      stories.back().before += std::exchange(stories.back().script, "") + ";";
    } else {
      stories.back().script += line + "\n";
    }
  }
  stories.erase(stories.begin());
  return stories;
}

TEST(Stories, GoAsWritten) {
  for (const char* file :
       {"stores.txt", "items.txt", "blobs.txt", "foreign.txt", "damage.txt", "faults.txt"}) {
    for (const Story& story : storiesIn(file)) {
      SCOPED_TRACE(file + (": " + story.name));
      World w;
      w.run(story.before + ";" + story.script);
      w.settle();
    }
  }
}

// ---- every way to open stores and items

// Each in a world of its own. What fails leaves the disk and the stores on the way alone.
TEST(Stories, EveryWayToOpen) {
  const Story table = storiesIn("openings.txt")[0];
  std::istringstream lines(table.script);
  int openings = 0;
  for (std::string line; std::getline(lines, line);) {
    const size_t colon = line.find(" : ");
    std::istringstream outcomes(line.substr(colon + 3));
    for (std::string outcome; outcomes >> outcome; ++openings) {
      const size_t split = outcome.find_first_of("=!");
      const bool fails = outcome[split] == '!';
      World w;
      w.run(table.before);
      const Disk before = w.host.files;
      w.run(line.substr(0, colon) + " " + outcome.substr(0, split) + " " + outcome.substr(split));
      EXPECT_TRUE(!fails || w.status == kNotFound || w.host.files == before) << line;
      const bool isIt = line.find("open updating:e :") == 0 && !fails;
      EXPECT_EQ(w.find("updating:e")->openCount, isIt ? 2 : 1) << "a store on the way stays open";
    }
  }
  EXPECT_GT(openings, 100);
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
                                  {"short read", {kEndOfItem}, "short"},
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
  SCOPED_TRACE(testing::Message() << story.name << ": " << kind.name << " " << nth << " "
                                  << second);
  World w;
  w.run(story.before);
  w.host.fail(kind.faults, nth, second);
  w.tryToRun(story.script);
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

TEST(Faults, EveryCallFailsInTurn) {
  const std::vector<Story> stories = storiesIn("faults.txt");
  std::printf("%-11s", "");
  for (const Story& story : stories)
    std::printf("%9s", story.name.c_str());
  std::printf("%9s\n", "all");
  int all = 0;
  for (const Kind& kind : kKinds) {
    int sum = 0;
    std::printf("%-11s", kind.name.c_str());
    for (const Story& story : stories) {
      const int failed = failEachInTurn(story, kind);
      if (HasFailure()) return;
      std::printf("%9d", failed);
      sum += failed;
    }
    std::printf("%9d\n", sum);
    EXPECT_GT(sum, 0) << kind.name;
    all += sum;
  }
  std::printf("%d faults\n", all);
}

// Every two calls of whatever kinds.
int failPairs(const Story& story) {
  const Kind any = {"any", {}, kAnyFault};
  int pairs = 0;
  for (int first = 1;; ++first) {
    for (int second = first + 1;; ++second, ++pairs) {
      const int fired = liveThrough(story, any, first, second);
      if (fired == 0 || testing::Test::HasFailure()) return pairs;
      if (fired == 1) break;
    }
  }
}

TEST(Faults, EveryTwoCallsOfTheShortestStoryFail) {
  EXPECT_GT(failPairs(storiesIn("faults.txt")[0]), 1000);
}

TEST(Faults, DISABLED_EveryTwoCallsOfEveryStoryFail) {
  int pairs = 0;
  for (const Story& story : storiesIn("faults.txt"))
    pairs += failPairs(story);
  std::cout << pairs << " pairs of faults\n";
}

}  // namespace
}  // namespace hx::fake
