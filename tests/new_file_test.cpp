// Files in the making: whole or not there, whatever ends the command and whoever meddles, and never
// readable by more people than what they were made from.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <thread>
#include <vector>

#include "tests/command_fixture.h"
#include "tool/files/copied_file.h"
#include "tool/report/report.h"

namespace {

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::writeFile;

constexpr std::uint32_t kOpensNameless = O_TMPFILE & ~O_DIRECTORY;

// What this thread and its children open must have a name.
void refuseNamelessFiles() {
  sock_filter lines[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 2 * sizeof(std::uint64_t)),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, kOpensNameless, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EOPNOTSUPP),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program = {std::size(lines), lines};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

class NewFileTest : public hxtest::CommandFixture {
 protected:
  void exchange(const std::string& one, const std::string& other) {
    ::renameat2(AT_FDCWD, (directory_ / one).c_str(), AT_FDCWD, (directory_ / other).c_str(),
                RENAME_EXCHANGE);
  }

  // With files that have no name, and on a file system that knows none.
  template <typename Story>
  void tellTwice(Story story) {
    story(true);
    std::thread([&] {
      refuseNamelessFiles();
      story(false);
    }).join();
  }
};

TEST_F(NewFileTest, LeavesNothingWhateverSignalEndsTheCommand) {
  writeFile(directory_ / "small/a", "a");
  expectRun(0,
            "mkdir in; truncate -s 400000000 in/big; hxcrate pack big.st in; mkdir out; truncate "
            "-s 2000000000 in/big");
  const std::vector<std::string> lines = {"hxcrate pack new.st in", "hxcrate put new.st a in/big",
                                          "hxcrate put new.st a - </dev/zero",
                                          "hxcrate unpack big.st out"};
  // In the foreground, or the signal would come twice, and the second one is obeyed at once.
  const auto end = [&](const std::string& signal, const std::string& line, int code) {
    expectRun(code, "ulimit -c 0; timeout --foreground -s " + signal + " 0.05 " + line);
  };
  tellTwice([&](bool isNameless) {
    std::size_t turn = 0;
    for (const char* signal : {"INT", "TERM", "HUP", "QUIT", "ALRM", "XCPU", "USR1", "USR2"})
      end(signal, lines[turn++ % lines.size()], 124);
    expectPrinted(0, "ls -A . out", ".:\nbig.st\nin\nout\nsmall\n\nout:\n");
    for (const std::string& line : lines)
      end("KILL", line, 137);
    if (!isNameless)
      expectRun(0, "hxcrate pack x.st small; hxcrate unpack x.st out; rm x.st out/a");
    expectPrinted(0, "ls -A . out", ".:\nbig.st\nin\nout\nsmall\n\nout:\n");
  });
}

// What the working directory of a pack was swapped for used to be taken for it.
TEST_F(NewFileTest, TouchesNothingThatSomebodyPutsInItsPlace) {
  writeFile(directory_ / "in/a", makeBytes(200'000'000));
  tellTwice([&](bool isNameless) {
    writeFile(directory_ / "x.st", "");
    writeFile(directory_ / "precious/x.st", "mine");
    expectRun(0, "chmod 600 precious/x.st; chmod 666 x.st");
    expectRun(0, R"((hxcrate pack --replace x.st in || echo failed >result; echo >>result) &
      until [ -e result ]; do
        for made in .hxcrate-*; do
          if [ -e "$made" ] && [ ! -L "$made" ]; then mv "$made" taken; ln -s precious "$made"; fi
        done
        sleep 0.002
      done; wait)");
    expectPrinted(0, "cat precious/x.st; stat -c %a precious/x.st", "mine600\n");
    expectPrinted(0, "cat result; find -name '.hxcrate*' | head -n 1 | wc -l; [ ! -L x.st ]",
                  isNameless ? "\n0\n" : "failed\n\n1\n");
    expectRun(0, "rm -rf .hxcrate-* taken result precious");
  });
}

TEST_F(NewFileTest, RemovesOnlyWhatACommandLeft) {
  writeFile(directory_ / "in/a", "a");
  const std::string left = ".hxcrate-0123456789abcdef";
  const std::vector<std::string> others = {
      "mkdir " + left,  "ln -s in/a " + left, "ln in/a " + left,
      "mkfifo " + left, ">.hxcrate-mine",     ">" + left + "; exec 9<" + left + "; flock 9"};
  for (const std::string& other : others)
    expectPrinted(0, other + "; hxcrate pack x.st in; ls -d .h* | wc -l; rm -r .hx* x.st", "1\n");
  expectPrinted(0, ">" + left + "; hxcrate pack x.st in; rm x.st; ls -A", "in\n");
}

// Of user 1, others' groups and ACLs.
TEST_F(NewFileTest, LetsNobodyReadWhatHeCouldNotReadBefore) {
  if (::geteuid() != 0) GTEST_SKIP() << "takes several users";
  writeFile(directory_ / "in/a", "a");
  expectRun(0, "chmod 777 .; hxcrate pack x.st in; mkdir out; cp x.st other.st");
  const auto rightsOf = [&](const std::string& name) {
    expectRun(0, "stat -c '%a %u %g' " + name);
    return out_;
  };
  struct Case {
    const char* before;  // what the source, or what is replaced, is
    const char* words;
    const char* made;
    const char* after;
  };
  const Case cases[] = {
      {"6755 1 2", "pack --replace x.st in", "x.st", "755 1 2\n"},
      {"640 1 2", "unpack --overwrite other.st out", "out/a", "640 1 2\n"},
      {"600 1 2", "copy x.st y.st", "y.st", "600 0 2\n"},
      {"640 1 2", "copy --encoding hxmok1/be/utf-8 x.st y.st", "y.st", "640 0 2\n"},
      {"666 0 0", "copy x.st y.st", "y.st", "644 0 0\n"},
      {"600 1 2", "salvage x.st y.st", "y.st", "600 0 2\n"},
      {"604 0 0", "copy --page-size 9 x.st y.st", "y.st", "604 0 0\n"},
  };
  for (const auto& [before, words, made, after] : cases) {
    const std::string name = std::string(made) == "y.st" ? "x.st" : made;
    expectRun(0, "umask 022; set -- " + std::string(before) + "; rm -f y.st; >>" + name +
                     "; chown $2:$3 " + name + "; chmod $1 " + name);
    const std::string run = std::string("umask 022; rm -f y.st; hxcrate ") + words;
    tellTwice([&](bool) { expectRun(0, run); });
    EXPECT_EQ(rightsOf(made), after) << words;
  }
  const std::string asUser = "setpriv --reuid=1 --regid=1 --clear-groups hxcrate ";
  expectRun(0, "rm -f y.st; chown 0:5 x.st; chmod 664 x.st; cp x.st before");
  expectRun(3, asUser + "pack --replace x.st in");
  expectSaid("hxcrate: x.st: keep its owner and group: Operation not permitted\n");
  expectRun(0, "cmp x.st before; chmod 644 x.st; " + asUser + "copy x.st y.st");
  EXPECT_EQ(rightsOf("y.st"), "644 1 1\n");
  expectRun(0, "rm y.st; chmod 640 x.st; chown 0:1 x.st; cp -p x.st z.st; chown 1:5 z.st");
  expectRun(0, asUser + "copy z.st y.st");
  EXPECT_EQ(rightsOf("y.st"), "600 1 1\n");
  expectRun(0, "rm y.st; chmod 604 z.st; " + asUser + "copy z.st y.st");
  EXPECT_EQ(rightsOf("y.st"), "600 1 1\n");  // group 5 are others now
}

// Who may rename in the folder does not choose the rights of what others make there: here he gives
// his file the name when the source is scanned, and the other one its own when that is read.
TEST_F(NewFileTest, TakesNoRightsFromWhatTookTheNameOfTheReplaced) {
  expectRun(0, "mkdir in; (cd in; seq 500 | xargs touch); hxcrate pack x.st in");
  expectRun(0, "chmod 600 x.st; >mine; chmod 666 mine");
  const int events = ::inotify_init1(IN_CLOEXEC);
  ASSERT_GE(::inotify_add_watch(events, (directory_ / "in").c_str(), IN_OPEN | IN_ONESHOT), 0);
  std::thread stranger([&] {
    inotify_event event{};
    for (int left = 2; left > 0 && ::read(events, &event, sizeof(event)) > 0;) {
      if ((event.mask & IN_OPEN) == 0) continue;
      --left;
      exchange("x.st", "mine");
      ::inotify_add_watch(events, (directory_ / "in/1").c_str(), IN_OPEN | IN_ONESHOT);
    }
  });
  expectRun(3, "hxcrate pack --replace x.st in");
  expectSaid("hxcrate: x.st: somebody gave its name to another file\n");
  expectRun(0, "cat in/1");
  stranger.join();
  ::close(events);
}

TEST_F(NewFileTest, CopiesOnlyTheFileWhoseRightsItTook) {
  expectRun(0, "mkdir in; hxcrate pack x.st in; cp x.st other.st");
  const std::string path = directory_ / "x.st";
  const tool::CopiedFile source(path);
  hxcrate::Session session;
  for (const bool isOther : {false, true}) {
    if (isOther) exchange("x.st", "other.st");
    const auto look = [&] { source.requireIn(session.open(path)); };
    const auto inspect = [&] { source.requireIn(hxcrate::InspectedFile(path)); };
    if (isOther) {
      EXPECT_THROW(look(), tool::Failure);
      EXPECT_THROW(inspect(), tool::Failure);
    } else {
      EXPECT_NO_THROW(look());
      EXPECT_NO_THROW(inspect());
    }
  }
}

// Here somebody gives the name to a file that all may read as soon as the source is read.
TEST_F(NewFileTest, TakesNoRightsFromWhatTookTheNameOfTheSource) {
  expectRun(0, "mkdir in; (cd in; seq 3000 | xargs touch); hxcrate pack x.st in; cp x.st mine");
  expectRun(0, "chmod 600 x.st; chmod 666 mine");
  for (const char* command : {"salvage", "copy"}) {
    const int events = ::inotify_init1(IN_CLOEXEC);
    ASSERT_GE(::inotify_add_watch(events, (directory_ / "x.st").c_str(), IN_ACCESS), 0);
    std::thread stranger([&] {
      inotify_event event{};
      if (::read(events, &event, sizeof(event)) > 0) exchange("x.st", "mine");
    });
    expectRun(0, "rm -f y.st; hxcrate " + std::string(command) + " x.st y.st || [ $? = 3 ]");
    expectPrinted(0, "find y.st -perm /077 2>/dev/null || :; cat x.st mine >/dev/null", "");
    stranger.join();
    ::close(events);
    exchange("x.st", "mine");
  }
}

TEST_F(NewFileTest, KeepsTheAclOfWhatItReplacesOrCopies) {
  writeFile(directory_ / "in/a", "a");
  expectRun(0, "hxcrate pack x.st in");
  // Version 2; entries of tag, permissions, id: owner rw, user 1 r, group none, mask r, others
  // none.
  const std::string none(4, '\xff');
  const std::string acl = std::string("\2\0\0\0", 4) + std::string("\1\0\6\0", 4) + none +
                          std::string("\2\0\4\0\1\0\0\0", 8) + std::string("\4\0\0\0", 4) + none +
                          std::string("\20\0\4\0", 4) + none + std::string("\40\0\0\0", 4) + none;
  const std::string path = directory_ / "x.st";
  if (::setxattr(path.c_str(), "system.posix_acl_access", acl.data(), acl.size(), 0) != 0) {
    GTEST_SKIP() << "this file system keeps no ACLs";
  }
  expectRun(0, "hxcrate pack --replace x.st in; hxcrate copy x.st y.st");
  for (const char* name : {"x.st", "y.st"}) {
    std::string found(1000, '\0');
    const ssize_t length = ::getxattr((directory_ / name).c_str(), "system.posix_acl_access",
                                      found.data(), found.size());
    found.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    EXPECT_EQ(found, acl) << name;
  }
}

}  // namespace
