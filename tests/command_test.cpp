// The command as its users meet it: words in, files, lines and an exit code out.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <hxcrate/crate.hpp>
#include <map>
#include <regex>
#include <vector>

#include "tests/temporary_directory.h"
#include "tests/unpack_containment.h"

namespace {

namespace fs = std::filesystem;

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::TemporaryDirectory;
using hxtest::writeFile;

std::string quote(const std::string& word) {
  std::string quoted = "'";
  for (const char c : word)
    quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::vector<std::string> plus(std::vector<std::string> words, const std::string& word) {
  words.push_back(word);
  return words;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Everything below a directory by its path: a file's bytes, or "/" for a directory.
std::map<std::string, std::string> readTree(const fs::path& root) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = fs::relative(entry.path(), root).string();
    tree[path] = entry.is_directory() ? "/" : readFile(entry.path());
  }
  return tree;
}

class CommandTest : public testing::Test {
 protected:
  // Runs the command in the temporary directory through the shell, which `redirection` and what
  // comes `before` are for.
  int run(const std::vector<std::string>& words, const std::string& redirection,
          const std::string& before) {
    std::string line =
        "cd " + quote(directory_.path()) + " && " + before + " " + quote(HX_COMMAND_PATH);
    for (const std::string& word : words)
      line += " " + quote(word);
    const std::string outPath = directory_ / ".out";
    const std::string errPath = directory_ / ".err";
    line += " >" + quote(outPath) + " 2>" + quote(errPath) + " " + redirection;
    const int status = std::system(line.c_str());
    out_ = readFile(outPath);
    err_ = readFile(errPath);
    fs::remove(outPath);
    fs::remove(errPath);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  void expectRun(int code, const std::vector<std::string>& words,
                 const std::string& redirection = "", const std::string& before = "") {
    EXPECT_EQ(run(words, redirection, before), code) << words[0] << ": " << err_;
  }

  // A tree with every kind of name and length that can be kept.
  void makeTree(const std::string& root) {
    for (const std::size_t length : {0u, 1u, 4095u, 4096u, 4097u, 300000u}) {
      writeFile(directory_ / (root + "/sizes/" + std::to_string(length)), makeBytes(length));
    }
    fs::create_directories(directory_ / (root + "/empty/emptier"));
    for (const std::string& name :
         {std::string(64, 'n'), std::string("a b"), std::string("new\nline"),
          std::string("\xff\x80"), std::string("-l"), std::string("back\\slash"),
          std::string("co:lon")}) {
      writeFile(directory_ / (root + "/names/" + name + "/" + name), name);
    }
  }

  // A store of items with these paths and, as bytes, their paths.
  void makeStore(const std::string& name, const std::vector<std::string>& paths) {
    hxcrate::Session session;
    hxcrate::Store store = session.open(directory_ / name, hxcrate::Mode::create);
    for (const std::string& path : paths) {
      store.create(path, hxcrate::Parents::create).write(std::as_bytes(std::span(path)));
    }
    store.close();
  }

  bool hasLeftovers() {
    return std::any_of(fs::directory_iterator(directory_.path()), {}, [](const auto& entry) {
      return entry.path().filename().string().starts_with(".hxcrate");
    });
  }

  TemporaryDirectory directory_;
  std::string out_;
  std::string err_;
};

TEST_F(CommandTest, PacksAndUnpacksATree) {
  makeTree("in");
  const std::vector<std::vector<std::string>> kinds = {
      {}, {"--in-memory"}, {"--page-size", "1000"}, {"--in-memory", "--page-size", "7"}};
  std::uintmax_t smallest = 0;
  for (std::vector<std::string> words : kinds) {
    fs::create_directories(directory_ / "again");
    words.insert(words.begin(), "pack");
    words.insert(words.end(), {"x:.st", "in"});
    expectRun(0, plus(words, "--dry-run"));
    const std::string forecast = err_;
    expectRun(0, words);
    const auto size = fs::file_size(directory_ / "x:.st");
    EXPECT_TRUE(contains(forecast, "a file of " + std::to_string(size) + " bytes")) << forecast;
    if (words.size() == 3) smallest = size;
    EXPECT_GE(size, smallest);
    expectRun(0, {"unpack", "x:.st", "out"});
    EXPECT_EQ(out_ + err_, "");
    EXPECT_EQ(readTree(directory_ / "out"), readTree(directory_ / "in"));
    words.end()[-2] = "again/x:.st";
    words.end()[-1] = "out";
    expectRun(0, words);
    EXPECT_EQ(readFile(directory_ / "again/x:.st"), readFile(directory_ / "x:.st"));
    for (const char* made : {"x:.st", "out", "again"})
      fs::remove_all(directory_ / made);
  }
  EXPECT_FALSE(hasLeftovers());
}

// Deeper than a path can be long, where no disk has to keep it.
TEST_F(CommandTest, GoesAsDeepAsTheTree) {
  constexpr int kDepth = 2100;
  const TemporaryDirectory memory("/dev/shm");
  int here = ::open(memory.path().c_str(), O_RDONLY | O_DIRECTORY);
  for (int i = 0; i < kDepth; ++i) {
    const char* name = i == 0 ? "deep" : "d";
    ASSERT_EQ(::mkdirat(here, name, 0777), 0);
    const int next = ::openat(here, name, O_RDONLY | O_DIRECTORY);
    ::close(here);
    here = next;
  }
  ::close(here);
  expectRun(0, {"pack", "--in-memory", "x.st", memory / "deep"});
  expectRun(0, {"unpack", "x.st", memory / "out"});
  expectRun(0, {"pack", "y.st", memory / "out"});
  expectRun(0, {"ls", "-R", "y.st"});
  EXPECT_EQ(std::count(out_.begin(), out_.end(), '\n'), kDepth - 1);
}

TEST_F(CommandTest, NamesEverythingThatCanNotBeKeptAndPacksNothing) {
  const std::string tooLong(65, 'n');
  writeFile(directory_ / "in/fine", "fine");
  writeFile(directory_ / ("in/a/" + tooLong), "");
  writeFile(directory_ / ("in/" + tooLong + "/b"), "");
  writeFile(directory_ / "in/huge", "");
  fs::resize_file(directory_ / "in/huge", 2147483648);
  expectRun(3, {"pack", "x.st", "in"});
  EXPECT_TRUE(contains(err_, "hxcrate: in/a/" + tooLong + ": a name of 65 bytes")) << err_;
  EXPECT_TRUE(contains(err_, "hxcrate: in/" + tooLong + ": a name of 65 bytes")) << err_;
  EXPECT_TRUE(contains(err_, "hxcrate: in/huge: 2147483648 bytes")) << err_;
  EXPECT_TRUE(contains(err_, "3 entries can't be kept")) << err_;
  EXPECT_FALSE(fs::exists(directory_ / "x.st"));
}

TEST_F(CommandTest, LeavesOutWhatIsNoFileAndSaysSo) {
  writeFile(directory_ / "in/file", "1");
  fs::create_symlink("file", directory_ / "in/link");
  fs::create_directory_symlink("/", directory_ / "in/root");
  ASSERT_EQ(::mkfifo((directory_ / "in/fifo").c_str(), 0600), 0);
  expectRun(0, {"pack", "x.st", "in"});
  EXPECT_TRUE(contains(err_, "hxcrate: in/link: skipped: a symbolic link\n")) << err_;
  EXPECT_TRUE(contains(err_, "hxcrate: in/root: skipped: a symbolic link\n")) << err_;
  EXPECT_TRUE(contains(err_, "hxcrate: in/fifo: skipped: a FIFO\n")) << err_;
  expectRun(0, {"ls", "x.st"});
  EXPECT_EQ(out_, "file\n");
}

TEST_F(CommandTest, ReplacesAStoreOnlyWhenToldToAndOnlyByAWholeOne) {
  makeStore("x.st", {"old"});
  ::chmod((directory_ / "x.st").c_str(), 0640);
  const std::string before = readFile(directory_ / "x.st");
  writeFile(directory_ / "in/new", "new");
  expectRun(4, {"pack", "x.st", "in"});
  EXPECT_EQ(err_, "hxcrate: x.st: exists already\n");
  expectRun(3, {"pack", "--replace", "x.st", "/proc/sys/kernel/random"});  // changes by being read
  EXPECT_TRUE(contains(err_, "it changed while it was packed")) << err_;
  expectRun(3, {"pack", "--replace", "x.st", "absent"});
  expectRun(4, {"pack", "--replace", "in", "in"});
  EXPECT_EQ(readFile(directory_ / "x.st"), before);
  expectRun(0, {"pack", "--replace", "x.st", "in"});
  expectRun(0, {"ls", "x.st"});
  EXPECT_EQ(out_, "new\n");
  fs::create_hard_link(directory_ / "x.st", directory_ / "in/x.st");
  expectRun(0, {"pack", "--replace", "x.st", "in"});
  EXPECT_EQ(err_, "hxcrate: in/x.st: skipped: the store\n");
  EXPECT_EQ(fs::status(directory_ / "x.st").permissions(), fs::perms(0640));
  EXPECT_FALSE(hasLeftovers());
}

TEST_F(CommandTest, LeavesNothingBehindWhenTheDiskIsFull) {
  writeFile(directory_ / "in/a", makeBytes(1000000));
  for (const char* way : {"--replace", "--in-memory"}) {
    expectRun(3, {"pack", "x.st", "in", way}, "", "ulimit -f 100 && trap '' XFSZ &&");
    EXPECT_TRUE(err_.starts_with("hxcrate: x.st: ") && contains(err_, "File too large")) << err_;
    EXPECT_FALSE(fs::exists(directory_ / "x.st") || hasLeftovers());
  }
}

TEST_F(CommandTest, UnpacksNothingOutsideWhateverTheFileHolds) {
  int inputs = 0;
  for (const auto& entry : fs::directory_iterator(HX_SOURCE_DIR "/tests/corpus/unpack")) {
    const std::string image = readFile(entry.path());
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(image.data());
    EXPECT_NO_THROW(hxtest::expectContainedUnpack({bytes, image.size()})) << entry.path();
    ++inputs;
  }
  EXPECT_GE(inputs, 8) << "the corpus is missing";
}

TEST_F(CommandTest, NeverLeavesTheTargetDirectory) {
  makeStore("x.st", {"..", "fine", "link", "linked/escaped", "s/../escaped", "s/.", "s/inner"});
  makeStore("y.st", {"../escaped", "./escaped"});
  fs::create_directories(directory_ / "a/out");
  fs::create_directory(directory_ / "outside");
  fs::create_symlink(directory_ / "outside/escaped", directory_ / "a/out/link");
  fs::create_directory_symlink(directory_ / "outside", directory_ / "a/out/linked");
  for (const char* overwrite : {"--overwrite", ""}) {
    for (const char* store : {"x.st", "y.st"}) {
      std::vector<std::string> words = {"unpack", store, "a/out"};
      if (*overwrite != '\0') words.emplace_back(overwrite);
      expectRun(5, words);
    }
  }
  EXPECT_TRUE(contains(err_, "hxcrate: y.st: ..: no file can have this name\n")) << err_;
  EXPECT_TRUE(fs::is_empty(directory_ / "outside"));
  EXPECT_EQ(readTree(directory_ / "a/out/s"),
            (std::map<std::string, std::string>{{"inner", "s/inner"}}));
  EXPECT_EQ(readFile(directory_ / "a/out/fine"), "fine");
  EXPECT_EQ(std::distance(fs::directory_iterator(directory_ / "a"), {}), 1);
}

TEST_F(CommandTest, OverwritesOnlyWhenToldTo) {
  makeStore("x.st", {"a", "d", "f/inner", "z"});
  writeFile(directory_ / "out/a", "mine");
  writeFile(directory_ / "out/f", "a file where a directory belongs");
  writeFile(directory_ / "out/d/mine", "a directory where a file belongs");
  expectRun(5, {"unpack", "x.st", "out"});
  EXPECT_TRUE(contains(err_, "hxcrate: out/a: exists already\n")) << err_;
  EXPECT_EQ(readFile(directory_ / "out/a"), "mine");
  expectRun(5, {"unpack", "--overwrite", "x.st", "out"});
  EXPECT_TRUE(contains(err_, "hxcrate: out/d: exists already and is no regular file\n")) << err_;
  EXPECT_TRUE(contains(err_, "hxcrate: out/f: exists already and is no directory\n")) << err_;
  const std::map<std::string, std::string> expected = {
      {"a", "a"},
      {"d", "/"},
      {"d/mine", "a directory where a file belongs"},
      {"z", "z"},
      {"f", "a file where a directory belongs"}};
  EXPECT_EQ(readTree(directory_ / "out"), expected);
}

TEST_F(CommandTest, ListsMembersAndPrintsItems) {
  makeStore("x.st", {"b", "a/deep/item", "a/x", "c d"});
  struct Case {
    std::vector<std::string> words;
    std::string out;
  };
  const Case cases[] = {
      {{"ls", "x.st"}, "a/\nb\nc d\n"},
      {{"ls", "-l", "x.st"}, "         -  a/\n         1  b\n         3  c d\n"},
      {{"ls", "-R", "x.st"}, "a/\na/deep/\na/deep/item\na/x\nb\nc d\n"},
      {{"ls", "-lR", "x.st", "a"}, "         -  deep/\n        11  deep/item\n         3  x\n"},
      {{"ls", "x.st", "a/x"}, "a/x\n"},
      {{"ls", "-0", "x.st", "a/"}, std::string("deep/\0x\0", 8)},
      {{"ls", "--json", "x.st", "a"},
       "{\"store\": \"x.st\", \"path\": \"a\", \"members\": [\n"
       "{\"path\": \"deep\", \"kind\": \"store\"},\n"
       "{\"path\": \"x\", \"kind\": \"item\", \"size\": 3}]}\n"},
      {{"tree", "x.st"},
       "x.st\n├── a/\n│   ├── deep/\n│   │   └── item  11\n│   └── x  3\n├── b  1\n└── c d  3\n"
       "\n2 stores, 4 items, 18 bytes\n"},
      {{"tree", "--ascii", "x.st", "a/deep"},
       "a/deep\n`-- item  11\n\n0 stores, 1 item, 11 bytes\n"},
      {{"cat", "x.st", "a/deep/item", "b"}, "a/deep/itemb"},
      {{"cat", "--offset", "2", "--length", "4", "x.st", "a/deep/item", "b", "a/x"}, "deepx"},
  };
  for (const Case& test : cases) {
    expectRun(0, test.words);
    EXPECT_EQ(out_, test.out);
    EXPECT_EQ(err_, "");
  }
}

TEST_F(CommandTest, UnpacksWhatIsAskedForAndNoMore) {
  makeStore("x.st", {"a/b/1", "a/b/22", "a/c", "ab", "z"});
  struct Case {
    int code;
    std::vector<std::string> words;
    std::vector<std::string> made;
  };
  const Case cases[] = {
      {0, {"a/b", "z"}, {"a", "a/b", "a/b/1", "a/b/22", "z"}},
      {0, {"a/b/1", "a/b/1"}, {"a", "a/b", "a/b/1"}},
      {4, {"z", "absent"}, {}},
      {0, {"--dry-run"}, {}},
      {5, {"--max-entries", "3"}, {"a", "a/b", "a/b/1"}},
      {0,
       {"--max-entries", "7", "--max-bytes", "17"},
       {"a", "a/b", "a/b/1", "a/b/22", "a/c", "ab", "z"}},
      {5, {"--max-bytes", "16"}, {"a", "a/b", "a/b/1", "a/b/22", "a/c", "ab"}},
      {5, {"--dry-run", "--max-bytes", "16"}, {}},
  };
  for (const Case& test : cases) {
    std::vector<std::string> words = {"unpack", "x.st", "out"};
    words.insert(words.end(), test.words.begin(), test.words.end());
    expectRun(test.code, words);
    std::vector<std::string> made;
    if (fs::exists(directory_ / "out")) {
      for (const auto& [path, bytes] : readTree(directory_ / "out")) {
        made.push_back(path);
        EXPECT_TRUE(bytes == path || bytes == "/") << path;
      }
    }
    EXPECT_EQ(made, test.made) << test.words[0];
    fs::remove_all(directory_ / "out");
  }
}

TEST_F(CommandTest, AddsToStoresWholeOrNotAtAll) {
  writeFile(directory_ / "file", "1234");
  writeFile(directory_ / "big", makeBytes(1000000));
  struct Case {
    int code;
    std::vector<std::string> words;
    std::string err;
    std::string redirection = {};
    std::string before = {};
  };
  const Case cases[] = {
      {4, {"put", "x.st", "a/b", "file"}, "hxcrate: x.st: a: no such store; -p makes it\n"},
      {0, {"put", "--dry-run", "-p", "x.st", "a/b"}, "hxcrate: x.st: a/b: would be written\n"},
      {0, {"put", "-p", "x.st", "a/b", "file"}, "hxcrate: x.st: a new store was made\n"},
      {4, {"put", "x.st", "a/b"}, "hxcrate: x.st: a/b: exists already; --append adds to it\n"},
      {4, {"put", "--append", "x.st", "a"}, "hxcrate: x.st: a: exists already\n"},
      {0, {"put", "--append", "x.st", "a/b", "-"}, "", "<file"},
      {0, {"put", "x.st", "piped"}, "", "", "cat file file |"},
      {0, {"put", "x.st", "empty"}, "", "</dev/null"},
      {3, {"put", "x.st", "c", "absent"}, "hxcrate: absent: open: No such file or directory\n"},
      {3, {"put", "x.st", "c", "big"}, "", "", "ulimit -f 100 && trap '' XFSZ &&"},
      {0, {"mkstore", "x.st", "s"}, ""},
      {4, {"mkstore", "x.st", "s"}, "hxcrate: x.st: s: exists already\n"},
      {0, {"mkstore", "-p", "x.st", "s/t/u"}, ""},
      {0, {"mkstore", "-p", "x.st", "s/t/u"}, ""},
      {4, {"mkstore", "-p", "x.st", "a/b"}, "hxcrate: x.st: a/b: exists already\n"},
  };
  for (const Case& test : cases) {
    expectRun(test.code, test.words, test.redirection, test.before);
    EXPECT_TRUE(err_ == test.err || (test.err.empty() && test.code != 0)) << err_;
  }
  expectRun(0, {"ls", "-lR", "x.st"});
  EXPECT_EQ(out_,
            "         -  a/\n         8  a/b\n         0  empty\n         8  piped\n"
            "         -  s/\n         -  s/t/\n         -  s/t/u/\n");
}

TEST_F(CommandTest, CopiesAreTheSameWhateverTheHistory) {
  makeTree("in");
  fs::create_directory(directory_ / "packed");
  expectRun(0, {"pack", "packed/x.st", "in"});
  expectRun(0, {"pack", "--page-size", "77", "old.st", "in/sizes"});
  makeStore("y.st", {"names/b.tmp", "names/tmp/c", "d.tmp"});
  for (const auto& [path, bytes] : readTree(directory_ / "in")) {
    const char* command = bytes == "/" ? "mkstore" : "put";
    std::vector<std::string> words = {command, "-p", "--", "y.st", path};
    if (bytes != "/") words.push_back("in/" + path);
    expectRun(0, words);
  }
  expectRun(0, {"copy", "--exclude", "*.tmp", "--exclude", "n*/tmp", "y.st", "x.st"});
  EXPECT_EQ(readFile(directory_ / "x.st"), readFile(directory_ / "packed/x.st"));
  expectRun(4, {"copy", "y.st", "x.st"});
  EXPECT_EQ(err_, "hxcrate: x.st: exists already\n");
  expectRun(0, {"diff", "packed/x.st", "x.st"});
  EXPECT_EQ(out_ + err_, "");
  EXPECT_FALSE(hasLeftovers());
}

TEST_F(CommandTest, CopiesIntoTheOtherByteOrderAndBack) {
  makeTree("in");
  expectRun(0, {"pack", "x.st", "in"});
  fs::create_directory(directory_ / "back");
  expectRun(0, {"copy", "--encoding", "hxmok1/be/utf-8", "x.st", "be.st"});
  EXPECT_EQ(readFile(directory_ / "be.st").substr(0, 15), "hxmok1/be/utf-8");
  expectRun(0, {"diff", "x.st", "be.st"});
  expectRun(0, {"copy", "be.st", "back/x.st"});
  EXPECT_EQ(readFile(directory_ / "back/x.st"), readFile(directory_ / "x.st"));
  expectRun(0, {"copy", "--encoding", "hxmok1/le/utf-8", "be.st", "x2.st"});
  expectRun(0, {"diff", "x.st", "x2.st"});
  expectRun(2, {"copy", "--encoding", "ebcdic", "x.st", "no.st"});
  EXPECT_TRUE(contains(err_, "known are hxmok1/le/utf-8 and hxmok1/be/utf-8")) << err_;
  EXPECT_FALSE(fs::exists(directory_ / "no.st") || hasLeftovers());
}

// The journal of an update that was cut off can be read by whom the store can be, and whoever looks
// at the store next, be it check, finds it as it was.
TEST_F(CommandTest, UndoesAnUnfinishedUpdateBeforeItLooks) {
  const std::string path = directory_ / "x.st";
  makeStore("x.st", {"a"});
  ::chmod(path.c_str(), 0640);
  const std::string before = readFile(path);
  for (const char* command : {"check", "stat", "map", "ls"}) {
    const auto leaveUnfinished = [&]() noexcept {
      hxcrate::Session session;
      hxcrate::Store store = session.open(path, hxcrate::Mode::update);
      hxcrate::Writer writer = store.create("b");
      writer.write(makeBytes(8000000));
      std::_Exit(0);
    };
    const pid_t child = ::fork();
    if (child == 0) leaveUnfinished();
    ::waitpid(child, nullptr, 0);
    ASSERT_NE(fs::file_size(path), before.size());
    EXPECT_EQ(fs::status(path + "-journal").permissions(), fs::perms(0640));
    expectRun(0, {command, "x.st"});
    EXPECT_TRUE(readFile(path) == before) << command;
    EXPECT_FALSE(fs::exists(path + "-journal"));
  }
}

// What an expression finds, one group of each match.
std::vector<std::string> findAll(const std::string& text, const char* expression) {
  const std::regex wanted(expression);
  const std::sregex_token_iterator begin(text.begin(), text.end(), wanted, 1);
  return {begin, std::sregex_token_iterator()};
}

std::string join(const std::vector<std::string>& words, const std::string& mark) {
  std::string line;
  for (const std::string& word : words)
    line += (line.empty() ? "" : " ") + mark + word + mark;
  return line;
}

TEST_F(CommandTest, SaysTheSameOfItsOptionsEverywhere) {
  const std::string readme = readFile(HX_SOURCE_DIR "/README.md");
  const std::string completion = readFile(HX_SOURCE_DIR "/tool/completion.bash");
  std::string manual = readFile(HX_SOURCE_DIR "/tool/hxcrate.1");
  manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
  expectRun(0, {"--help"});
  const std::vector<std::string> commands = findAll(out_, "\n  ([a-z]+) ");
  EXPECT_EQ(findAll(readme, "\n\\| `([a-z]+) [A-Z]"), commands);
  EXPECT_EQ(findAll(manual, "\n.B hxcrate ([a-z]+)"), commands);
  EXPECT_TRUE(contains(completion, "commands='" + join(commands, "") + " --help --version'"));
  for (const std::string& command : commands) {
    expectRun(0, {command, "--help"});
    EXPECT_TRUE(contains(out_, "\nExample:\n  hxcrate " + command)) << command;
    const std::vector<std::string> options = findAll(out_, "\n  (-[0-9a-zA-Z]|--[a-z-]+) ");
    const std::size_t row = readme.find("\n| `" + command + " ") + 1;
    EXPECT_EQ(findAll(readme.substr(row, readme.find('\n', row) - row), "`(-[^`]+)`"), options);
    const std::size_t usage = manual.find(".B hxcrate " + command + "\n");
    const std::size_t end = std::min(manual.find("\n.br", usage), manual.find("\n.SH", usage));
    EXPECT_EQ(findAll(manual.substr(usage, end - usage), " (-[^ \n]+)"), options);
    expectRun(0, {command}, "",
              "bash -c '. " HX_SOURCE_DIR "/tool/completion.bash; _hxcrate_options $1'");
    EXPECT_EQ(out_, join(options, "") + "\n");
  }
}

TEST_F(CommandTest, TellsHowStoresDiffer) {
  for (const std::string side : {"a", "b"}) {
    for (const std::size_t size : {0u, 7u, 4096u, 300000u}) {
      writeFile(directory_ / (side + "/same/" + std::to_string(size)), makeBytes(size));
    }
    writeFile(directory_ / (side + "/late"), makeBytes(300000) + side);
    writeFile(directory_ / (side + "/longer"), side == "a" ? "12" : "123");
    writeFile(directory_ / (side + "/only-" + side + "/x"), "");
    writeFile(directory_ / (side + "/kind" + (side == "a" ? "" : "/x")), "");
    expectRun(0, {"pack", "--page-size", side == "a" ? "4096" : "77", side + ".st", side});
  }
  expectRun(1, {"diff", "a.st", "b.st"});
  EXPECT_EQ(out_,
            "kind differs: kind: an item and a store\ncontents differ: late: at byte 300000\n"
            "contents differ: longer: at byte 2\nonly in a.st: only-a/\nonly in b.st: only-b/\n");
  expectRun(1, {"diff", "--json", "a.st", "b.st"});
  EXPECT_TRUE(contains(out_, "{\"path\": \"longer\", \"difference\": \"contents\", \"offset\": 2}"))
      << out_;
}

TEST_F(CommandTest, CleansUpWhenASignalEndsIt) {
  writeFile(directory_ / "in/huge", "");
  fs::resize_file(directory_ / "in/huge", 2000000000);
  expectRun(124, {"pack", "x.st", "in"}, "", "timeout -s TERM 0.2");
  EXPECT_EQ(std::distance(fs::directory_iterator(directory_.path()), {}), 1);
}

TEST_F(CommandTest, AnswersWithTheRightExitCode) {
  makeStore("x.st", {"a"});
  makeStore("damaged.st", {"a", "b", "c"});
  fs::resize_file(directory_ / "damaged.st", fs::file_size(directory_ / "damaged.st") - 100);
  writeFile(directory_ / "text", "no store");
  fs::create_directory(directory_ / "dir");
  struct Case {
    int code;
    std::vector<std::string> words;
    std::string err;
    std::string redirection = {};
  };
  const Case cases[] = {
      {0, {"--help"}, ""},
      {0, {"--version"}, ""},
      {2, {"pack", "x.st"}, "hxcrate: DIR is required (see hxcrate pack --help)\n"},
      {2, {"--nonsense"}, ""},
      {2, {"pack", "--page-size", "0", "new.st", "dir"}, ""},
      {4, {"cat", "x.st", "a", "b"}, "hxcrate: x.st: b: not found\n"},
      {4, {"ls", "absent"}, "hxcrate: absent: not found\n"},
      {4, {"ls", "text"}, "hxcrate: text: too short to be a store\n"},
      {4, {"ls", "dir"}, "hxcrate: dir: the store's file does not open (open: Is a directory)\n"},
      {4, {"ls", "x.st", "b"}, "hxcrate: x.st: b: not found\n"},
      {3,
       {"pack", "new.st", "absent"},
       "hxcrate: absent: open directory: No such file or directory\n"},
      {3, {"pack", "absent/new.st", "dir"}, ""},
      {3, {"unpack", "x.st", "text"}, "hxcrate: text: open directory: Not a directory\n"},
      {3,
       {"ls", "x.st"},
       "hxcrate: standard output: write: No space left on device\n",
       ">/dev/full"},
      {3, {"cat", "x.st", "a"}, "hxcrate: standard output: write: Bad file descriptor\n", ">&-"},
      {3, {"--help"}, "hxcrate: standard output: write: Bad file descriptor\n", ">&-"},
      {1, {"ls", "damaged.st"}, ""},
      {1, {"unpack", "damaged.st", "out"}, ""},
  };
  for (const Case& test : cases) {
    expectRun(test.code, test.words, test.redirection);
    EXPECT_TRUE(test.err.empty() || err_ == test.err) << err_;
    EXPECT_EQ(std::count(err_.begin(), err_.end(), '\n'), test.code == 0 ? 0 : 1) << err_;
  }
  EXPECT_FALSE(readTree(directory_ / "out").empty());
  EXPECT_FALSE(fs::exists(directory_ / "new.st"));
}

TEST_F(CommandTest, ShowsATerminalNothingThatItWouldObey) {
  makeStore("x.st", {"\x1b[31mred",
                     "\xc2\x9b"
                     "31m",
                     "back\\slash", "\xc3\xa4", "\xff"});
  expectRun(0, {"ls", "x.st"});
  EXPECT_TRUE(contains(out_, "\x1b[31mred\n"));
  int master = -1;
  const pid_t child = ::forkpty(&master, nullptr, nullptr, nullptr);
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::execl(HX_COMMAND_PATH, "hxcrate", "ls", (directory_ / "x.st").c_str(), nullptr);
    ::_exit(127);
  }
  std::string shown;
  char buffer[256];
  for (ssize_t n = 0; (n = ::read(master, buffer, sizeof(buffer))) > 0;) {
    shown.append(buffer, static_cast<std::size_t>(n));
  }
  ::waitpid(child, nullptr, 0);
  ::close(master);
  EXPECT_EQ(shown, "\\033[31mred\r\nback\\134slash\r\n\\302\\23331m\r\n\xc3\xa4\r\n\\377\r\n");
}

}  // namespace
