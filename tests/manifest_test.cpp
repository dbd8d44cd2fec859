// Manifests: what is written is read again, here and by others, and hostile ones do no harm.
#include "tool/manifest/manifest.h"

#include "tests/command_fixture.h"

namespace {

using hxtest::writeFile;
using tool::Manifest;
using tool::MemberAttributes;
using Type = MemberAttributes::Type;

Manifest parse(std::string_view text) {
  return Manifest(std::as_bytes(std::span(text)));
}

const std::string kOddNames[] = {"a b", "new\nline",   "\xff\x80", "-l",      "#h",     "\xc3\xbc",
                                 "a=b", "back\\slash", "\x7f\r\t", "d/\x01x", "\\040y", "d/set"};

class ManifestTest : public hxtest::CommandFixture {};

TEST_F(ManifestTest, WhatIsWrittenIsRead) {
  tool::ManifestWriter writer;
  writer.add("", {.type = Type::folder, .mode = 01777});
  writer.add("d", {.type = Type::folder, .mode = 0755, .uid = 4000000000, .gid = 3});
  for (const std::string& name : kOddNames) {
    writer.add(name, {.mode = 04751, .user = "u s", .group = "\xc3\xbc", .modified = 5, .size = 3});
    writer.addBytes(std::as_bytes(std::span("ab", 2)));
    writer.addBytes(std::as_bytes(std::span("c", 1)));
  }
  writer.add("link", {.type = Type::symbolicLink, .modified = -1, .target = "../a b\n"});
  writer.add("hard", {.type = Type::hardLink, .target = "a b"});
  const std::string text = writer.finish();
  const Manifest manifest = parse(text);
  EXPECT_EQ(manifest.members().size(), std::size(kOddNames) + 4);
  for (const std::string& name : kOddNames) {
    const MemberAttributes* file = manifest.find(name);
    ASSERT_NE(file, nullptr) << name;
    EXPECT_EQ(std::tuple(file->mode, file->user, file->group, file->modified, file->size),
              std::tuple(04751u, "u s", "\xc3\xbc", 5, 3));
    EXPECT_EQ(tool::toHex(file->sha256.value()),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  }
  EXPECT_EQ(manifest.find("d")->uid, 4000000000);
  EXPECT_EQ(manifest.find("")->mode, 01777u);
  EXPECT_EQ(manifest.find("link")->target, "../a b\n");
  EXPECT_EQ(manifest.find("link")->modified, -1);
  EXPECT_EQ(manifest.find("hard")->type, Type::hardLink);
  EXPECT_EQ(manifest.find("hard")->target, "a b");
  writeFile(directory_ / "m", text);
  expectRun(0, "! command -v bsdtar >/dev/null || [ $(bsdtar -tf m | wc -l) = 16 ]");
}

TEST_F(ManifestTest, HostileOnesAreErrorsOrLeftOut) {
  std::string many = "#mtree\n/set";
  for (int i = 0; i < 1000; ++i)
    many += " k" + std::to_string(i) + "=v";
  const std::string value = std::string(60000, 'x') + "\n";
  std::string lines;
  for (int i = 0; i < 9000; ++i)
    lines += "./" + std::to_string(i) + "\n";
  const auto repeat = [](const std::string& line) {
    std::string all = "#mtree\n";
    for (int i = 0; i < 200; ++i)
      all += i % 2 == 0 ? line : "./\\141\\\n type=dir\n";
    return all;
  };
  for (const std::string& text :
       {many, "#mtree\n /se\\\nt flags=" + value + lines, "#mtree\n/set flags=" + value + lines,
        repeat("./a type=dir\n"), repeat("a type=dir\n"), std::string("#mtree\ntype=dir ./a\n"),
        std::string("#mtree\n./\\0a\n"), std::string("no manifest"),
        std::string("#mtree\n/what\n")})
    EXPECT_THROW(parse(text), tool::ManifestError) << text.substr(0, 30);
  const Manifest rest = parse(
      "#mtree\n./../x type=file\n./a//b type=file\n./dev type=block\n"
      "./t type=file time=99999999999999999.0\n./.mtree type=file\n./ok type=file\n");
  EXPECT_EQ(rest.members().size(), 3u);
  EXPECT_FALSE(rest.find("t")->modified);
  EXPECT_TRUE(parse("").members().empty());
}

}  // namespace
