// Views, single members and listings of the C++ API, over every kind of store.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <hxcrate/crate.hpp>
#include <map>
#include <random>

#include "tests/api_errors.h"
#include "tests/temporary_directory.h"
#include "tests/transcoded_file.h"

namespace hxcrate {
namespace {

using hxtest::makeBytes;
using hxtest::TemporaryDirectory;
using Items = std::map<std::string, std::string>;

std::string textOf(std::span<const std::byte> bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class ViewTest : public testing::Test {
 protected:
  static constexpr std::int32_t kPage = 512;

  ViewTest() {
    for (const int size : {0, 1, 100, 511, 512, 513, 4096, 4097, 100000})
      items_["n" + std::string(60, 'x') + "/i" + std::to_string(size)] =
          makeBytes(static_cast<std::size_t>(size), 1);
    items_["alone"] = makeBytes(300, 2);
  }

  Store fill(Store store) const {
    for (const auto& [path, bytes] : items_)
      store.create(path, Parents::create).write(bytes);
    return store;
  }

  // Everything that can be read in a store is what was written.
  void compare(const Store& store, bool isInMemory) const {
    for (const auto& [path, bytes] : items_) {
      SCOPED_TRACE(path);
      EXPECT_EQ(store.getText(path), bytes);
      EXPECT_EQ(textOf(store.get(path)), bytes);
      std::array<std::byte, 200> few;
      EXPECT_EQ(store.get(path, few), std::min<std::size_t>(200, bytes.size()));
      EXPECT_EQ(textOf(few).substr(0, bytes.size()), bytes.substr(0, 200));
      EXPECT_EQ(store.stat(path).size, std::ssize(bytes));
      EXPECT_EQ(store.stat(path).pages, (std::ssize(bytes) + kPage - 1) / kPage);
      compareView(store.view(path), bytes, isInMemory);
      compareReader(store.read(path), bytes);
    }
  }

  // In pieces that fit no page.
  static void compareReader(Reader reader, const std::string& bytes) {
    std::string text, piece(333, '\0');
    while (const std::size_t count = reader.read(std::as_writable_bytes(std::span(piece)))) {
      text += piece.substr(0, count);
      EXPECT_EQ(reader.position(), std::ssize(text));
    }
    EXPECT_EQ(text, bytes);
  }

  static void compareView(const View& view, const std::string& bytes, bool isInMemory) {
    std::string piece(700, '\0');
    for (std::size_t at = 0; at <= bytes.size(); at += 999) {
      const std::size_t count =
          view.readAt(static_cast<std::int64_t>(at), std::as_writable_bytes(std::span(piece)));
      EXPECT_EQ(piece.substr(0, count), bytes.substr(at, 700));
    }
    EXPECT_EQ(view.size(), std::ssize(bytes));
    EXPECT_EQ(view.readText(), bytes);
    EXPECT_EQ(textOf(view.readAll()), bytes);
    std::string pages;
    for (const std::span<const std::byte> page : view.pages())
      pages += textOf(page);
    EXPECT_EQ(pages, isInMemory ? bytes : "");
    const bool isOnePage = isInMemory && !bytes.empty() && bytes.size() <= kPage;
    EXPECT_EQ(view.contiguous().has_value(), isOnePage);
    EXPECT_TRUE(!isOnePage || textOf(*view.contiguous()) == bytes);
  }

  const TemporaryDirectory folder_;
  const std::string path_ = folder_ / "x.st";
  Session session_{{.pageSize = kPage}};
  Items items_;
};

TEST_F(ViewTest, EveryKindOfStoreGivesTheSame) {
  Store store = fill(session_.open(path_, Mode::create));
  compare(store, false);  // while it is updated
  store.close();
  compare(session_.open(path_), false);
  compare(session_.openMapped(path_), true);
  const std::string foreign = folder_ / "foreign.st";
  hxtest::transcodeFile(path_, "hxmok1/be/utf-8", foreign);
  compare(session_.open(foreign), false);
  const std::string forReading = folder_ / "reading.st";
  hxtest::transcodeFile(foreign, "hxmok1/le/utf-8", forReading, hxcrate::arrangeForReading);
  compare(session_.open(forReading), false);
  Store memory = fill(session_.createInMemory("m"));
  compare(memory, true);
  const Blob blob = memory.makeBlob();
  EXPECT_EQ(errorOf([&] { return memory.openStore("n" + std::string(60, 'x')).makeBlob(); }),
            Errc::noBlob);
  compare(session_.openBlob(blob.bytes(), "b"), true);
  Store readOnly[] = {session_.open(path_), session_.openMapped(path_),
                      session_.openBlob(blob.bytes(), "b")};
  for (Store& opened : readOnly) {
    EXPECT_EQ(opened.pageSize(), kPage);
    EXPECT_EQ(errorOf([&] { return opened.create("b"); }), Errc::readOnly);
    EXPECT_EQ(errorOf([&] { return opened.createStore("b"); }), Errc::readOnly);
  }
}

// A reader that goes anywhere between reads of all sizes holds its place as a model does.
TEST_F(ViewTest, AReaderGoesToAnyPlace) {
  const std::string bytes = makeBytes(100000, 3), foreign = folder_ / "foreign.st";
  Store store = session_.open(path_, Mode::create);
  store.create("a").write(bytes);
  const auto wander = [&](const Store& wandered, bool turns) {
    Reader reader = wandered.read("a");
    std::mt19937 random(5);
    std::int64_t place = 0;
    for (int i = 0; i < 200; ++i) {
      const auto to = static_cast<std::int64_t>(random() % (bytes.size() + 1));
      if (i % 3 == 0) reader.seek(to);
      EXPECT_TRUE(i % 3 != 1 || reader.skip(to - place) == to - place);
      if (i % 3 != 2) place = to;
      ASSERT_EQ(reader.tell(), place);
      std::vector<std::uint16_t> piece(random() % (random() % 4 == 0 ? 30000 : 40));
      const auto left = (bytes.size() - static_cast<std::size_t>(place)) / 2;
      piece.resize(std::min(piece.size(), left));
      std::string expected = bytes.substr(static_cast<std::size_t>(place), 2 * piece.size());
      for (std::size_t at = 0; turns && at < expected.size(); at += 2)
        std::swap(expected[at], expected[at + 1]);
      EXPECT_EQ(reader.readArray(std::span(piece)), piece.size());
      ASSERT_EQ(textOf(std::as_bytes(std::span(piece))), expected);
      place += std::ssize(expected);
    }
    EXPECT_EQ(reader.skip(-200000), -place);
    EXPECT_EQ(reader.skip(200000), std::ssize(bytes));
    EXPECT_EQ(errorOf([&] { reader.seek(-1); }), Errc::endOfItem);
    EXPECT_EQ(errorOf([&] { reader.seek(std::ssize(bytes) + 1); }), Errc::endOfItem);
  };
  wander(store, false);
  store.close();
  hxtest::transcodeFile(path_, "hxmok1/be/utf-8", foreign);
  wander(session_.open(path_), false);
  wander(session_.openMapped(path_), false);
  wander(session_.open(foreign), true);
}

TEST_F(ViewTest, TellsWhatIsThere) {
  Store store = fill(session_.open(path_, Mode::create));
  const std::string nested = "n" + std::string(60, 'x');
  EXPECT_TRUE(store.exists("alone") && store.exists(nested) && store.exists(nested + "/i100"));
  for (const char* path : {"other", "other/x", "alone/x"})
    EXPECT_FALSE(store.exists(path)) << path;
  EXPECT_EQ(errorOf([&] { (void)store.exists("a//b"); }), Errc::badName);
  EXPECT_EQ(errorOf([&] { (void)store.stat("other"); }), Errc::notFound);
  EXPECT_EQ(errorOf([&] { (void)store.getText("other"); }), Errc::notFound);
  EXPECT_EQ(errorOf([&] { (void)store.view(nested); }), Errc::isAStore);
  EXPECT_EQ(store.stat(nested).kind, MemberKind::store);
  Writer writer = store.append("alone");
  writer.write("more");
  EXPECT_EQ(store.stat("alone").size, 304);  // by now
  EXPECT_EQ(errorOf([&] { (void)store.view("alone"); }), Errc::itemInUse);
  EXPECT_EQ(errorOf([&] { (void)store.getText("alone"); }), Errc::itemInUse);
  writer.close();
  View view = store.view("alone");
  EXPECT_EQ(view.path(), "alone");
  EXPECT_EQ(errorOf([&] { (void)store.append("alone"); }), Errc::itemInUse);
  View moved = std::move(view);
  EXPECT_EQ(errorOf([&] { (void)view.size(); }), Errc::closed);
  EXPECT_EQ(errorOf([&] { store.close(); }), Errc::membersOpen);
  moved.close();
  store.close();
}

TEST_F(ViewTest, ListsAtAnyDepth) {
  Store store = session_.open(path_, Mode::create);
  for (const char* path : {"b/y/2", "b/y/1", "b/x", "c", "a"})
    store.create(path, Parents::create).write(path);
  const auto paths = [](const Listing& listing) {
    std::string told;
    for (const ListedMember& member : listing) {
      told += member.path + (member.kind == MemberKind::store ? "/ " : " ");
      if (member.size >= 0) told += "(" + std::to_string(member.size) + ") ";
    }
    return told;
  };
  EXPECT_EQ(paths(store.list("", {.isSorted = true})), "a b/ b/x b/y/ b/y/1 b/y/2 c ");
  EXPECT_EQ(paths(store.list("b", {.isSorted = true, .hasSizes = true})),
            "x (3) y/ y/1 (5) y/2 (5) ");
  EXPECT_EQ(paths(store.list("", {.isRecursive = false, .isSorted = true})), "a b/ c ");
  std::string asItLies;
  for (const Member& member : store.members())
    asItLies += member.name + (member.kind == MemberKind::store ? "/ " : " ");
  EXPECT_EQ(paths(store.list("", {.isRecursive = false})), asItLies);
  EXPECT_EQ(errorOf([&] { (void)store.list("a"); }), Errc::isAnItem);
}

}  // namespace
}  // namespace hxcrate
