// The reader of store files that shares nothing with the module, on good and on damaged images, and
// the commands that stand on it.

#include <sys/resource.h>

#include <algorithm>
#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <unordered_map>

#include "records/name.h"

#include "tests/command_fixture.h"
#include "tests/module_image.h"
#include "tests/transcoded_file.h"

namespace hxcrate {
namespace {

using hx::DataChunk;
using hx::Entry;
using hx::fake::Bytes;
using hx::fake::putRecord;
using hx::fake::setNamedField;
using hxtest::makeBytes;
using hxtest::writeFile;

using Contents = std::map<std::string, std::string>;  // by path; a store's are "/"

constexpr std::size_t kPageSize = 100;

const Contents kTree = {{"empty", ""},
                        {"short", makeBytes(7)},
                        {"full", makeBytes(200)},
                        {"s", "/"},
                        {"s/in", makeBytes(350)},
                        {"s/t", "/"},
                        {"s/t/deep", "x"},
                        {"s/twin", "y"},
                        {"none", "/"},
                        {"\xff\n&<", "bytes"},
                        {"z", makeBytes(333)}};

Bytes makeImage() {
  Session session;
  Store store = session.createInMemory("x.st", kPageSize);
  for (const auto& [path, bytes] : kTree)
    bytes == "/" ? store.createStore(path).close() : store.create(path).write(bytes);
  const Blob blob = store.makeBlob();
  const auto* begin = reinterpret_cast<const std::uint8_t*>(blob.bytes().data());
  return {begin, begin + blob.bytes().size()};
}

Bytes arrange(const Bytes& image) {
  Bytes arranged(image.size());
  arrangeForReading(ByteView(std::as_bytes(std::span(image)), "x.st"), "",
                    [&](std::int64_t offset, std::span<const std::byte> bytes) {
                      std::memcpy(arranged.data() + offset, bytes.data(), bytes.size());
                    });
  return arranged;
}

// The file of 331 items, empty ones too, in 30 stores. Its directory is its end.
Bytes makeFile(const std::string& path) {
  Session session;
  Store store = session.open(path, Mode::create, {.pageSize = kPageSize});
  for (std::size_t i = 0; i < 331; ++i) {
    const std::string name = "store " + std::to_string(i % 30) + "/item " + std::to_string(i);
    store.create(name, Parents::create).write(makeBytes(i % 300));
  }
  store.close();
  const std::string bytes = hxtest::readFile(path);
  return {bytes.begin(), bytes.end()};
}

// What the module reads. Throws what it refuses.
Contents readContents(const Store& store) {
  Contents contents;
  for (const Member& member : store.members()) {
    if (member.kind == MemberKind::item) {
      contents[member.name] = store.read(member.name).readText();
      continue;
    }
    contents[member.name] = "/";
    for (const auto& [path, bytes] : readContents(store.openStore(member.name)))
      contents[member.name + "/" + path] = bytes;
  }
  return contents;
}

// What the inspection says of an image, its extents put together.
struct Look {
  std::vector<Finding> findings;
  Contents contents;
  std::vector<Extent> extents;

  explicit Look(const Bytes& image, bool isThorough = false) {
    const ByteView view(std::as_bytes(std::span(image)), "x.st");
    Inspection inspection(view, [&](const Finding& finding) { findings.push_back(finding); });
    inspection.walkPages({.onExtent =
                              [&](const Extent& extent) {
                                extents.push_back(extent);
                                if (extent.kind == ByteKind::data) {
                                  contents[inspection.pathOf(extent.member)].append(
                                      reinterpret_cast<const char*>(image.data() + extent.offset),
                                      static_cast<std::size_t>(extent.length));
                                }
                              },
                          .readSlack = isThorough,
                          .adoptMembers = isThorough});
    for (std::size_t i = 1; i < inspection.members().size(); ++i) {
      const bool isStore = inspection.members()[i].kind == MemberKind::store;
      contents[inspection.pathOf(i)].append(isStore ? "/" : "");
    }
  }

  bool hasErrors() const {
    return std::any_of(findings.begin(), findings.end(),
                       [](const Finding& finding) { return finding.severity == Severity::error; });
  }

  // The API passes over members without names.
  bool isForApi() const {
    return std::none_of(findings.begin(), findings.end(), [](const Finding& finding) {
      return finding.severity == Severity::error || finding.reason.starts_with("it has no");
    });
  }

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

TEST(InspectTest, SaysWhereADamageIsAndWhatWasExpected) {
  struct Damage {
    const char* place;
    const char* field;
    const char* value;
    const char* reason;  // holds this
  };
  const Damage damages[] = {
      {"", "header.pageSizeCode", "-9223372036854775808",
       "pageSizeCode is -9223372036854775808, not 0 or -1 to -2147483647"},
      {"", "header.directoryOffset", "39",
       "directoryOffset is 39, no place for a record: those are from 40 to "},
      {"s/in", "in.firstLink", "@x.st", " there belong to the store itself"},
      {"s/in", "in.parentLink", "41", "parentLink is 41, not "},
      {"short", "short/0.capacity", "99", "capacity is 99, not 100, the page size"},
      {"short", "short/0.used", "-1", "used is -1, not 0 to 100, the page size"},
      {"z", "z/0.used", "5", "used is 5, not 100, the page size, in a page that others follow"},
      {"full", "full/0.dataOffset", "9223372036854775807",
       "dataOffset is 9223372036854775807, and 100 bytes from there are not in the file of "},
  };
  const Bytes image = makeImage();
  for (const auto& [place, field, value, reason] : damages) {
    Bytes damaged = image;
    setNamedField(damaged, field, value);
    const auto change = std::mismatch(image.begin(), image.end(), damaged.begin()).first;
    const auto at = change - image.begin();  // in the field
    std::string found;
    for (const Finding& finding : Look(damaged).findings) {
      const bool isThere = finding.offset <= at && at < finding.offset + 8;
      if (isThere && finding.place == place && finding.severity == Severity::error)
        found += finding.reason + '\n';
    }
    EXPECT_NE(found.find(reason), std::string::npos) << field << ": " << reason << '\n' << found;
  }
}

TEST(InspectTest, WhatItFindsSoundTheModuleReads) {
  const Bytes image = makeImage();
  ASSERT_TRUE(Look(image).isForApi());
  ASSERT_EQ(Look(image).contents, kTree);
  int sound = 0;
  hx::fake::forEachDamage(image, [&](const Bytes& damaged) {
    Look look(damaged);
    look.expectEveryByteOwnedOnce(damaged);
    if (!look.isForApi()) return;
    ++sound;
    Session session;
    ASSERT_NO_THROW(ASSERT_EQ(
        readContents(session.openBlob(std::as_bytes(std::span(damaged)), "x.st")), look.contents));
  });
  EXPECT_GT(sound, 100);
}

// Items of one byte each in the top store, every record and byte behind the one before.
Bytes makeFlatImage(int count, int32_t pageSize, const std::function<std::string(int)>& nameOf) {
  constexpr int64_t kTop = hx::kHeaderSize, kItem = hx::kEntrySize + hx::kChunkSize + 1;
  const auto placeOf = [](int i) { return kTop + hx::kEntrySize + i * kItem; };
  Bytes image(static_cast<std::size_t>(placeOf(count)), 0);
  putRecord(image, 0, hx::fake::headerOf(-pageSize, kTop));
  std::string("hxmok1/le/utf-8").copy(reinterpret_cast<char*>(image.data()), 15);
  putRecord(image, kTop, hx::fake::entryOf(0, 0, 0, placeOf(0), "x.st"));
  for (int i = 0; i < count; ++i) {
    const int64_t at = placeOf(i), chunk = at + hx::kEntrySize;
    const int64_t previous = i == 0 ? 0 : placeOf(i - 1), next = i + 1 < count ? placeOf(i + 1) : 0;
    putRecord(image, at, hx::fake::entryOf(kTop, previous, next, chunk, nameOf(i).c_str()));
    putRecord(image, chunk, DataChunk{chunk + hx::kChunkSize, pageSize, 1, 0});
  }
  return image;
}

// Names that all have one hash: any of two blocks of four bytes, fifteen times in a row, of which
// both lead from the hash so far to the same one.
std::vector<std::string> makeCollidingNames(std::size_t count) {
  std::vector<std::string> names = {""};
  while (names.size() < count) {
    const auto hashOf = [&](const std::string& name) {
      const std::u32string wide(name.begin(), name.end());
      return hx::hashName({wide.data(), static_cast<int32_t>(wide.size())});
    };
    std::unordered_map<std::uint32_t, std::string> blocks;
    for (std::uint32_t i = 0;; ++i) {
      std::string block(4, 'A');
      for (int digit = 0; digit < 4; ++digit)
        block[static_cast<std::size_t>(digit)] = static_cast<char>('A' + (i >> 5 * digit & 31));
      const auto [found, isNew] = blocks.emplace(hashOf(names.front() + block), block);
      if (isNew) continue;
      const std::size_t half = names.size();
      for (std::size_t name = 0; name < half; ++name) {
        names.push_back(names[name] + block);
        names[name] += found->second;
      }
      break;
    }
  }
  names.resize(count);
  return names;
}

class InspectFileTest : public hxtest::CommandFixture {
 protected:
  void writeImage(const Bytes& image) {
    writeFile(directory_ / "x.st", {image.begin(), image.end()});
  }

  // Goes before a command, that has 64 MB besides its libraries then.
  const std::string kLittleMemory = HX_SANITIZED ? "" : "ulimit -v $((64 * 1024 + 32 * 1024));";

  // Each takes little of the processor's time, and not much memory.
  void expectQuick(const std::vector<std::string>& commands) {
    constexpr double kSeconds = HX_SANITIZED ? 15 : 2;
    const auto secondsSoFar = [] {
      rusage usage{};
      ::getrusage(RUSAGE_CHILDREN, &usage);
      const auto sum = usage.ru_utime.tv_sec + usage.ru_stime.tv_sec;
      return static_cast<double>(sum) +
             1e-6 * static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    for (const std::string& command : commands) {
      const double before = secondsSoFar();
      expectRun(0, kLittleMemory + "hxcrate " + command + " || [ $? = 1 ]");
      EXPECT_LE(secondsSoFar() - before, kSeconds) << command;
    }
  }
};

// Every item's page has the whole file's length.
TEST_F(InspectFileTest, TakesLittleTimeWherePagesCoverEachOther) {
  constexpr int kItems = 40000;
  const auto nameOf = [](int i) { return std::to_string(i); };
  writeImage(makeFlatImage(kItems, 121 * kItems, nameOf));
  expectQuick({"check x.st", "stat x.st", "map x.st", "map --json x.st"});
}

// No command's time grows with the square of how many names are alike to a hash, or are the same.
TEST_F(InspectFileTest, TakesLittleTimeWhateverTheNames) {
  const std::vector<std::string> names = makeCollidingNames(32768);
  writeImage(makeFlatImage(32768, 16, [&](int i) { return names[static_cast<std::size_t>(i)]; }));
  const std::string one = "'" + names.back() + "'";
  expectQuick({"ls -lR x.st", "tree x.st", "check x.st", "diff x.st x.st", "copy x.st new.st",
               "cat x.st " + one, "put x.st new/" + one + " -p </dev/null"});
  writeImage(makeFlatImage(100000, 16, [&](int) { return names.back(); }));
  expectQuick({"ls -lR x.st", "check x.st", "diff x.st x.st", "cat x.st " + one});
}

// All items begin with one long chain of pages, which ends, goes in a circle or leads nowhere.
TEST_F(InspectFileTest, TakesLittleTimeAndMemoryWhereManyShareAChain) {
  constexpr int kItems = 20000, kPages = 60000, kPage = 16;
  for (const std::string chain : {"sound", "circle", "broken"}) {
    Bytes image = makeFlatImage(kItems, kPage, [](int i) { return std::to_string(i); });
    const auto start = static_cast<int64_t>(image.size());
    image.resize(image.size() + kPages * (hx::kChunkSize + kPage));
    for (int64_t page = 0, at = start; page < kPages; ++page, at += hx::kChunkSize + kPage) {
      const int64_t next = at + hx::kChunkSize + kPage;
      const int64_t end = chain == "sound" ? 0 : chain == "circle" ? start : 7;
      putRecord(image, at,
                DataChunk{at + hx::kChunkSize, kPage, kPage, page + 1 < kPages ? next : end});
    }
    for (const auto& [kind, at] : hx::fake::recordsOf(image))
      if (kind == 'e' && at > hx::kHeaderSize)
        putRecord(image, at + static_cast<int64_t>(offsetof(Entry, firstLink)), start);
    writeImage(image);
    expectQuick({"ls -l x.st", "tree x.st", "diff x.st x.st", "unpack x.st out", "copy x.st y.st",
                 "check x.st", "stat x.st", "cat x.st 1", "sum x.st", "export x.st t", "map x.st"});
    expectRun(0, "rm -rf out y.st t");
  }
}

// A megabyte of stores in stores, whose paths together would have 500 megabytes.
TEST_F(InspectFileTest, TakesLittleMemoryHoweverDeepTheTree) {
  constexpr int kLevels = 10900;
  Bytes image = hx::fake::deepImage(kLevels, "nnnnnnnn");
  std::string("hxmok1/le/utf-8").copy(reinterpret_cast<char*>(image.data()), 15);
  writeImage(image);
  const hxtest::TemporaryDirectory memory("/dev/shm");
  for (const std::string words : {"check x.st", "stat x.st", "map x.st", "tree x.st", "ls -R x.st",
                                  "diff x.st x.st", "copy x.st y.st", "salvage x.st new.st"})
    expectRun(0, kLittleMemory + "hxcrate " + words + " >/dev/null");
  const std::string out = memory / "out";
  expectRun(0, kLittleMemory + "hxcrate unpack x.st " + out);
  expectRun(0, "hxcrate pack z.st " + out + "; hxcrate diff x.st z.st; rm -r " + out);
  expectRun(0, "hxcrate stat --json new.st | grep '\"depth\": 10900,'");
}

TEST_F(InspectFileTest, IsSalvagedIntoPagesThatFit) {
  writeImage(makeFlatImage(2, INT32_MAX, [](int i) { return std::to_string(i); }));
  expectRun(0, "! hxcrate salvage --max-bytes 1 x.st new.st; hxcrate salvage x.st new.st");
  EXPECT_LT(std::filesystem::file_size(directory_ / "new.st"), 1000u);
}

// Nearly all of it is a hole, which is not read.
TEST_F(InspectFileTest, IsLookedAtUpToTheLongestLengthThatNumbersAllow) {
  const hxtest::TemporaryDirectory memory("/dev/shm");
  const std::string path = memory / "x.st";
  const Bytes image = makeImage();
  writeFile(path, {image.begin(), image.end()});
  std::filesystem::resize_file(path, std::uintmax_t{1} << 62);
  expectRun(0, "cd " + memory.path().string() + "\nhxcrate check x.st; hxcrate stat x.st");
  expectRun(0, "cd " + memory.path().string() + "\nhxcrate map x.st; hxcrate map --svg - x.st");
  std::filesystem::resize_file(path, (std::uintmax_t{1} << 62) + 1);
  expectRun(4, "hxcrate check " + path);
  expectSaid("longer than any store");
}

// Wherever a sector or a block of the directory was zeroed, check says so, and salvage has the
// rest.
TEST_F(InspectFileTest, LosesNothingOfItsDirectoryUnseen) {
  Bytes image = makeFile(directory_ / "x.st");
  ASSERT_FALSE(Look(image, true).hasErrors() || Look(makeImage(), true).hasErrors());
  const auto zero = [&](std::size_t at, std::size_t length) {
    Bytes damaged = image;
    std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(at), length, std::uint8_t{0});
    return damaged;
  };
  const auto damage = [&](std::size_t start, std::size_t end) {
    for (std::size_t at = start; at + 512 <= end; at += 97)
      ASSERT_TRUE(Look(zero(at, 512), true).hasErrors()) << at;
    for (std::size_t at = start; at + 4096 <= end; at += 1009)
      ASSERT_TRUE(Look(zero(at, 4096), true).hasErrors()) << at;
    for (const auto& [kind, offset] : hx::fake::recordsOf(image)) {
      const bool isEmpty = kind == 'c' && image[static_cast<std::size_t>(offset) + 8] == 0;
      if (kind == 'h' || isEmpty) continue;
      const std::size_t size = kind == 'e' ? hx::kEntrySize : hx::kChunkSize;
      ASSERT_TRUE(Look(zero(static_cast<std::size_t>(offset), size), true).hasErrors()) << offset;
      if (kind == 'e') continue;
      ASSERT_TRUE(Look(zero(static_cast<std::size_t>(offset), size + kPageSize), true).hasErrors());
    }
  };
  const std::size_t directory = 362 * hx::kEntrySize;
  const std::size_t start = image.size() - directory;
  damage(start, image.size());
  const Bytes plain = std::exchange(image, arrange(image));
  Look look(image, true);
  ASSERT_TRUE(look.findings.empty() && look.contents == Look(plain).contents);
  damage(hx::kHeaderSize, hx::kHeaderSize + directory);
  image = plain;
  writeImage(zero(start, 4096));
  expectRun(5, "hxcrate check x.st || hxcrate salvage x.st new.st");
  expectSaid("331 items and ");
  for (std::size_t at = start; at + 512 <= image.size(); at += 12007) {
    writeImage(zero(at, 512));
    for (const char* command : {"ls -R x.st", "tree x.st", "unpack x.st out", "diff x.st x.st"})
      expectRun(1, "rm -rf out; hxcrate " + std::string(command));
  }
}

TEST_F(InspectFileTest, HasEveryByteCountedOnceByTheCommands) {
  Bytes image = makeImage();
  const auto length = static_cast<std::int64_t>(image.size());
  for (const int code : {0, 1}) {
    writeImage(image);
    expectRun(0, "hxcrate map --json x.st | awk '{ n += $NF } END { print n }' FS='length\": '");
    EXPECT_EQ(out_, std::to_string(length) + "\n");
    expectRun(code, "hxcrate map --svg - x.st");
    EXPECT_NE(out_.find("&amp;&lt;"), std::string::npos) << out_;
    expectRun(code, "hxcrate stat --json x.st");
    EXPECT_NE(out_.find("\"file\": " + std::to_string(length) + "}"), std::string::npos) << out_;
    if (code == 1) continue;
    EXPECT_NE(out_.find("\"depth\": 3, \"largest\": {\"path\": \"s/in\", \"size\": 350}"),
              std::string::npos);
    setNamedField(image, "z/0.next", "-5");
  }
}

TEST_F(InspectFileTest, IsDrawnAsXmlWhateverTheNames) {
  Session session;
  Store store = session.open(directory_ / "x.st", Mode::create);
  for (const std::string name :
       {"]]>", "<a b=\"c\">&", "\x01\x7f", "\xff", "\uffff", "gpj\u202e.sh"})
    store.create(name).write(name);
  store.close();
  expectRun(0, "hxcrate map --svg - x.st");
  for (const std::string shown : {">]]&gt;<", ">&lt;a b=&quot;c&quot;&gt;&amp;<", ">\\001\\177<",
                                  ">\\377<", ">\\357\\277\\277<", ">gpj\\342\\200\\256.sh<"})
    EXPECT_NE(out_.find(shown), std::string::npos) << shown << '\n' << out_;
}

TEST_F(InspectFileTest, IsSalvagedAsFarAsItCanBeRead) {
  const Bytes image = makeImage();
  const auto first = hx::fake::recordAt<Entry>(image, hx::fake::entryOffset(image, "z")).firstLink;
  const auto second = hx::fake::recordAt<DataChunk>(image, first).next;
  struct Loss {
    const char* field;
    const char* value;
    std::function<void(Contents&)> apply;  // to the tree
  };
  const Loss losses[] = {
      {"z/0.capacity", "100", [](Contents&) {}},  // as it was
      {"z/0.next", "-5",
       [&](Contents& tree) {
         tree["lost+found"] = "/";
         tree["lost+found/item-at-" + std::to_string(second)] = tree["z"].substr(kPageSize);
         tree["z"].resize(kPageSize);
       }},
      {"short/0.capacity", "7", [](Contents& tree) { tree.erase("short"); }},
      {"s.firstLink", "9",
       [](Contents& tree) {
         tree["lost+found"] = "/";
         for (const std::string path : {"in", "t", "t/deep", "twin"})
           tree["lost+found/" + path] = tree.extract("s/" + path).mapped();
       }},
      {"header.directoryOffset", "-7",
       [](Contents& tree) {
         for (const auto& [path, bytes] : std::exchange(tree, {{"x.st", "/"}}))
           tree["x.st/" + path] = bytes;
       }},
  };
  for (const auto& [field, value, apply] : losses) {
    SCOPED_TRACE(field);
    Bytes damaged = image;
    setNamedField(damaged, field, value);
    writeImage(damaged);
    Contents expected = kTree;
    apply(expected);
    expectRun(expected == kTree ? 0 : 5, "rm -f new.st; hxcrate salvage x.st new.st");
    EXPECT_EQ(out_.empty(), expected == kTree);
    EXPECT_EQ(readContents(Session().open(directory_ / "new.st")), expected);
  }
}

}  // namespace
}  // namespace hxcrate
