// The command: trees of files, stores and damage in, files, lines and exit codes out.

#include <algorithm>
#include <chrono>
#include <hxcrate/crate.hpp>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "tests/command_fixture.h"

namespace {

namespace fs = std::filesystem;

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::readTree;
using hxtest::writeFile;

// Goes before a command: it may do what the modes of files say and no more, though root runs it.
const std::string kObeying =
    ::geteuid() == 0 ? "setpriv --bounding-set=-dac_override,-dac_read_search " : "";

// Goes before a line: no file can grow past 100 blocks, as on a full disk.
const std::string kFullDisk = "ulimit -f 100; trap '' XFSZ; ";

class CommandTest : public hxtest::CommandFixture {
 protected:
  // A tree with every kind of name and length that can be kept.
  void makeTree() {
    for (const std::size_t length : {0u, 1u, 4095u, 4096u, 4097u, 300000u})
      writeFile(directory_ / ("in/sizes/" + std::to_string(length)), makeBytes(length));
    fs::create_directories(directory_ / "in/empty/emptier");
    const std::string longest(64, 'n');
    for (const std::string name :
         {"a b", "new\nline", "\xff\x80", "-l", "back\\slash", "co:lon", longest.c_str()})
      writeFile(directory_ / ("in/names/" + name + "/" + name), name);
  }

  // A store of items with these paths and, as bytes, their paths.
  void makeStore(const std::string& name, const std::vector<std::string>& paths) {
    hxcrate::Session session;
    hxcrate::Store store = session.open(directory_ / name, hxcrate::Mode::create);
    for (const std::string& path : paths)
      store.create(path, hxcrate::Parents::create).write(std::string_view(path));
    store.close();
  }
};

TEST_F(CommandTest, PacksAndUnpacksATree) {
  makeTree();
  std::uintmax_t smallest = 0;  // is what the page size chosen makes
  for (const std::string kind :
       {"", " --in-memory", " --page-size 1000", " --in-memory --page-size 7"}) {
    expectRun(0, "hxcrate pack --dry-run x:.st in" + kind);
    const std::string forecast = err_;
    expectPrinted(0, "hxcrate pack x:.st in" + kind + "; hxcrate unpack x:.st out; diff -r in out",
                  "");
    expectRun(0, "mkdir again; hxcrate pack again/x:.st out" + kind + "; cmp x:.st again/x:.st");
    const auto size = fs::file_size(directory_ / "x:.st");
    EXPECT_NE(forecast.find("a file of " + std::to_string(size) + " bytes"), std::string::npos);
    EXPECT_GE(size, smallest);
    if (smallest == 0) smallest = size;
    expectRun(0, "rm -r x:.st out again");
  }
  expectRun(0,
            "mkdir t; seq 2000 | split -a 3 -l 1 - t/; truncate -s 500M t/large;"
            "hxcrate pack --dry-run y.st t");
  EXPECT_GT(std::stoi(err_.substr(err_.rfind(' '))), 8000) << "of small items beside a large one";
}

TEST_F(CommandTest, NamesEverythingThatCanNotBeKeptAndPacksNothing) {
  const std::string tooLong(65, 'n');
  writeFile(directory_ / "in/fine", "fine");
  writeFile(directory_ / ("in/a/" + tooLong), "");
  writeFile(directory_ / ("in/" + tooLong + "/b"), "");
  expectRun(3, "truncate -s 2147483648 in/huge; hxcrate pack x.st in");
  for (const std::string& refused :
       {"in/a/" + tooLong + ": a name of 65 bytes", "in/" + tooLong + ": a name of 65 bytes",
        std::string("in/huge: 2147483648 bytes"), std::string("in: 3 entries can't be kept")})
    expectSaid("hxcrate: " + refused);
  expectPrinted(0, "ls", "in\n");
}

TEST_F(CommandTest, ReplacesAStoreOnlyWhenToldToAndOnlyByAWholeOne) {
  makeStore("x.st", {"old"});
  expectRun(0, "chmod 640 x.st; cp x.st before; mkdir in; >in/new");
  expectRun(3, "hxcrate pack --replace x.st /proc/sys/kernel/random");  // changes by being read
  expectSaid("it changed while it was packed");
  expectRun(3, "hxcrate pack --replace x.st absent");
  expectRun(4, "hxcrate pack --replace in in");
  expectPrinted(4, "cmp x.st before; hxcrate pack x.st in", "", "hxcrate: x.st: exists already\n");
  expectPrinted(0, "hxcrate pack --replace x.st in; stat -c %a x.st", "640\n");
  {
    hxcrate::Session session;
    hxcrate::Store inUse = session.open(directory_ / "x.st", hxcrate::Mode::update);
    expectRun(4, "hxcrate pack --replace x.st in");
    expectSaid("hxcrate: x.st: the store is in use");
    std::thread closing([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      inUse.close();
    });
    expectRun(0,
              "hxcrate pack --replace --wait 60 x.st in; hxcrate export --wait 60 x.st >t; rm t");
    closing.join();
  }
  for (const std::string words : {"pack n.st in", "copy x.st n.st", "salvage x.st n.st"}) {
    expectRun(4, "echo mine >n.st-journal; hxcrate " + words);
    expectSaid("hxcrate: n.st: ");
    expectPrinted(0, "! [ -e n.st ]; cat n.st-journal", "mine\n");
  }
  expectRun(0, "echo mine >x.st-journal; hxcrate salvage x.st s.st");
  expectRun(0, "rm x.st-journal s.st; ln x.st in/x.st; ln -s / in/root; mkfifo in/fifo");
  expectPrinted(5, "hxcrate pack --replace x.st in", "",
                "hxcrate: in/fifo: skipped: a FIFO\nhxcrate: in/root: skipped: a symbolic link\n"
                "hxcrate: in/x.st: skipped: the store\n");
}

TEST_F(CommandTest, LeavesNothingBehindWhenItFails) {
  writeFile(directory_ / "in/a", makeBytes(1000000));
  for (const std::string way : {"--replace", "--in-memory"}) {
    expectRun(3, kFullDisk + "hxcrate pack x.st in " + way);
    expectSaid("hxcrate: x.st: ");
    expectSaid("File too large");
  }
  expectRun(5, "hxcrate pack in/y.st in; " + kFullDisk + "hxcrate unpack in/y.st out");
  expectPrinted(0, "ls; ls out", "in\nout\n");
}

TEST_F(CommandTest, OverwritesOnlyWhenToldTo) {
  makeStore("x.st", {"..", "a", "d", "f/inner", "z"});
  std::map<std::string, std::string> expected = {
      {"a", "mine"}, {"d", "/"}, {"d/mine", "mine"}, {"f", "mine"}};
  for (const char* path : {"out/a", "out/f", "out/d/mine"})
    writeFile(directory_ / path, "mine");
  expected["z"] = "z";
  expectRun(5, "hxcrate unpack x.st out");
  expectSaid("hxcrate: x.st: ..: no file can have this name\nhxcrate: out/a: exists already\n");
  EXPECT_EQ(readTree(directory_ / "out"), expected);
  expected["a"] = "a";
  expectRun(5, "hxcrate unpack --overwrite x.st out");
  expectSaid("hxcrate: out/d: exists already and is no regular file\n");
  expectSaid("hxcrate: out/f: exists already and is no directory\n");
  EXPECT_EQ(readTree(directory_ / "out"), expected);
}

TEST_F(CommandTest, ListsMembersAndPrintsItems) {
  makeStore("x.st", {"b", "a/deep/item", "a/x", "c d"});
  const std::pair<const char*, std::string> cases[] = {
      {"ls -lR x.st a", "         -  deep/\n        11  deep/item\n         3  x\n"},
      {"ls x.st /a/x", "a/x\n"},
      {"ls x.st /", "a/\nb\nc d\n"},
      {"ls -lhr --sort size x.st", "         -  a/\n       1 B  b\n       3 B  c d\n"},
      {"ls --color always x.st", "\x1b[1;34ma\x1b[0m/\nb\nc d\n"},
      {"tree -d --ascii x.st",
       "x.st  18\n`-- a/  14\n    `-- deep/  11\n\n2 stores, 4 items, 18 bytes\n"},
      {"stat x.st a/x | sed -n '2p;/^all/p'",
       "path         a/x\nall of it              1144 bytes  100.0 %\n"},
      {"map x.st | tail -1",
       "        1144            11          1013        64           184  a/deep\n"},
      {"ls -0 x.st a/", std::string("deep/\0x\0", 8)},
      {"ls --json x.st a",
       "{\"store\": \"x.st\", \"path\": \"a\", \"members\": [\n"
       "{\"path\": \"deep\", \"kind\": \"store\"},\n"
       "{\"path\": \"x\", \"kind\": \"item\", \"size\": 3}]}\n"},
      {"tree --ascii x.st a/deep", "a/deep\n`-- item  11\n\n0 stores, 1 item, 11 bytes\n"},
      {"cat --offset 2 --length 4 x.st a/deep/item b a/x", "deepx"}};
  for (const auto& [words, out] : cases)
    expectPrinted(0, "hxcrate " + std::string(words), out);
}

TEST_F(CommandTest, UnpacksWhatIsAskedForAndNoMore) {
  makeStore("x.st", {"a/b/1", "a/b/22", "a/c", "ab", "z"});
  struct Case {
    int code;
    std::string words;
    const char* made;
  };
  const Case cases[] = {
      {0, "a/b z", "a a/b a/b/1 a/b/22 z "},
      {0, "a/b/1 a/b/1", "a a/b a/b/1 "},
      {4, "z absent", ""},
      {5, "--max-entries 3", "a a/b a/b/1 "},
      {0, "--max-entries 7 --max-bytes 17", "a a/b a/b/1 a/b/22 a/c ab z "},
      {5, "--max-bytes 16", "a a/b a/b/1 a/b/22 a/c ab "},
      {5, "--dry-run --max-bytes 16", ""},
  };
  for (const Case& test : cases) {
    expectRun(test.code, "rm -rf out; hxcrate unpack x.st out " + test.words);
    std::string made;
    for (const auto& [path, bytes] : readTree(directory_ / "out")) {
      made += path + " ";
      EXPECT_TRUE(bytes == path || bytes == "/") << path;
    }
    EXPECT_EQ(made, test.made) << test.words;
  }
  EXPECT_FALSE(fs::exists(directory_ / "out"));
}

// With and without --dry-run, before anything is read or made.
TEST_F(CommandTest, SaysAlikeThatItCanNotWrite) {
  if (std::system((kObeying + "true").c_str()) != 0) GTEST_SKIP() << "takes setpriv";
  makeStore("x.st", {"a", "d/b"});
  expectRun(0, "mkdir in out; >in/f; chmod 555 out; cp x.st out; chmod 444 out/x.st; chmod 555 .");
  for (const std::string words :
       {"pack n.st in", "pack --replace x.st in", "copy x.st n.st", "unpack x.st new",
        "unpack x.st out", "put x.st c in/f", "put n.st c in/f", "mkstore out/x.st c"}) {
    for (const std::string way : {"", " --dry-run"}) {
      expectRun(3, kObeying + "hxcrate " + words + way);
      EXPECT_NE(err_.find(": Permission denied\n"), std::string::npos) << words << way << err_;
      EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), 1) << err_;
    }
  }
  expectRun(5, "chmod 755 . out; mkdir out/d; chmod 555 out/d; " + kObeying +
                   "hxcrate unpack --dry-run x.st out");
  expectSaid("hxcrate: out/d/b: create: Permission denied\n");
  hxcrate::Session session;
  const hxcrate::Store reader = session.open(directory_ / "x.st");
  expectRun(4, "hxcrate mkstore --dry-run x.st c");
}

TEST_F(CommandTest, ADamagedItemKeepsNoOtherFromBeingRead) {
  const std::string bytes = makeBytes(10000);
  writeFile(directory_ / "in/f", bytes);
  writeFile(directory_ / "in/g", "fine");
  expectRun(0, "hxcrate pack --page-size 4096 x.st in");
  std::string store = readFile(directory_ / "x.st");
  std::fill_n(&store[store.find(bytes.substr(0, 4096)) + 4096], 24, '\xff');
  writeFile(directory_ / "x.st", store);
  const std::string damage = "hxcrate: x.st: f: the store's data are damaged\n";
  expectPrinted(1, "hxcrate cat x.st f g", "fine", damage);
  expectPrinted(5, "hxcrate unpack x.st out f g", "", damage);
  expectPrinted(0, "ls out", "g\n");
  expectPrinted(1, "(cd in; sha256sum f g) >l; hxcrate sum --check l x.st", "",
                damage + "hxcrate: x.st: 1 item is as listed, 1 can't be read\n");
}

TEST_F(CommandTest, AddsToStoresWholeOrNotAtAll) {
  writeFile(directory_ / "file", "1234");
  writeFile(directory_ / "big", makeBytes(1000000));
  struct Case {
    int code;
    std::string line;
    const char* err = "";
  };
  const Case cases[] = {
      {4, "hxcrate put x.st a/b file", "hxcrate: x.st: a: no such store; -p makes it\n"},
      {0, "hxcrate put --dry-run -p x.st a/b", "hxcrate: x.st: a/b: would be written\n"},
      {3, "hxcrate put --dry-run x.st a absent",
       "hxcrate: absent: open: No such file or directory\n"},
      {3, "hxcrate put --dry-run x.st a .", "hxcrate: .: read: Is a directory\n"},
      {3, "hxcrate put --dry-run x.st a <&-",
       "hxcrate: standard input: read: Bad file descriptor\n"},
      {4, "hxcrate put x.st a/ file",
       "hxcrate: x.st: a/: no item's name ends in a slash; mkstore makes stores\n"},
      {4, "hxcrate put --dry-run -p x.st a//b file",
       "hxcrate: x.st: a//b: the name can't be kept (component 2 is empty)\n"},
      {0, "hxcrate put -p x.st a/b file", "hxcrate: x.st: a new store was made\n"},
      {4, "hxcrate put x.st a/b", "hxcrate: x.st: a/b: exists already; --append adds to it\n"},
      {4, "hxcrate put --append x.st a", "hxcrate: x.st: a: is a store\n"},
      {4, "hxcrate put --dry-run -p x.st a/b/c/d file", "hxcrate: x.st: a/b: is an item\n"},
      {4, "hxcrate put --dry-run x.st b/c/d file",
       "hxcrate: x.st: b: no such store; -p makes it\n"},
      {0, "cp x.st before; hxcrate put --dry-run x.st c file 2>/dev/null; cmp x.st before"},
      {4, "hxcrate put -p x.st a/b/c file", "hxcrate: x.st: a/b: is an item\n"},
      {4, "hxcrate mkstore x.st a/b/c", "hxcrate: x.st: a/b: is an item\n"},
      {0, "hxcrate put --append x.st a/b - <file"},
      {0, "cat file file | hxcrate put x.st piped"},
      {0, ">y.st; hxcrate put y.st a file; hxcrate ls y.st >/dev/null"},
      {0, "hxcrate put x.st proc /proc/self/comm"},  // has bytes though its size is 0
      {3, "hxcrate put x.st c absent", "hxcrate: absent: open: No such file or directory\n"},
      {3, kFullDisk + "hxcrate put x.st c big 2>/dev/null"},
      {3, "hxcrate put x.st c /sys/devices/system/cpu/online",
       "hxcrate: /sys/devices/system/cpu/online: it became shorter while it was read\n"},
      {3, "hxcrate put x.st c <&-", "hxcrate: standard input: read: Bad file descriptor\n"},
      {0,
       "for i in $(seq 9); do echo $i | hxcrate put --append --wait 60 z.st a 2>/dev/null & done; "
       "wait; [ $(hxcrate cat z.st a | sort | tr -d '\\n') = 123456789 ]"},
      {0, "hxcrate mkstore x.st s"},
      {4, "hxcrate mkstore x.st s", "hxcrate: x.st: s: exists already\n"},
      {0, "hxcrate mkstore -p x.st s/t/u"},
      {0, "hxcrate mkstore -p x.st s/t/u"},
      {4, "hxcrate mkstore -p x.st a/b", "hxcrate: x.st: a/b: is an item\n"},
  };
  for (const Case& test : cases)
    expectPrinted(test.code, test.line, "", test.err);
  expectPrinted(0, "hxcrate ls -lR x.st",
                "         -  a/\n         8  a/b\n         8  piped\n"
                "         8  proc\n"
                "         -  s/\n         -  s/t/\n         -  s/t/u/\n");
}

// The journal of an update that was cut off can be read by whom the store can be, and whoever looks
// at the store next, be it check, finds it as it was.
TEST_F(CommandTest, UndoesAnUnfinishedUpdateBeforeItLooks) {
  makeStore("x.st", {"a"});
  expectRun(0, "chmod 640 x.st; cp x.st before");
  const auto leaveUnfinished = [&] {
    hxcrate::Session session;
    hxcrate::Store store = session.open(directory_ / "x.st", hxcrate::Mode::update);
    hxcrate::Writer writer = store.create("b");
    writer.write(makeBytes(8000000));
    std::_Exit(0);
  };
  expectRun(0, "mkdir in after; cp before in; hxcrate pack after/x.st in");
  const std::pair<const char*, const char*> cases[] = {{"check x.st", "before"},
                                                       {"stat x.st", "before"},
                                                       {"map x.st", "before"},
                                                       {"ls x.st", "before"},
                                                       {"pack --replace x.st in", "after/x.st"}};
  for (const auto& [words, after] : cases) {
    EXPECT_EXIT(leaveUnfinished(), testing::ExitedWithCode(0), "");
    expectPrinted(1, "stat -c %a x.st-journal; cmp -s x.st before", "640\n");
    expectRun(0,
              std::string("hxcrate ") + words + "; cmp x.st " + after + "; ! [ -e x.st-journal ]");
  }
  EXPECT_EXIT(leaveUnfinished(), testing::ExitedWithCode(0), "");
  expectRun(4, ">x.st; hxcrate pack --replace x.st in");
  expectSaid("x.st-journal would belong to it");
}

TEST_F(CommandTest, CopiesAreTheSameWhateverTheHistory) {
  makeTree();
  makeStore("y.st", {"names/b.tmp", "names/tmp/c", "d.tmp"});
  expectPrinted(0,
                "cd in; find * -type d -exec hxcrate mkstore -p ../y.st {} ';' -o "
                "-exec hxcrate put -p ../y.st {} {} ';'",
                "");
  expectRun(0, "hxcrate copy --exclude '*.tmp' --exclude 'n*/tmp' y.st x.st");
  expectPrinted(0, "mkdir new; hxcrate pack new/x.st in; cmp x.st new/x.st", "");
  expectPrinted(0, "hxcrate copy --encoding hxmok1/be/utf-8 x.st be.st; hxcrate diff x.st be.st",
                "");
  expectPrinted(0, "mkdir back; hxcrate copy be.st back/x.st; cmp x.st back/x.st", "");
  for (const char* encoding : {"le", "be"}) {
    expectPrinted(0,
                  "hxcrate copy --for reading --encoding hxmok1/" + std::string(encoding) +
                      "/utf-8 x.st r.st; hxcrate check r.st 2>/dev/null; hxcrate unpack r.st r; "
                      "hxcrate diff r.st r; rm -r back/x.st r; hxcrate copy r.st back/x.st; "
                      "rm r.st; cmp x.st back/x.st",
                  "");
  }
  expectPrinted(4, "hxcrate copy y.st x.st", "", "hxcrate: x.st: exists already\n");
}

TEST_F(CommandTest, TellsHowStoresDiffer) {
  for (const std::string side : {"a", "b"}) {
    for (const std::size_t size : {0u, 7u, 4096u, 300000u})
      writeFile(directory_ / (side + "/same/" + std::to_string(size)), makeBytes(size));
    writeFile(directory_ / (side + "/late"), makeBytes(300000) + side);
    writeFile(directory_ / (side + "/longer"), side == "a" ? "12" : "123");
    writeFile(directory_ / (side + "/only-" + side + "/x"), "");
    writeFile(directory_ / (side + "/kind" + (side == "a" ? "" : "/x")), "");
  }
  expectRun(0, "hxcrate pack a.st a; hxcrate pack --page-size 77 b.st b");
  expectPrinted(
      1, "hxcrate diff a.st b.st",
      "kind differs: kind: an item and a store\ncontents differ: late: at byte 300000\n"
      "contents differ: longer: at byte 2\nonly in a.st: only-a/\nonly in b.st: only-b/\n");
  expectRun(0,
            "hxcrate diff a.st a; hxcrate diff --exclude only-b b b.st; ln -s x a/link; rm a/late");
  expectPrinted(1, "ln -s late a/late; mkfifo a/pipe; hxcrate diff a.st a",
                "kind differs: late: an item and no regular file\nonly in a: link\n"
                "only in a: pipe\n");
  expectPrinted(1, "hxcrate diff --include '*/x' a b.st",
                "only in b.st: kind/x\nonly in a: only-a/x\n"
                "only in b.st: only-b/x\n");
}

TEST_F(CommandTest, AnswersWithTheRightExitCode) {
  makeStore("x.st", {"a"});
  makeStore("damaged.st", {"a", "b", "c"});
  writeFile(directory_ / "text", "no store");
  expectRun(0, "truncate -s -100 damaged.st; mkdir dir; (printf xx; tail -c +3 x.st) >unknown");
  struct Case {
    int code;
    const char* words;
    const char* err = nullptr;  // null: any line, but after 0 none
  };
  const Case cases[] = {
      {2, "pack x.st", "hxcrate: DIR is required (see hxcrate pack --help)\n"},
      {2, "--nonsense"},
      {2, "pack --page-size 0 no.st dir"},
      {2, "pack --page-size 0x10 no.st dir",
       "hxcrate: --page-size: 0x10 is no number from 1 to 2147483647 "
       "(see hxcrate pack --help)\n"},
      {2, "cat --offset 9999999999999999999 x.st a"},
      {0, "cat --offset 010 x.st a"},
      {2, "salvage --encoding other unknown no.st"},
      {4, "cat x.st b", "hxcrate: x.st: b: not found\n"},
      {2, "ls x.st a z b", "hxcrate: unexpected: z b (see hxcrate ls --help)\n"},
      {2, "copy x.st -"},
      {4, "cat x.st /", "hxcrate: x.st: /: is a store\n"},
      {4, "ls absent", "hxcrate: absent: not found\n"},
      {4, "ls text", "hxcrate: text: not a store\n"},
      {4, "ls dir", "hxcrate: dir: the store's file does not open (open: Is a directory)\n"},
      {4, "salvage unknown no.st",
       "hxcrate: unknown: not an encoding that is known here (bytes 0 to 23); --encoding says "
       "which it "
       "is, known are hxmok1/le/utf-8 and hxmok1/be/utf-8\n"},
      {3, "pack no.st absent", "hxcrate: absent: open directory: No such file or directory\n"},
      {3, "unpack x.st text", "hxcrate: text: open directory: Not a directory\n"},
      {3, "ls x.st >/dev/full", "hxcrate: standard output: write: No space left on device\n"},
      {3, "cat x.st a >&-", "hxcrate: standard output: write: Bad file descriptor\n"},
      {3, "--help >&-", "hxcrate: standard output: write: Bad file descriptor\n"},
      {3, "map --svg x.st x.st"},
      {4, "map --svg x.st-journal x.st",
       "hxcrate: x.st-journal: would be taken for the journal of the store x.st beside it\n"},
      {4, "pack x.st-journal dir"},
      {4, "put x.st-journal a dir/../text"},
      {1, "ls damaged.st >/dev/null"},
      {1, "unpack damaged.st out"},
      {0, "salvage x.st new.st", "hxcrate: new.st: 1 item and 1 store were kept\n"},
      {4, "salvage x.st new.st"},
      {0, "salvage --encoding hxmok1/le/utf-8 unknown told.st 2>/dev/null"},
      {0, "diff x.st told.st"},
  };
  for (const auto& [code, words, err] : cases) {
    expectRun(code, "hxcrate " + std::string(words));
    EXPECT_EQ(out_, "") << words;
    EXPECT_TRUE(err == nullptr || err_ == err) << err_;
    EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), code != 0 || err != nullptr) << words;
  }
  expectRun(0, "[ -e out/a ] && ! [ -e no.st ]");
}

TEST_F(CommandTest, ShowsATerminalNothingThatItWouldObey) {
  makeStore("x.st", {"\x1b[31mred",
                     "\xc2\x9b"
                     "31m",
                     "back\\slash", "\xc3\xa4", "\u202e", "\xff"});
  expectRun(0, "hxcrate ls x.st");
  EXPECT_NE(out_.find("\x1b[31mred\n"), std::string::npos);
  expectPrinted(0, R"(hxcrate ls --json x.st | grep -oe 'back\\\\slash' -e '.u202e')",
                "back\\\\slash\n\\u202e\n");
  expectPrinted(
      0, "script -qec 'hxcrate ls x.st' /dev/null </dev/null",
      "\\033["
      "31mred\r\nback\\134slash\r\n\\302\\23331m\r\n\xc3\xa4\r\n\\342\\200\\256\r\n\\377\r\n");
}

TEST_F(CommandTest, PrintsNoNameThatPassesForALine) {
  makeStore("x.st", {"a\nb: differs"});
  expectRun(0, "hxcrate mkstore x.st s; hxcrate mkstore x.st \"$(printf 's/c\\nd')\"; mkdir e");
  const std::pair<const char*, const char*> cases[] = {
      {"diff x.st e", "only in x.st: a\\012b: differs\nonly in x.st: s/\n"},
      {"sum --check none x.st", "a\\012b: differs: is not listed\n"},
      {"tree --ascii x.st | grep -c '[a-c].012'", "2\n"}};
  for (const auto& [words, out] : cases) {
    expectRun(0, "printf '%064d  z\n' 0 >none; hxcrate " + std::string(words) + " || :");
    EXPECT_EQ(out_.substr(0, std::string(out).size()), out);
  }
}

TEST_F(CommandTest, TakesFilesOfAnyName) {
  expectPrinted(
      0, "d=$(printf 'd\\351\\304'); mkdir $d; echo 1 | hxcrate put $d/s.st a 2>$d/a; cat $d/a",
      "hxcrate: d\\351\\304/s.st: a new store was made\n");
  expectPrinted(
      0,
      "cd d*; s=$(printf '\\351.st'); hxcrate copy s.st $s; hxcrate put --append $s a a; "
      "hxcrate pack --replace $s .; hxcrate check --quick $s; hxcrate unpack $s out; ls out",
      "a\ns.st\n",
      "hxcrate: \\351.st: skipped: the store\nhxcrate: \\351.st: 0 errors, 0 warnings, "
      "0 notes in 1 store and 2 items, of which no pages were looked at\n");
}

// The first group of each match, with a space behind it.
std::string findAll(const std::string& text, const std::string& expression) {
  const std::regex wanted(expression);
  std::string found;
  for (std::sregex_iterator i(text.begin(), text.end(), wanted), end; i != end; ++i)
    found += i->str(1) + " ";
  return found;
}

// What stands in a text from a mark to the end of its line, or to another mark.
std::string cut(const std::string& text, const std::string& mark, const std::string& end = "\n") {
  const std::size_t start = text.find(mark) + mark.size();
  return text.substr(start, text.find(end, start) - start);
}

TEST_F(CommandTest, SaysTheSameOfItsOptionsEverywhere) {
  const std::string readme = readFile(HX_SOURCE_DIR "/README.md");
  const std::string completion = HX_SOURCE_DIR "/tool/completion.bash";
  std::string manual = readFile(HX_SOURCE_DIR "/tool/hxcrate.1");
  manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
  const std::string synopsis = cut(manual, ".SH SYNOPSIS", ".SH");
  expectRun(0, "hxcrate --help");
  const std::string commands = findAll(out_, "\n  ([a-z]+) ");
  EXPECT_EQ(findAll(readme, "\n\\| `([a-z]+) [A-Z]"), commands);
  EXPECT_EQ(findAll(synopsis, "\n.B hxcrate ([a-z]+)"), commands);
  EXPECT_EQ(cut(readFile(completion), "commands='"), commands + "--help --version'");
  std::istringstream words(commands);
  for (std::string command; words >> command;) {
    expectRun(0, "hxcrate " + command + " --help");
    EXPECT_NE(out_.find("\nExample:\n  hxcrate " + command), std::string::npos) << command;
    const std::string options = findAll(out_, "\n  (-[0-9a-zA-Z]|--(?!help)[a-z-]+) ");
    EXPECT_EQ(findAll(cut(readme, "\n| `" + command + " "), "`(-[^`]+)`"), options);
    EXPECT_EQ(findAll(cut(synopsis, ".B hxcrate " + command + "\n", ".br"), " (-[^ \n]+)"),
              options);
    expectPrinted(
        0, "bash -c '. " + completion + "; printf \"%s \" $(_hxcrate_options " + command + ")'",
        options);
  }
}

// The manual's words for the keys of a command's object are all those, and only those, that come.
TEST_F(CommandTest, DocumentsEveryKeyOfItsJson) {
  const std::string manual = cut(readFile(HX_SOURCE_DIR "/tool/hxcrate.1"), ".SH JSON", ".SH EXIT");
  makeStore("x.st", {"a/b", "c"});
  makeStore("y.st", {"a/b", "c", "d"});
  expectRun(0, "echo more | hxcrate put --append y.st c; head -c -1 x.st >damaged.st");
  for (const std::string words :
       {"ls -R x.st", "diff x.st y.st", "stat x.st", "map x.st", "check damaged.st"}) {
    expectRun(words[0] == 'd' || words[0] == 'c' ? 1 : 0, "hxcrate " + words + " --json");
    const auto wordsOf = [](const std::string& text) {
      std::istringstream stream(text);
      return std::set<std::string>(std::istream_iterator<std::string>(stream), {});
    };
    const std::string section =
        cut(manual, ".SS " + words.substr(0, words.find(' ')) + "\n", ".SS");
    EXPECT_EQ(wordsOf(findAll(out_, "\"([a-zA-Z]+)\": ")),
              wordsOf(findAll(section, "\n\\.B ([^\n]+)")))
        << words;
  }
}

}  // namespace
