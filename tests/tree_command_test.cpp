// What of a tree of files comes into a store and out again.

#include "tests/command_fixture.h"

namespace {

using hxtest::writeFile;

class TreeCommandTest : public hxtest::CommandFixture {
 protected:
  void SetUp() override {
    for (const std::string path : {"a/b/1", "a/b/22", "a/c.o", "z.o"})
      writeFile(directory_ / ("in/" + path), path);
    expectRun(0, "mkdir in/e o.d; hxcrate pack x.st in");
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
    expectPrinted(0, "hxcrate diff x.st n.st " + words + "; rm -r n.st m.st o.d/m.st out", "");
  }
  expectRun(0, "hxcrate pack n.st in/a");
  expectPrinted(1, "hxcrate diff --include '*2' x.st n.st",
                "only in x.st: a/b/22\nonly in n.st: b/22\n");
  expectRun(2, "hxcrate ls x.st --include ''");
  expectRun(2, "hxcrate ls x.st --include-from /dev/null");
  expectRun(3, "hxcrate ls x.st --exclude-from absent");
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

}  // namespace
