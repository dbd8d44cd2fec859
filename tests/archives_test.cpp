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
  expectSaid("in.st: 13 items are as listed, 0 are not");
  expectPrinted(0, "hxcrate sum in.st sizes/1 | cut -c1-8,65-", "df7e70e5  sizes/1\n");
  expectRun(4, "hxcrate sum in.st sizes/2");
  expectRun(4, "hxcrate sum --check in.st");
  expectSaid("in.st: .mtree: there is no manifest");
  expectRun(2, "hxcrate sum --check");
  expectRun(3, "{ cat l; echo what; } | hxcrate sum in.st --check -");
  expectSaid("-: line 14: no checksum and name");
  expectRun(1,
            "echo x >in/new; printf a >in/sizes/1; rm -r in/names; hxcrate pack b.st in;"
            "hxcrate sum b.st --check l sizes new");
  EXPECT_EQ(out_, "new: is not listed\nsizes/1: differs\n");
}

TEST_F(ArchivesTest, BytesThatAreNotThoseOfTheManifestAreNamed) {
  expectRun(0,
            "(echo '#mtree'; cd in; for f in sizes/1 mark; do printf './%s type=file size=%s "
            "sha256=%s\\n' $f $(stat -c %s $f) $(sha256sum <$f | cut -c-64); done) >m;"
            "hxcrate put in.st .mtree m");
  std::string bytes = hxtest::readFile(directory_ / "in.st");
  bytes[bytes.find("untouched")] ^= 1;
  writeFile(directory_ / "flipped.st", bytes);
  expectPrinted(1, "hxcrate sum --check=m flipped.st mark", "mark: differs\n",
                "hxcrate: flipped.st: 0 items are as listed, 1 is not\n");
  expectRun(1, "hxcrate check flipped.st");
  EXPECT_NE(out_.find(" mark: error: its bytes are not those that .mtree"), std::string::npos);
  expectRun(1, "echo more | hxcrate put --append in.st mark; hxcrate sum in.st sizes mark --check");
  EXPECT_EQ(out_,
            "mark: has grown\nsizes/0: is not listed\nsizes/300000: is not listed\n"
            "sizes/4096: is not listed\n");
  expectRun(0, "hxcrate check in.st | grep -q 'mark: note: it has grown'");
  expectRun(1,
            "printf '#mtree\\n/what\\n' >m; hxcrate copy --exclude .mtree in.st c.st;"
            "hxcrate put c.st .mtree m; hxcrate check c.st | grep '.mtree: error: '; hxcrate "
            "sum --check c.st");
}

}  // namespace
