// The reader of store files that shares nothing with the module, on good and on damaged images, and
// the commands that stand on it.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <map>
#include <regex>

#include "tests/module_image.h"
#include "tests/temporary_directory.h"

namespace hxcrate {
namespace {

using hx::DataChunk;
using hx::Entry;
using hx::Header;
using hx::fake::Bytes;
using hx::fake::entryOffset;
using hx::fake::recordAt;
using hx::fake::setField;
using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::writeFile;

using Contents = std::map<std::string, std::string>;  // by path; a store's are "/"

constexpr std::int32_t kPageSize = 100;

const Contents kTree = {{"empty", ""},       {"short", makeBytes(7)},  {"full", makeBytes(200)},
                        {"s", "/"},          {"s/in", makeBytes(150)}, {"s/t", "/"},
                        {"s/t/deep", "x"},   {"s/twin", "y"},          {"none", "/"},
                        {"\xff\n", "bytes"}, {"z", makeBytes(333)}};

Bytes toBytes(std::span<const std::byte> bytes) {
  const auto* begin = reinterpret_cast<const std::uint8_t*>(bytes.data());
  return {begin, begin + bytes.size()};
}

Bytes makeImage() {
  Session session;
  Store store = session.createInMemory("x.st", kPageSize);
  for (const auto& [path, bytes] : kTree) {
    if (bytes == "/") {
      store.createStore(path).close();
    } else {
      store.create(path).write(bytes);
    }
  }
  const Blob blob = store.makeBlob();
  return toBytes(blob.bytes());
}

void readInto(const Store& store, const std::string& prefix, Contents& contents) {
  for (const Member& member : store.members()) {
    const std::string path = prefix + member.name;
    if (member.kind == MemberKind::store) {
      contents[path] = "/";
      readInto(store.openStore(member.name), path + "/", contents);
    } else {
      const std::vector<std::byte> bytes = store.read(member.name).readAll();
      contents[path] = {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
  }
}

// What the module reads of a file. Throws what it refuses.
Contents readContents(const std::string& path) {
  Session session;
  Contents contents;
  readInto(session.open(path), "", contents);
  return contents;
}

Contents readContents(const Bytes& image) {
  Session session;
  Contents contents;
  readInto(session.openBlob(std::as_bytes(std::span(image)), "x.st"), "", contents);
  return contents;
}

// What the inspection says of an image, its extents put together.
struct Look {
  std::vector<Finding> findings;
  Contents contents;
  std::vector<Extent> extents;

  explicit Look(const Bytes& image) {
    const ByteView view(std::as_bytes(std::span(image)), "x.st");
    Inspection inspection(view, [&](const Finding& finding) { findings.push_back(finding); });
    inspection.walkPages({.onExtent = [&](const Extent& extent) {
      extents.push_back(extent);
      if (extent.kind == ByteKind::data) {
        contents[inspection.pathOf(extent.member)].append(
            reinterpret_cast<const char*>(image.data() + extent.offset),
            static_cast<std::size_t>(extent.length));
      }
    }});
    for (std::size_t i = 1; i < inspection.members().size(); ++i) {
      const bool isStore = inspection.members()[i].kind == MemberKind::store;
      contents[inspection.pathOf(i)].append(isStore ? "/" : "");
    }
  }

  bool hasErrors() const { return std::any_of(findings.begin(), findings.end(), isError); }
  bool hasNameless() const { return std::any_of(findings.begin(), findings.end(), isNameless); }
  static bool isError(const Finding& finding) { return finding.severity == Severity::error; }
  static bool isNameless(const Finding& finding) { return finding.reason.starts_with("it has no"); }

  void expectEveryByteOwnedOnce(const Bytes& image) {
    std::sort(extents.begin(), extents.end(),
              [](const Extent& a, const Extent& b) { return a.offset < b.offset; });
    std::int64_t end = 0;
    for (const Extent& extent : extents) {
      ASSERT_EQ(extent.offset, end);
      ASSERT_GT(extent.length, 0);
      end += extent.length;
    }
    ASSERT_EQ(end, static_cast<std::int64_t>(image.size()));
  }
};

// Sets a field of a record and returns where the field is.
template <typename Record, typename Field, typename Value>
std::int64_t put(Bytes& image, std::int64_t record, Field Record::*field, Value value) {
  setField(image, record, field, static_cast<Field>(value));
  const Record layout{};
  return record +
         (reinterpret_cast<const char*>(&(layout.*field)) - reinterpret_cast<const char*>(&layout));
}

std::int64_t chunkOf(const Bytes& image, const std::string& name) {
  return recordAt<Entry>(image, entryOffset(image, name)).firstLink;
}

struct Damage {
  std::string place;
  std::function<std::int64_t(Bytes&)> apply;  // returns where the finding is to be
  std::string reason;                         // how it begins
};

const std::vector<Damage> kDamages = {
    {"", [](Bytes& i) { return put(i, 0, &Header::pageSizeCode, INT64_MIN); },
     "pageSizeCode is -9223372036854775808, not 0 or -1 to -2147483647"},
    {"", [](Bytes& i) { return put(i, 0, &Header::directoryOffset, 39); },
     "directoryOffset is 39, no place for a record: those are from 40 to "},
    {"s/in", [](Bytes& i) { return put(i, entryOffset(i, "in"), &Entry::firstLink, INT64_MIN); },
     "firstLink is -9223372036854775808, no place for a record"},
    {"s",
     [](Bytes& i) {
       const std::int64_t top = recordAt<Header>(i, 0).directoryOffset;
       return put(i, entryOffset(i, "s"), &Entry::firstLink, -top);
     },
     "firstLink is -"},
    {"s/in", [](Bytes& i) { return put(i, entryOffset(i, "in"), &Entry::parentLink, 41); },
     "parentLink is 41, not "},
    {"short", [](Bytes& i) { return put(i, chunkOf(i, "short"), &DataChunk::capacity, 99); },
     "capacity is 99, not 100, the page size"},
    {"short", [](Bytes& i) { return put(i, chunkOf(i, "short"), &DataChunk::used, -1); },
     "used is -1, not 0 to 100, the page size"},
    {"z", [](Bytes& i) { return put(i, chunkOf(i, "z"), &DataChunk::used, 5); },
     "used is 5, not 100, the page size, in a page that others follow"},
    {"full", [](Bytes& i) { return put(i, chunkOf(i, "full"), &DataChunk::dataOffset, INT64_MAX); },
     "dataOffset is 9223372036854775807, and 100 bytes from there are not in the file of "},
    {"z", [](Bytes& i) { return put(i, chunkOf(i, "z"), &DataChunk::dataOffset, 30); },
     "dataOffset is 30, and 100 bytes from there are not in the file"},
    {"z", [](Bytes& i) { return put(i, chunkOf(i, "z"), &DataChunk::next, 2000000); },
     "next is 2000000, no place for a record"},
};

TEST(InspectTest, SaysWhereADamageIsAndWhatWasExpected) {
  for (const auto& [place, apply, reason] : kDamages) {
    Bytes image = makeImage();
    const std::int64_t offset = apply(image);
    const Look look(image);
    EXPECT_TRUE(std::any_of(look.findings.begin(), look.findings.end(),
                            [&, &at = place, &why = reason](const Finding& finding) {
                              return finding.place == at && finding.offset == offset &&
                                     finding.reason.starts_with(why);
                            }))
        << place << ": " << reason;
  }
}

TEST(InspectTest, WhatItFindsSoundTheModuleReads) {
  const Bytes image = makeImage();
  ASSERT_FALSE(Look(image).hasErrors());
  ASSERT_EQ(Look(image).contents, kTree);
  int sound = 0;
  hx::fake::forEachDamage(image, [&](const Bytes& damaged) {
    Look look(damaged);
    look.expectEveryByteOwnedOnce(damaged);
    // The API passes over members without names.
    if (look.hasErrors() || look.hasNameless()) return;
    ++sound;
    ASSERT_NO_THROW(ASSERT_EQ(readContents(damaged), look.contents));
  });
  EXPECT_GT(sound, 100);
}

TEST(InspectTest, TurnsAFileIntoTheOtherByteOrderAndBack) {
  const hxtest::TemporaryDirectory directory;
  const Bytes image = makeImage();
  const std::string native(image.begin(), image.end());
  writeFile(directory / "x.st", native);
  transcode(InspectedFile(directory / "x.st"), "hxmok1/be/utf-8", directory / "be.st");
  transcode(InspectedFile(directory / "be.st"), "hxmok1/le/utf-8", directory / "le.st");
  EXPECT_EQ(readFile(directory / "le.st"), native);
  const std::string turned = readFile(directory / "be.st");
  EXPECT_EQ(turned.size(), native.size());
  EXPECT_EQ(readContents(directory / "be.st"), kTree);
  EXPECT_EQ(Look(Bytes(turned.begin(), turned.end())).contents, kTree);

  EXPECT_THROW(transcode(InspectedFile(directory / "x.st"), "hxmok1/be/utf-8", directory / "be.st"),
               Error);
  writeFile(directory / "cut.st", native.substr(0, native.size() - 1));
  EXPECT_THROW(
      transcode(InspectedFile(directory / "cut.st"), "hxmok1/be/utf-8", directory / "no.st"),
      Error);
  EXPECT_FALSE(std::filesystem::exists(directory / "no.st"));
}

// Runs the command and returns its exit code; `out` gets what it printed.
int run(const std::string& words, std::string& out, const std::string& directory = "/") {
  const std::string command =
      "cd '" + directory + "' && " HX_COMMAND_PATH " " + words + " 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  out.clear();
  for (int c = 0; (c = std::fgetc(pipe)) != EOF;)
    out += static_cast<char>(c);
  const int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Every tag that begins ends, in its turn.
bool isWellFormed(const std::string& xml) {
  const std::regex tag("<(/?)([a-z]+)[^<>]*?(/?)>");
  std::vector<std::string> open;
  for (std::sregex_iterator i(xml.begin(), xml.end(), tag), end; i != end; ++i) {
    if ((*i)[1].length() == 0) open.push_back((*i)[2]);
    if ((*i)[3].length() == 0 && (*i)[1].length() == 0) continue;
    if (open.empty() || open.back() != (*i)[2]) return false;
    open.pop_back();
  }
  const std::string text = std::regex_replace(xml, tag, "");
  return open.empty() && text.find_first_of("<>") == std::string::npos;
}

std::int64_t addAll(const std::string& text, const char* expression) {
  std::int64_t sum = 0;
  const std::regex number(expression);
  for (std::sregex_iterator i(text.begin(), text.end(), number), end; i != end; ++i)
    sum += std::stoll((*i)[1]);
  return sum;
}

TEST(InspectTest, CommandsCountEveryByteOnce) {
  const hxtest::TemporaryDirectory directory;
  const std::string path = directory / "x.st";
  Bytes image = makeImage();
  const std::int64_t length = static_cast<std::int64_t>(image.size());
  for (const int code : {0, 1}) {
    writeFile(path, {image.begin(), image.end()});
    std::string out;
    EXPECT_EQ(run("map --json " + path, out), code);
    EXPECT_EQ(addAll(out, "\"length\": ([0-9]+)"), length);
    EXPECT_EQ(run("map " + path, out), code);
    EXPECT_EQ(addAll(out, "\n +([0-9]+)  [Hec#.-]  "), length);
    EXPECT_EQ(run("map --svg - " + path, out), code);
    EXPECT_TRUE(isWellFormed(out)) << out;
    EXPECT_EQ(run("stat --json " + path, out), code);
    EXPECT_NE(out.find("\"file\": " + std::to_string(length) + "}"), std::string::npos) << out;
    if (code == 0) {
      EXPECT_TRUE(out.starts_with("{\"store\": \"" + path +
                                  "\", \"name\": \"x.st\", \"encoding\": \"hxmok1/le/utf-8\", "
                                  "\"pageSize\": 100, \"stores\": 4, \"items\": 8, \"depth\": 3, "
                                  "\"largest\": {\"path\": \"z\", \"size\": 333}, \"bytes\": "))
          << out;
    }
    if (code == 0) put(image, chunkOf(image, "z"), &DataChunk::next, -5);
  }
}

TEST(InspectTest, CommandsAnswerWithTheRightExitCode) {
  const hxtest::TemporaryDirectory directory;
  const Bytes image = makeImage();
  writeFile(directory / "x.st", {image.begin(), image.end()});
  writeFile(directory / "short", "no store");
  writeFile(directory / "unknown", "??" + std::string(image.begin() + 2, image.end()));
  const std::pair<const char*, int> cases[] = {
      {"salvage x.st new.st", 0},
      {"salvage x.st new.st", 4},
      {"salvage absent no.st", 4},
      {"salvage short no.st", 4},
      {"salvage unknown no.st", 4},
      {"salvage --encoding hxmok1/le/utf-8 unknown told.st", 0},
      {"salvage --encoding other unknown no.st", 2},
      {"salvage --page-size 0 x.st no.st", 2},
      {"salvage x.st absent/no.st", 4},
      {"check short", 4},
      {"stat unknown", 4},
      {"map --svg x.st x.st", 3},
  };
  for (const auto& [words, code] : cases) {
    std::string out;
    EXPECT_EQ(run(words, out, directory.path()), code) << words;
    EXPECT_EQ(out, "") << words;
    EXPECT_FALSE(std::filesystem::exists(directory / "no.st")) << words;
  }
  EXPECT_EQ(readContents(directory / "told.st"), kTree);
}

struct Loss {
  std::function<void(Bytes&)> apply;
  // Makes of the tree what is kept; the image is the sound one.
  std::function<void(Contents&, const Bytes&)> expect;
};

void moveToLostAndFound(Contents& tree, const std::string& path) {
  tree["lost+found"] = "/";
  tree["lost+found/" + path.substr(path.find('/') + 1)] = tree[path];
  tree.erase(path);
}

const std::vector<Loss> kLosses = {
    {[](Bytes&) {}, [](Contents&, const Bytes&) {}},
    {[](Bytes& i) { put(i, chunkOf(i, "z"), &DataChunk::next, -5); },
     [](Contents& tree, const Bytes& i) {
       const auto rest = recordAt<DataChunk>(i, chunkOf(i, "z")).next;
       tree["lost+found"] = "/";
       tree["lost+found/item-at-" + std::to_string(rest)] = tree["z"].substr(kPageSize);
       tree["z"].resize(kPageSize);
     }},
    {[](Bytes& i) { put(i, chunkOf(i, "short"), &DataChunk::capacity, 7); },
     [](Contents& tree, const Bytes&) { tree.erase("short"); }},
    {[](Bytes& i) { put(i, entryOffset(i, "s"), &Entry::firstLink, 9); },
     [](Contents& tree, const Bytes&) {
       for (const char* path : {"s/in", "s/t", "s/t/deep", "s/twin"})
         moveToLostAndFound(tree, path);
     }},
    {[](Bytes& i) { put(i, 0, &Header::directoryOffset, -7); },
     [](Contents& tree, const Bytes&) {
       for (const auto& [path, bytes] : Contents(tree)) {
         tree["x.st/" + path] = bytes;
         tree.erase(path);
       }
       tree["x.st"] = "/";
     }},
};

TEST(InspectTest, SalvagesAllThatCanBeRead) {
  const hxtest::TemporaryDirectory directory;
  const Bytes image = makeImage();
  for (const Loss& loss : kLosses) {
    SCOPED_TRACE(&loss - kLosses.data());
    Bytes damaged = image;
    loss.apply(damaged);
    Contents expected = kTree;
    loss.expect(expected, image);
    writeFile(directory / "x.st", {damaged.begin(), damaged.end()});
    std::filesystem::remove(directory / "new.st");
    std::string out;
    const std::string words = "salvage " + (directory / "x.st") + " " + (directory / "new.st");
    EXPECT_EQ(run(words, out), expected == kTree ? 0 : 5) << out;
    EXPECT_EQ(out.empty(), expected == kTree);
    EXPECT_EQ(readContents(directory / "new.st"), expected);
    EXPECT_EQ(run(words, out), 4) << "it is there already";
  }
}

}  // namespace
}  // namespace hxcrate
