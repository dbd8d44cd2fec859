// What of a tree of files comes into a store and out again.

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>

#include "tests/command_fixture.h"

namespace {

using hxtest::writeFile;

class TreeCommandTest : public hxtest::CommandFixture {
 protected:
  void SetUp() override {
    for (const std::string path : {"a/b/1", "a/b/22", "a/c.o", "z.o"})
      writeFile(directory_ / ("in/" + path), path);
    expectRun(0, "mkdir in/e o.d; hxcrate pack x.st in; hxcrate export x.st x.tar");
  }

  // `line` lists the paths in a store.
  void expectListed(const std::string& line, const std::string& paths) {
    expectPrinted(0, line + " | sed 's:/$::' | paste -sd' '", paths + "\n");
  }
};

TEST_F(TreeCommandTest, TakesWhatGlobsMean) {
  writeFile(directory_ / "globs", "*.o\n\n^b\n");
  const std::pair<std::string, const char*> cases[] = {
      {"--include a/b", "a a/b a/b/1 a/b/22"},
      {"--include '*2' --include e", "a a/b a/b/22 e"},
      {"--include a --exclude b", "a a/c.o"},
      {"--exclude ^a/c.o --exclude-from - <globs", "a a/b a/b/1 a/b/22 e"},
      {"--include-from globs", "a a/c.o z.o"},
  };
  for (const auto& [words, paths] : cases) {
    expectListed("hxcrate ls -R x.st " + words, paths);
    expectListed("hxcrate copy x.st n.st " + words + "; hxcrate ls -R n.st", paths);
    expectPrinted(0,
                  "hxcrate unpack x.st out " + words + "; hxcrate pack m.st in " + words +
                      "; hxcrate pack o.d/m.st out; cmp o.d/m.st m.st; hxcrate diff n.st m.st",
                  "");
    expectPrinted(0,
                  "hxcrate import --attributes i.st x.tar " + words +
                      "; hxcrate export x.st b.tar " + words +
                      "; hxcrate import --attributes j.st b.tar; hxcrate diff i.st j.st; hxcrate "
                      "diff --exclude .mtree n.st i.st; rm i.st j.st b.tar",
                  "");
    expectPrinted(0, "hxcrate diff x.st n.st " + words + "; rm -r n.st m.st o.d/m.st out", "");
  }
  expectRun(0, "hxcrate pack n.st in/a");
  expectPrinted(1, "hxcrate diff --include '*2' x.st n.st",
                "only in x.st: a/b/22\nonly in n.st: b/22\n");
  expectRun(2, "hxcrate ls x.st --include ''");
  expectRun(2, "hxcrate ls x.st --include-from /dev/null");
  expectRun(2, "rm n.st; hxcrate import n.st --include-from - - <globs");
  expectRun(3, "hxcrate ls x.st --exclude-from absent");
  expectRun(2, "hxcrate pack m.st -T - --exclude-from - <globs");
  expectRun(3, "ln -s in lnk; hxcrate pack m.st lnk/a lnk/e || { test ! -e m.st; exit 3; }");
}

TEST_F(TreeCommandTest, PacksWhatIsListedAndSkipsWhatItCanNotKeep) {
  const std::string longName(65, 'n');
  struct Case {
    int code;
    std::string words;
    const char* paths;
  };
  const Case cases[] = {
      {0, "in/a/b ./in//z.o in/a", "in in/a in/a/b in/a/b/1 in/a/b/22 in/a/c.o in/z.o"},
      {0, "--no-recursion in/a in/a/c.o", "in in/a in/a/c.o"},
      {0, "-T list --null", "in in/e in/z.o"},
      {0, "tree", ""},  // a command's name
      {2, "in /etc", ""},
      {2, "-T /dev/null", ""},
      {2, "in/../in in", ""},
      {3, "in/absent in/e", ""},
      {5, "--skip in/absent in/e", "in in/e"},
      {3, "odd", ""},
      {5, "--skip odd", "kept"},
      {5, "--skip /proc/sys/kernel/random/uuid /absent",  // changes by being read
       "proc proc/sys proc/sys/kernel proc/sys/kernel/random"},
  };
  expectRun(0, "mkdir odd tree; >odd/kept; truncate -s 3G odd/huge; mkdir odd/" + longName +
                   "; printf 'in/e\\0./in/z.o' >list");
  for (const auto& [code, words, paths] : cases) {
    expectRun(code, "rm -f n.st; hxcrate pack n.st " + words);
    if (code == 0 || code == 5) expectListed("hxcrate ls -R n.st", paths);
  }
  expectRun(5, "mkdir dot dot/in; ln -s x dot/link; cd dot; hxcrate pack ../d.st .");
  expectSaid("hxcrate: link: skipped: a symbolic link\n");
}

// Goes before a command: root's user, but none of root's rights.
const std::string kPlain = ::geteuid() == 0 ? "setpriv --bounding-set=-all --inh-caps=-all " : "";
// What a tree has beside bytes, but for owners.
const std::string kShow =
    "show() { (cd $1; find . -printf '%P %y %m %T@ %l\\0' | sort -z | tr '\\0' '\\n'); }; ";
const std::string kOwnManifest = "#mtree\n# Attributes of the members of a store.\n";

TEST_F(TreeCommandTest, AttributesComeBackAsTheyWere) {
  writeFile(directory_ / "in/odd\n\xff\\ #=/\"n\t", "x");
  expectRun(0,
            "cd in; ln a/c.o zz; ln a/c.o a/b/0; ln -s ../../nowhere a/b/l; ln -s "
            "a 'l\ni'; truncate -s 4M hole; echo >>hole; chmod 400 z.o; chmod 6711 hole; chmod "
            "3550 a/b; touch -hd @-5.25 'l\ni' a/b/1; touch -d @1000000000 a/b a; chmod 1700 .");
  for (const std::string& as : {std::string(), kPlain}) {
    if (std::system((as + "true").c_str()) != 0) GTEST_SKIP() << "takes setpriv";
    expectRun(0, kShow + as + "hxcrate pack --attributes t.st in; " + as +
                     "hxcrate unpack --set-id t.st u; show in >1; show u >2; cmp 1 2;"
                     "[ u/zz -ef u/a/b/0 -a u/zz -ef u/a/c.o ]; diff -r --no-dereference in u;"
                     "[ $(stat -c %b u/hole) -le $(($(stat -c %b in/hole) + 64)) ]");
    expectPrinted(0, as + "hxcrate unpack t.st v; find v -perm /6000; [ -r v/.mtree ] || echo no",
                  "no\n");
    expectRun(0, as + "hxcrate unpack --no-attributes t.st w; " + as + "hxcrate diff t.st in; " +
                     "[ -f w/.mtree ] && ! [ -L w/a/b/l ] && ! [ w/zz -ef w/a/c.o ]");
    expectRun(0, "chmod -R u+w u v w; rm -r u v w t.st");
  }
  expectPrinted(1, "hxcrate pack --attributes t.st in; ln -sfn b 'in/l\ni'; hxcrate diff in t.st",
                "link differs: l\\012i\n");
  expectRun(0, "rm t.st");
  if (::geteuid() != 0) return;
  expectRun(0,
            "chown -hR 12345:54321 in/hole in/a/b; chmod 6711 in/hole;"
            "hxcrate pack --attributes t.st in; hxcrate unpack --same-owner --set-id t.st u;"
            "hxcrate unpack t.st v; stat -c %u:%g:%a u/hole u/a/b/l v/hole");
  EXPECT_EQ(out_, "12345:54321:6711\n12345:54321:777\n0:0:711\n");
  expectRun(5, kPlain + "hxcrate unpack --same-owner --set-id t.st w");
  expectPrinted(0, "stat -c %u:%a w/hole", "0:711\n");
  expectRun(0, "hxcrate export t.st | tar xp -C w --overwrite; stat -c %a.%Y w/a");
}

// Beside the directory lies what its links lead to.
TEST_F(TreeCommandTest, AHostileManifestDoesNothingElsewhere) {
  writeFile(directory_ / "victim/f", "kept");
  writeFile(directory_ / "m",
            kOwnManifest +
                "./../out2 type=link link=x\n./up type=link link=../victim\n"
                "./up/in type=link link=x\n./up/f type=file mode=0777 time=5.0\n"
                "./d type=link link=../victim\n./s/in type=link link=x\n./s/f type=file mode=0777\n"
                "./s type=dir mode=0777 uid=7 time=5.0\n./dev type=char mode=0777 device=1\n"
                "./f type=file mode=6777 uid=-1 gid=-1 size=999999999999999 nlink=2 inode=4\n"
                "./there type=file mode=0777 inode=9\n./same type=file mode=0777 inode=9\n"
                "./y.st-journal type=link link=f\n. type=link link=victim\n");
  expectRun(0,
            "mkdir -p n/d n/s; for f in n/d/f n/s/f n/f n/there n/same; do echo 1 >$f; "
            "done; hxcrate pack n/y.st in; hxcrate pack h.st n; hxcrate put h.st .mtree m; chmod "
            "600 victim/f");
  for (const std::string words : {"", "--overwrite ", "--set-id --same-owner "}) {
    expectRun(0, kShow +
                     "mkdir out; ln -s ../victim out/s; echo 1 >out/there; chmod 600 "
                     "out/there; touch e 2; show victim >1; ls >>1; hxcrate unpack " +
                     words +
                     "h.st out 2>e && exit 9 || [ $? = 5 ]; show victim >2; ls >>2; cmp 1 2;"
                     "[ -L out/up -a -d out/d -a ! -L out/d -a -L out/s -a ! -e out/dev -a ! "
                     "-L out/y.st-journal -a ! -u out/f -a $(stat -c %a out/there) = 600 ];"
                     "! [ out/same -ef out/there ] || [ '" +
                     words + "' = '--overwrite ' ]");
    expectRun(0, "rm -r out");
  }
}

// Somebody exchanges a folder for a link all the time.
TEST_F(TreeCommandTest, AnExchangedFolderLeadsNowhereElse) {
  writeFile(directory_ / "victim/f", "kept");
  expectRun(0, kShow +
                   "mkdir -p n/d/e; for i in 1 2 3 4 5 6 7 8; do echo $i >n/d/$i; ln -s $i "
                   "n/d/l$i; done; cp n/d/1 n/d/e; ln n/d/1 n/zz; chmod 777 n/d; hxcrate pack "
                   "--attributes t.st n; chmod 700 victim; touch -d @9 victim; show victim >1");
  std::atomic<bool> isOver = false;
  std::thread other([&] {
    while (!isOver)
      ::renameat2(AT_FDCWD, (directory_ / "out/d").c_str(), AT_FDCWD,
                  (directory_ / "out/s").c_str(), RENAME_EXCHANGE);
  });
  expectRun(0,
            "for i in $(seq 30); do mkdir out; ln -s ../victim out/s; hxcrate unpack "
            "--overwrite t.st out 2>e || :; mv out old; rm -rf old; done");
  isOver = true;
  other.join();
  expectRun(0, kShow + "show victim >2; cmp 1 2");
}

}  // namespace
