// What a store of a stranger, or one that is too large, may do by the command.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <hxcrate/crate.hpp>
#include <thread>
#include <vector>

#include "file/format.h"
#include "tests/command_fixture.h"

namespace {

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::writeFile;

class StrangerStoreTest : public hxtest::CommandFixture {};

TEST_F(StrangerStoreTest, PlantsNoJournal) {
  writeFile(directory_ / "a/text", "text");
  expectRun(0, "hxcrate pack docs.st a; mkdir both alone; cp docs.st both");
  writeFile(directory_ / "both/docs.st-journal", "evil");
  writeFile(directory_ / "both/text-journal", "mine");
  writeFile(directory_ / "both/text", "text");
  writeFile(directory_ / "alone/docs.st-journal", "evil");
  expectRun(0, "hxcrate pack both.st both; hxcrate pack alone.st alone");
  const std::string refusal =
      ".st: docs.st-journal: would be taken for the journal of the store beside it; "
      "--journals unpacks it\n";
  for (const std::string dryRun : {" --dry-run", ""}) {
    expectRun(5, "hxcrate unpack both.st out" + dryRun);
    expectSaid("hxcrate: both" + refusal);
  }
  expectPrinted(0, "ls out", "docs.st\ntext\ntext-journal\n");
  expectPrinted(5, "hxcrate unpack alone.st out", "", "hxcrate: alone" + refusal);
  expectRun(0, "rm -r out; hxcrate unpack alone.st out; hxcrate unpack --journals both.st all");
  expectPrinted(0, "diff -r both all", "");
}

TEST_F(StrangerStoreTest, MakesNoMoreOfItThanTheFileHas) {
  for (const char* name : {"a", "b", "c"})
    writeFile(directory_ / ("in/" + std::string(name)), makeBytes(name[0] == 'a' ? 100000 : 5000));
  expectRun(0, "hxcrate pack --page-size 4096 x.st in; hxcrate copy x.st fine.st");
  std::string file = readFile(directory_ / "x.st");
  const auto linkOf = [&](char name) {
    const std::size_t at = file.find(name + std::string(63, '\0'));
    return file.begin() + static_cast<std::ptrdiff_t>(at - 32 + offsetof(hx::Entry, firstLink));
  };
  for (const char name : {'b', 'c'})
    std::copy_n(linkOf('a'), sizeof(std::int64_t), linkOf(name));
  writeFile(directory_ / "x.st", file);
  const std::string damage = "hxcrate: x.st: its items have more bytes than the file's " +
                             std::to_string(file.size()) + ", so they share pages";
  expectPrinted(1, "hxcrate unpack x.st out", "", damage + "; --max-bytes allows it\n");
  expectPrinted(1, "hxcrate copy x.st y.st", "", damage + "; --max-bytes allows it\n");
  expectPrinted(1, "hxcrate ls -l x.st", "    100000  a\n         ?  b\n         ?  c\n",
                damage + "\n");
  expectRun(1, "hxcrate tree x.st");
  expectPrinted(1, "hxcrate diff --json x.st x.st",
                R"({"first": "x.st", "second": "x.st", "differences": []})"
                "\n",
                damage + "\n");
  expectRun(3, "hxcrate copy --max-bytes 299999 x.st y.st");
  expectPrinted(0,
                "hxcrate copy --max-bytes 300000 x.st y.st; "
                "hxcrate unpack --max-bytes 300000 x.st out; cmp out/a out/c; ls",
                "fine.st\nin\nout\nx.st\ny.st\n");
}

// Its name leads to another file by turns, as it does when a writer replaces it; a file goes.
TEST_F(StrangerStoreTest, MeasuresItByTheFileThatWasOpened) {
  writeFile(directory_ / "a/1", "");
  writeFile(directory_ / "b/2", makeBytes(100000));
  writeFile(directory_ / "c/3", "");
  expectRun(0, "hxcrate pack a.st a; hxcrate pack b.st b");
  std::atomic<bool> isOver = false;
  std::thread other([&] {
    for (int i = 0; !isOver; ++i) {
      ::renameat2(AT_FDCWD, (directory_ / "a.st").c_str(), AT_FDCWD, (directory_ / "b.st").c_str(),
                  RENAME_EXCHANGE);
      std::rename((directory_ / (i % 2 ? "c/4" : "c/3")).c_str(),
                  (directory_ / (i % 2 ? "c/3" : "c/4")).c_str());
    }
  });
  expectRun(
      0,
      "for i in $(seq 20); do for c in 'ls -l' tree sum export 'diff c'; do hxcrate $c a.st; done; "
      "for c in copy salvage unpack; do hxcrate $c a.st new; rm -rf new; done; done || :");
  isOver = true;
  other.join();
  EXPECT_EQ(err_.find("share pages"), std::string::npos) << err_;
  EXPECT_EQ(err_.find("c/"), std::string::npos) << err_;
}

TEST_F(StrangerStoreTest, HidesNoMemberBehindAnother) {
  writeFile(directory_ / "a/itemBBX", "1");
  writeFile(directory_ / "a/storeBB/x", "2");
  expectRun(0, "hxcrate pack s.st a; sed s,itemBBX,storeBB, s.st >x.st");
  for (const std::string words : {"ls x.st", "sum x.st", "unpack x.st o", "copy x.st y.st",
                                  "export x.st e.tar", "diff x.st y.st", "check x.st"})
    expectRun(1, "hxcrate " + words);
  expectPrinted(0, "hxcrate salvage x.st z.st >l 2>&1; hxcrate cat z.st storeBB storeBB~2/x", "12");
  expectRun(1, "sed s,itemBBX,ite/BBX, s.st >x.st; hxcrate check x.st");
}

TEST_F(StrangerStoreTest, ReplacesNothingThatWasJustMade) {
  for (const std::string path : {"a/a/x", "a/b/x", "o/x"})
    writeFile(directory_ / path, path);
  expectPrinted(5, "hxcrate pack x.st a; hxcrate unpack --overwrite --strip-components 1 x.st o",
                "", "hxcrate: o/x: was made of another item just now\n");
  EXPECT_EQ(readFile(directory_ / "o/x"), "a/a/x");
}

TEST_F(StrangerStoreTest, FillsNoDisk) {
  {
    hxcrate::Session session;
    hxcrate::Store store = session.open(directory_ / "x.st", hxcrate::Mode::create);
    for (int i = 0; i < 20000; ++i)
      store.create(std::to_string(i)).write("1");
    store.close();
  }
  for (const std::string words : {"copy --page-size 2147483647 x.st y.st",
                                  "copy --page-size 2147483647 --dry-run x.st y.st"}) {
    expectRun(3, "hxcrate " + words);
    expectSaid("hxcrate: y.st: 42949675340136 bytes would be written, and there is room for ");
  }
  expectPrinted(0, "ls", "x.st\n");
  if (::geteuid() != 0) GTEST_SKIP() << "takes a small disk";
  const std::string small = "mkdir small; unshare -m sh -c 'mount -t tmpfs -o size=1m none small; ";
  expectRun(3, small + "hxcrate unpack x.st small/out'");
  expectSaid("No space left on device\n");
  EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1);
  writeFile(directory_ / "in/a", makeBytes(2'000'000));
  expectPrinted(
      3,
      "rmdir small; hxcrate pack big.st in; " + small +
          "hxcrate unpack big.st small/out; r=$?; ls small; exit $r'",
      "", "hxcrate: small/out: 2000000 bytes would be written, and there is room for 1048576\n");
}

}  // namespace
