// Checksums and archives: a tree goes through the command and through the tools that others have,
// both ways.

#include "tests/command_fixture.h"

namespace {

using hxtest::makeBytes;
using hxtest::writeFile;

class ArchivesTest : public hxtest::CommandFixture {
 protected:
  void SetUp() override {
    for (const std::size_t length : {0u, 1u, 4096u, 300000u})
      writeFile(directory_ / ("in/sizes/" + std::to_string(length)), makeBytes(length));
    for (const std::string name :
         {"a b", "new\nline", "\xff\x80", "-l", "#h", "back\\slash", "\xc3\xbc", "c\rr"})
      writeFile(directory_ / ("in/names/" + name + "/" + name), name);
    writeFile(directory_ / "in/mark", "untouched");
    expectRun(0, "mkdir -p in/empty/emptier; hxcrate pack in.st in");
  }
};

TEST_F(ArchivesTest, SumsAreThoseOfSha256sumAndTellWhatDiffers) {
  expectRun(0, "hxcrate sum in.st >l; cd in; sha256sum --quiet -c ../l; test $(wc -l <../l) = 13");
  expectRun(0, "(cd in; find . -type f -exec sha256sum {} +) | hxcrate sum --check - in.st");
  expectSaid("in.st: 13 items are as listed\n");
  expectRun(0, "sed 's/$/\\r/' l | hxcrate sum --check - in.st");
  expectPrinted(0, "hxcrate sum in.st sizes/1 | cut -c1-8,65-", "df7e70e5  sizes/1\n");
  expectRun(4, "hxcrate sum in.st sizes/2");
  expectRun(4, "hxcrate sum --check in.st");
  expectSaid("in.st: .mtree: there is no manifest");
  expectRun(2, "hxcrate sum --check");
  expectRun(3, "{ cat l; echo what; } | hxcrate sum in.st --check -");
  expectSaid("-: line 14: it does not begin with a checksum");
  expectRun(3, "{ sed 's/^..../0000/' l; cat l; } | hxcrate sum in.st --check -");
  expectPrinted(0, "{ echo '# of'; echo; cat l; } | hxcrate sum in.st --check - 2>e", "");
  expectPrinted(3, "{ cat l; seq 99; } | hxcrate sum in.st --check - 2>&1 | grep -c line && exit 3",
                "21\n");
  for (const std::string list : {"", "what\n", "#mtree\n./mark type=file size=9\n"}) {
    writeFile(directory_ / "m", list);
    expectRun(3, "hxcrate sum --check m in.st");
    expectSaid("m: there is no checksum (SHA-256) in it\n");
  }
  expectRun(1,
            "echo x >in/new; printf a >in/sizes/1; rm -r in/names; hxcrate pack b.st in;"
            "hxcrate sum b.st --check l sizes new");
  EXPECT_EQ(out_, "new: is not listed\nsizes/1: differs\n");
  expectSaid("b.st: 3 items are as listed, 1 differs, 1 is not listed\n");
}

TEST_F(ArchivesTest, BytesThatAreNotThoseOfTheManifestAreNamed) {
  expectRun(0,
            "(echo '#mtree'; cd in; for f in sizes/1 mark; do printf './%s type=file size=%s "
            "sha256=%s\\n' $f $(stat -c %s $f) $(sha256sum <$f | cut -c-64); done) >m;"
            "echo ./sizes/0 type=file size=0 >>m; hxcrate put in.st .mtree m");
  expectRun(0, "sed 's/=[0-9a-f]*$/\\U&/' m | hxcrate sum --check - in.st sizes/1 mark");
  std::string bytes = hxtest::readFile(directory_ / "in.st");
  bytes[bytes.find("untouched")] ^= 1;
  writeFile(directory_ / "flipped.st", bytes);
  expectPrinted(1, "hxcrate sum --check=m flipped.st mark", "mark: differs\n",
                "hxcrate: flipped.st: 0 items are as listed, 1 differs\n");
  expectRun(1, "hxcrate check flipped.st");
  EXPECT_NE(out_.find(" mark: error: its bytes are not those that .mtree"), std::string::npos);
  expectRun(1, "echo more | hxcrate put --append in.st mark; hxcrate sum in.st sizes mark --check");
  EXPECT_EQ(out_,
            "mark: has grown\nsizes/0: is listed without a checksum\nsizes/300000: is not listed\n"
            "sizes/4096: is not listed\n");
  expectRun(0, "hxcrate check in.st | grep -q 'mark: note: it has grown'");
  expectRun(1,
            "printf '#mtree\\n/what\\n' >m; hxcrate copy --exclude .mtree in.st c.st;"
            "hxcrate put c.st .mtree m; hxcrate check c.st | grep '.mtree: error: '; hxcrate "
            "sum --check c.st");
}

// Goes before a line that needs the tool: without it the line is passed over, and that is said.
std::string with(const std::string& tool) {
  return "command -v " + tool + " >/dev/null || { echo no " + tool + " >&2; exit 0; }; ";
}

TEST_F(ArchivesTest, ATreeGoesThroughArchivesAndBack) {
  expectRun(0,
            "cd in; chmod 640 mark; touch -d @1000000001.5 mark; chmod 711 .; ln mark names/hard;"
            "ln -s ../mark empty/link; tar --format pax -cf ../in.tar .; tar --format pax -cf - . "
            "| gzip >../in.tgz");
  expectRun(
      0,
      "hxcrate import --attributes a.st in.tgz; hxcrate import --attributes b.st - <in.tar;"
      "hxcrate diff a.st b.st; hxcrate sum --check a.st; cat in.tar | hxcrate import "
      "--attributes --page-size 64 c.st -; hxcrate diff a.st c.st; hxcrate import --attributes "
      "--dry-run d.st in.tar");
  const auto size = std::to_string(std::filesystem::file_size(directory_ / "a.st"));
  expectSaid("a file of " + size + " bytes");
  expectRun(0,
            "mkdir out; hxcrate export a.st | tar x -C out; diff -r in out; cd out;"
            "stat -c %a.%.1Y mark; stat -c %a .; readlink empty/link; [ names/hard -ef mark ]");
  EXPECT_EQ(out_, "640.1000000001.5\n711\n../mark\n");
  for (const std::string name : {"x.cpio", "x.zip", "x.tar.xz"})
    expectRun(0, with("bsdtar") + "hxcrate export a.st " + name + " || test $?" + name +
                     " = 5x.zip; mkdir x; bsdtar xf " + name +
                     " -C x; rm -rf in/names/back* x/names/back*; diff -r in x; rm -r x");
  expectRun(4, "hxcrate export a.st in.tar");
  expectRun(4, "hxcrate export absent.st >/dev/null");
  expectRun(
      0, with("unzip") + "mkdir x; cd x; unzip -q ../x.zip 'sizes/*'; diff -r sizes ../in/sizes");
  expectRun(0, with("zip") +
                   "cd in; zip -qry ../z.zip sizes mark empty; hxcrate import --attributes "
                   "../z.st ../z.zip; hxcrate sum ../z.st | sha256sum --quiet -c");
  for (const std::string form : {"newc", "odc", "7zip", "ustar"})
    expectRun(
        0,
        with("bsdtar") + "cd in; bsdtar --format " + form +
            " -cf ../f mark sizes names/hard;"
            "rm -f ../f.st; hxcrate import --attributes ../f.st ../f; hxcrate sum --check ../f.st;"
            "hxcrate sum ../f.st | sha256sum --quiet -c; hxcrate cat ../f.st names/hard | cmp - "
            "mark; test " +
            form + " = 7zip || cat ../f | hxcrate import --replace ../f.st -");
  expectPrinted(0,
                "mkdir u; touch u/e\u0301; tar --format pax -c u | hxcrate import u.st -;"
                "hxcrate ls u.st u",
                "e\u0301\n");
  expectRun(124,
            "truncate -s 60G u/big; (tar c u/big | head -c 512; cat /dev/zero) |"
            "timeout -s INT -k 5 1 hxcrate import --exclude big x.st -");
}

TEST_F(ArchivesTest, WhatComesOutIsNoMorePublicThanTheStore) {
  expectRun(
      0,
      "chmod 600 in.st; touch -d @5 in.st; hxcrate export in.st out.tar; TZ=UTC tar tvf out.tar "
      "mark empty | tr -s ' ' | cut -d' ' -f1,3-; stat -c %a out.tar");
  EXPECT_EQ(out_,
            "drwx------ 0 1970-01-01 00:00 empty/\ndrwx------ 0 1970-01-01 00:00 "
            "empty/emptier/\n-rw------- 9 1970-01-01 00:00 mark\n600\n");
  expectRun(0, "hxcrate export in.st >a.tar; hxcrate export in.st >b.tar; cmp a.tar b.tar");
  expectRun(3, "{ trap '' PIPE; hxcrate export in.st; } >/dev/full");
  expectSaid("standard output: write: No space left on device");
}

TEST_F(ArchivesTest, NothingOfAHostileArchiveIsTakenOrItIsLeftOutByName) {
  expectRun(
      0,
      "mkdir a b; cd a; echo 1 >up; ln -s /etc sl; mkdir d; echo 2 >d/f; mkfifo p; tar cPf ../h "
      "d/f d/f sl p --transform 's,^up,../up,;s,^d/g,/abs,;s,^d/h,d/f/under,' up;"
      "rm sl; mkdir sl; echo 3 >sl/under; mv d/f d/g; echo >d/h; echo >d/$(printf %065d 0);"
      "tar rPf ../h --transform 's,^d/g,/abs,;s,^d/h,d/f/under,' d/g d/h d/0* sl/under; echo 4 >ok;"
      "tar rf ../h ok");
  expectRun(3, "hxcrate import h.st h");
  for (const char* said :
       {"/abs: its path leads out", "d/f: there is another", "sl: skipped: a symbolic",
        "p: skipped", "d/f/under: it lies in", ": a name of 65", "5 entries can't"})
    expectSaid(said);
  expectRun(3, "cat h | hxcrate import h.st -");
  expectSaid("nothing was imported");
  expectPrinted(5, "! [ -e h.st ]; hxcrate import --skip --attributes h.st h 2>e; exit $?", "");
  expectPrinted(0, "hxcrate sum --check h.st 2>e; hxcrate ls -R h.st", ".mtree\nd/\nd/f\nok\n");
  expectRun(3, "head -c 700 h | hxcrate import x.st -");
  expectRun(3, "hxcrate import x.st in.st");
  expectRun(3, "echo >x.st; hxcrate import --replace x.st - </dev/null");
  expectSaid("standard input: is empty: no archive");
  expectRun(3, "test $(wc -c <x.st) = 1; rm x.st; hxcrate import x.st /");
  expectSaid("/: read: Is a directory");
  for (const std::string format : {"zip", "7zip"}) {
    expectRun(3, with("bsdtar") + "bsdtar -c --format " + format +
                     " -f - a | cat | hxcrate import x.st - || exit 3");
    expectSaid("is imported from a file");
  }
  expectRun(0,
            "cd a; tar cPf ../deep d/g --transform s,^,$(printf 'a/%.0s' $(seq 30000)),;"
            "cd ..; (" +
                std::string(HX_SANITIZED ? "" : "ulimit -v 400000;") +
                "hxcrate import x.st deep); rm x.st");
  expectRun(3, "echo 123 >q; ln q r; tar cf l q r; hxcrate import --max-bytes 7 x.st l");
  expectSaid("l: r: its 4 bytes go beyond the 7 allowed");
  for (const std::string most : {"bytes 7", "bytes 3", "entries 1"})
    expectRun(3, "cat l | hxcrate import --max-" + most + " x.st -");
  expectPrinted(0, "ls x.st 2>e || hxcrate export h.st | tar tv | cut -c1,49-",
                "dd/\n-d/f\n-ok\nlsl -> /etc\n");
}

}  // namespace
