// The C++ API over the real host and the real module.

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <hxcrate/hxcrate.h>
#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <map>
#include <optional>
#include <ranges>
#include <vector>

#include "file/format.h"
#include "tests/api_errors.h"
#include "tests/temporary_directory.h"
#include "tests/transcoded_file.h"

namespace hxcrate {

namespace {

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::TemporaryDirectory;
using hxtest::writeFile;

// What must not compile.
template <typename T>
concept GivesBytes = requires {
  std::declval<T>().bytes();
};
template <typename T>
concept OpensAsBlob = requires(Session session) {
  session.openBlob(std::declval<T>(), "x");
};

static_assert(!std::constructible_from<OpenItem, Reader> && !std::assignable_from<Reader&, Writer>);
static_assert(GivesBytes<Blob&> && !GivesBytes<Blob>);
static_assert(OpensAsBlob<std::vector<std::byte>&> && !OpensAsBlob<std::vector<std::byte>>);
static_assert(std::ranges::view<MemberRange> && std::ranges::input_range<MemberRange>);
static_assert(Element<std::uint8_t> && Element<double> && !Element<bool> && !Element<long double>);

std::span<const std::byte> asBytes(const std::string& text) {
  return std::as_bytes(std::span(text));
}

class ApiTest : public testing::Test {
 protected:
  static void append(Store& store, const std::string& path, const std::string& bytes) {
    store.append(path, Parents::create).write(bytes);
  }

  static std::map<std::string, MemberKind> membersOf(const Store& store) {
    std::map<std::string, MemberKind> members;
    for (const Member& member : store.members())
      EXPECT_TRUE(members.emplace(member.name, member.kind).second) << member.name;
    return members;
  }

  // Returns what the file holds.
  std::string makeStore(const std::map<std::string, std::string>& items) {
    Store store = session_.open(path_, Mode::create, {.pageSize = 4096});
    for (const auto& [name, bytes] : items)
      append(store, name, bytes);
    store.close();
    return readFile(path_);
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "x.st";
  Session session_;
};

TEST_F(ApiTest, ABlobNeedsNeitherItsStoreNorItsSession) {
  auto session = std::make_unique<Session>();
  const std::uint64_t before = session->memoryUse().blocks;
  Store store = session->createInMemory("x.st");
  Store namesake = session->createInMemory("x.st");
  append(store, "s/a", "a");
  const Blob blob = store.makeBlob();
  EXPECT_TRUE(membersOf(namesake).empty());
  store.close();
  namesake.close();
  EXPECT_EQ(session->memoryUse().blocks, before + 1);
  session.reset();
  EXPECT_EQ(session_.openBlob(blob.bytes(), "x.st").getText("s/a"), "a");
  const Session taken = std::move(session_);
  // NOLINTNEXTLINE(bugprone-use-after-move)
  EXPECT_EQ(errorOf([&] { return session_.openBlob(blob, "x.st"); }), Errc::closed);
}

TEST_F(ApiTest, KeepsNamesByteForByteAndRefusesWhatWouldBeCut) {
  const std::string longest(64, 'n'), bytes = "\x01\x7f\x80\xff\xc3\xa4", nul("n\0n", 3);
  makeStore({{longest + "/" + longest, longest}, {bytes + "/" + bytes, bytes}, {"../..", ".."}});
  Store store = session_.open(path_, Mode::update);
  for (const std::string& name : {std::string(), std::string(65, 'n'), nul, std::string("/a"),
                                  std::string("a/"), "a//" + longest, "a/" + nul + "/b"}) {
    const auto create = [&] { return store.create(name, Parents::create); };
    EXPECT_EQ(errorOf(create), Errc::badName) << name;
    EXPECT_EQ(errorOf([&] { return store.openStore(name); }), Errc::badName) << name;
  }
  EXPECT_EQ(std::string(thrownBy([&] { return store.read("a\n\x7f"); })->what()),
            path_ + ": a\\012\\177: not found");
  for (const std::string& file : {directory_ / nul, std::string()})
    EXPECT_EQ(errorOf([&] { return session_.open(file, Mode::create); }), Errc::badName) << file;
  const std::map<std::string, MemberKind> expected = {
      {longest, MemberKind::store}, {bytes, MemberKind::store}, {"..", MemberKind::store}};
  EXPECT_EQ(membersOf(store), expected);
  for (const auto& [name, kind] : expected)
    EXPECT_EQ(store.getText(name + "/" + name), name);
}

// What each mode makes of each file; where it fails the file must be as it was.
TEST_F(ApiTest, OpensAsTheModeSaysAndLeavesWhatItRefuses) {
  const std::optional<std::string> files[] = {std::nullopt, "", "a short text",
                                              makeStore({{"a", "a"}})};
  const std::error_code fine;
  const std::pair<Mode, std::array<std::error_code, 4>> cases[] = {
      {Mode::read, {Errc::notFound, Errc::notAStore, Errc::notAStore, fine}},
      {Mode::update, {Errc::notFound, Errc::notAStore, Errc::notAStore, fine}},
      {Mode::openOrCreate, {fine, fine, Errc::notAStore, fine}},
      {Mode::create, {fine, Errc::exists, Errc::exists, Errc::exists}},
      {Mode::replace, {fine, fine, fine, fine}}};
  for (const auto& [mode, expected] : cases) {
    for (std::size_t i = 0; i < 4; ++i) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(mode) << files[i].value_or("absent"));
      std::filesystem::remove(path_);
      if (files[i]) writeFile(path_, *files[i]);
      Session session;
      const auto open = [&, mode = mode] {
        Store store = session.open(path_, mode);
        EXPECT_EQ(membersOf(store).size(), i == 3 && mode != Mode::replace ? 1u : 0u);
        store.close();
      };
      EXPECT_EQ(errorOf(open), expected[i]);
      if (mode == Mode::read || !expected[i]) {
        EXPECT_EQ(errorOf([&] { return session.openMapped(path_); }), expected[i]);
      }
      if (!expected[i]) continue;
      EXPECT_EQ(std::filesystem::exists(path_), files[i].has_value());
      EXPECT_EQ(readFile(path_), files[i].value_or(""));
    }
  }
}

// By codes in place of exceptions here, by exceptions elsewhere.
TEST_F(ApiTest, RefusesWhatContradictsWhatIsThere) {
  std::error_code error = Errc::damaged;
  Store store = session_.open(path_, Mode::create, error, {.pageSize = 64});
  EXPECT_TRUE(!error && store.pageSize() == 64);
  EXPECT_EQ(session_.createInMemory("x").pageSize(), kNewPageSize);
  Writer writer = store.create("s/item", error, Parents::create);
  writer.write("text", error);
  const auto expect = [&](const auto& opened, auto code) {
    EXPECT_FALSE(opened.isOpen());
    EXPECT_EQ(error, code);
  };
  expect(store.read("s/item", error), Errc::itemInUse);
  writer.close(error);
  EXPECT_FALSE(error);
  writer.write("more", error);
  expect(writer, Errc::closed);
  expect(store.create("s/item", error), Errc::exists);
  expect(store.createStore("s", error), Errc::exists);
  expect(store.openOrCreateStore("s/item", error), Errc::isAnItem);
  expect(store.openStore("s/item/x", error), std::errc::not_a_directory);
  expect(store.read("s", error), Errc::isAStore);
  EXPECT_EQ(errorOf([&] { store.get("s"); }), Errc::isAStore);
  expect(store.openStore("none", error), std::errc::no_such_file_or_directory);
  expect(store.create("none/item", error), Errc::notFound);
  expect(session_.open(path_, Mode::replace, error), Errc::storeInUse);
  expect(session_.open(path_, Mode::update, error, {.pageSize = -1}), Errc::badPageSize);
  std::array<std::byte, 8> buffer;
  EXPECT_EQ(store.read("s/item", error).read(buffer, error), 4u);
  {
    const Store nested = store.openOrCreateStore("t/u", error, Parents::create);
    store.close(error);
    EXPECT_TRUE(nested.isOpen() && error == Errc::membersOpen);
  }
  EXPECT_EQ(thrownBy([&] { return store.openStore("s").create("item"); })->member(), "s/item");
  store.close(error);
  EXPECT_TRUE(!error && !store.isOpen());
}

TEST_F(ApiTest, KeepsTheFileOpenOrMappedForWhatWasOpenedInIt) {
  const std::string bytes = makeBytes(1000000);
  makeStore({{"s/a", bytes}});
  const auto isMapped = [&] {
    return readFile("/proc/self/maps").find(path_) != std::string::npos;
  };
  for (const bool mapped : {false, true}) {
    auto session = std::make_unique<Session>();
    const std::uint64_t before = session->memoryUse().bytes;
    auto store =
        std::make_unique<Store>(mapped ? session->openMapped(path_) : session->open(path_));
    Reader reader = store->read("s/a");
    EXPECT_EQ(reader.readText(), bytes);
    EXPECT_LT(session->memoryUse().peakBytes, before + (mapped ? 3000 : 3000 + 2 * 4096));
    EXPECT_EQ(errorOf([&] { return store->close(); }), Errc::membersOpen);
    reader = store->read("s/a");
    store.reset();
    session.reset();
    EXPECT_EQ(isMapped(), mapped);
    Reader taken = std::move(reader);
    EXPECT_EQ(errorOf([&] { reader.size(); }), Errc::closed);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(taken.readText(), bytes);
    taken.close();
    EXPECT_FALSE(isMapped());
  }
}

// From a file of this machine, and from the same file of one with the other byte order.
template <typename T>
void keepArray(Session& session, const std::string& path, std::vector<T> values) {
  Store store = session.open(path, Mode::replace, {.pageSize = 64});
  store.create("a").write(std::as_bytes(std::span(values)));
  EXPECT_EQ(store.read("a").readArray<T>(), values);
  store.close();
  hxtest::transcodeFile(path, "hxmok1/be/utf-8", path + std::to_string(sizeof(T)));
  for (T& value : values) {
    auto* bytes = reinterpret_cast<std::byte*>(&value);
    std::reverse(bytes, bytes + sizeof(T));
  }
  const Store foreign = session.open(path + std::to_string(sizeof(T)));
  EXPECT_EQ(foreign.read("a").readArray<T>(), values);
  Reader reader = foreign.read("a");
  EXPECT_EQ(reader.skip(sizeof(T)), std::int64_t{sizeof(T)});
  std::vector<T> rest(values.size());
  EXPECT_EQ(reader.readArray(std::span(rest)), values.size() - 1);  // as many as left
  EXPECT_TRUE(std::equal(values.begin() + 1, values.end(), rest.begin()));
  EXPECT_EQ(reader.skip(1), 0);
}

TEST_F(ApiTest, ReadsNumbersOfEitherByteOrder) {
  keepArray<std::uint8_t>(session_, path_, {1, 2, 255, 4});
  keepArray<std::int16_t>(session_, path_, {1, -2, 0x1234, 4});
  keepArray(session_, path_, std::vector<std::int32_t>(50000, 0x12345678));
  keepArray(session_, path_, std::vector<double>(100, 0.1));
  Reader reader = session_.open(path_).read("a");
  reader.skip(3);
  std::array<double, 2> two;
  EXPECT_EQ(reader.readArray(std::span(two)), 2u);  // what is left behind them does not matter
  EXPECT_EQ(errorOf([&] { return reader.readArray<double>(); }), Errc::cutElement);
}

TEST_F(ApiTest, ServesAsStreamsOfTheStandardLibrary) {
  const std::string bytes = makeBytes(70000), text = "4711 " + bytes + "x";
  Store store = session_.createInMemory("x");
  ItemOutputStream first(store.create("a"));
  first << 4711 << ' ';
  ItemOutputStream out = std::move(first);
  EXPECT_TRUE(first.bad());  // NOLINT(bugprone-use-after-move)
  out << bytes << std::flush << 'x';
  EXPECT_EQ(out.tellp(), 70006);
  EXPECT_FALSE(out.seekp(0));
  out.close();
  EXPECT_EQ(store.getText("a"), text);
  out.clear();
  out << 'x';
  EXPECT_EQ(errorOf([&] { out.close(); }), Errc::closed) << "that was lost";

  ItemInputStream begun(store.read("a"));
  int number = 0;
  EXPECT_TRUE(begun >> number && number == 4711 && begun.get() == ' ');
  ItemInputStream in{Reader()};
  in = std::move(begun);
  constexpr auto kBegin = std::ios_base::beg, kHere = std::ios_base::cur, kEnd = std::ios_base::end;
  const std::tuple<std::streamoff, std::ios_base::seekdir, std::streamoff> seeks[] = {
      {4, kHere, 9},         {9, kBegin, 9},        {-1, kBegin, -1},       {10, kBegin, 10},
      {20000, kHere, 20011}, {-1, kHere, 20011},    {20013, kBegin, 20013},  // to -1: it fails
      {-20014, kHere, 0},    {-20000, kEnd, 50006}, {1, kEnd, -1}};
  for (const auto& [offset, from, to] : seeks) {
    in.clear();
    EXPECT_EQ(in.seekg(offset, from).fail(), to < 0) << offset;
    if (to < 0) continue;
    EXPECT_EQ(in.tellg(), to);
    EXPECT_EQ(in.get(), static_cast<unsigned char>(text[static_cast<std::size_t>(to)])) << to;
  }
  in.clear();
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), text.substr(50007));
  in.close();
  EXPECT_TRUE(in.get() == EOF && in.bad());
}

// Whatever a program holds paths and bytes in; without exceptions too.
TEST_F(ApiTest, TakesPathsAndBytesAsTheyCome) {
  makeStore({{"a", ""}});
  const std::filesystem::path asPath = path_;
  EXPECT_TRUE(session_.open(asPath).isOpen() && session_.open(std::string_view(path_)).isOpen());
  EXPECT_TRUE(session_.open(asPath.u8string()).isOpen() && session_.open(path_.c_str()).isOpen());
  Store store = session_.open(asPath, Mode::update);
  std::error_code error = Errc::damaged;
  Writer writer = store.append("a");
  writer.write(std::vector<char>{'1', '2'});
  writer.write(std::u8string(u8"34"));
  writer.write(std::array<unsigned char, 1>{'5'}, error);
  writer.write("6");
  writer.close();
  EXPECT_TRUE(!error && store.getText("a", error) == "123456" && !error);
  EXPECT_TRUE(store.get("none", error).empty() && error == Errc::notFound);
  const Listing none = store.list("a", error);
  EXPECT_EQ(error, Errc::isAnItem);
  const auto first = store.list("", error).begin();
  EXPECT_EQ(first->path, "a");
}

TEST_F(ApiTest, ServesProgramsInC) {
  hxcrate_store* store = nullptr;
  const char* const path = path_.c_str();
  EXPECT_EQ(hxcrate_open(path, HXCRATE_READ, 0, &store), HXCRATE_NOT_FOUND);
  EXPECT_EQ(std::string(hxcrate_error_text()), path_ + ": not found");
  ASSERT_EQ(hxcrate_open(path, HXCRATE_OPEN_OR_CREATE, 0, &store), 0);
  hxcrate_store* second = store;
  EXPECT_EQ(hxcrate_open(path, HXCRATE_READ, 0, &second), HXCRATE_IN_USE);
  EXPECT_TRUE(second == nullptr && hxcrate_system_error() == EBUSY);
  EXPECT_EQ(hxcrate_put(store, "s/a", "12", 2) + hxcrate_append(store, "s/a", "3", 1), 0);
  EXPECT_EQ(hxcrate_put(store, "s/a", "4", 1), HXCRATE_EXISTS);
  EXPECT_EQ(hxcrate_put(store, "s", "4", 1), HXCRATE_IS_A_STORE);
  EXPECT_EQ(hxcrate_put(store, nullptr, "4", 1), HXCRATE_BAD_NAME);
  EXPECT_EQ(hxcrate_open(nullptr, HXCRATE_READ, 0, &second), HXCRATE_BAD_NAME);
  EXPECT_EQ(hxcrate_open(path, static_cast<hxcrate_mode>(3), 0, &second), HXCRATE_BAD_NAME);
  EXPECT_EQ(hxcrate_commit(store) + hxcrate_put(store, "b", "", 0) + hxcrate_abandon(store), 0);
  ASSERT_EQ(hxcrate_open(path, HXCRATE_READ, 0, &store), 0);
  void* bytes = nullptr;
  size_t size = 0;
  ASSERT_EQ(hxcrate_get(store, "s/a", &bytes, &size), 0);
  EXPECT_EQ(std::string(static_cast<char*>(bytes)), "123");
  std::free(bytes);
  EXPECT_EQ(hxcrate_get(store, "s", &bytes, &size), HXCRATE_IS_A_STORE);
  std::string seen;
  const auto visit = [](void* text, const hxcrate_member* member) {
    *static_cast<std::string*>(text) += member->path + std::to_string(member->size) + " ";
    return 0;
  };
  EXPECT_EQ(hxcrate_list(store, "", visit, &seen), 0);
  EXPECT_EQ(seen, "s0 s/a3 ");
  EXPECT_EQ(hxcrate_close(store) + hxcrate_close(nullptr), 0);
  EXPECT_EQ(hxcrate_commit(nullptr), HXCRATE_CLOSED);
}

// Names that the API would not make: two alike, and one of no bytes.
TEST_F(ApiTest, ShowsEachNameOnce) {
  std::string bytes = makeStore({{"aa", ""}, {"ab", ""}, {"ac", ""}, {"b", ""}, {"c", ""}});
  for (const char* name : {"ab", "ac"})
    bytes.replace(bytes.find(name + std::string(62, '\0')), 2, "aa");
  bytes[bytes.find("c" + std::string(63, '\0'))] = '\0';
  const std::map<std::string, MemberKind> expected = {{"aa", MemberKind::item},
                                                      {"b", MemberKind::item}};
  Store store = session_.openBlob(asBytes(bytes), "x");
  EXPECT_EQ(membersOf(store), expected);
  auto begun = store.members().begin();
  const Store moved = std::move(store);
  auto member = std::move(begun);
  for (int i = 0; i < 3; ++i)
    ++begun, ++member;  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(begun == std::default_sentinel && member == std::default_sentinel);
  EXPECT_EQ(errorOf([&] { return store.members(); }),
            Errc::closed);  // NOLINT(bugprone-use-after-move)
}

// By itself and as a stream, which is the last to hold its store and its session.
TEST_F(ApiTest, RefusesToTakeAnItemPastItsCapacity) {
  constexpr std::size_t kTooLong = 2147483647;
  void* room =
      ::mmap(nullptr, kTooLong, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(room, MAP_FAILED);
  const std::string_view tooLong(static_cast<const char*>(room), kTooLong);
  std::vector<std::error_code> told;
  for (const bool isClosed : {true, false}) {
    Session session(
        {.onUnreportedError = [&](const Error& error) { told.push_back(error.code()); }});
    Store store = session.createInMemory("x");
    Writer writer = store.create("a");
    writer.write("x");
    EXPECT_EQ(errorOf([&] { writer.write(tooLong); }), Errc::itemFull);
    EXPECT_EQ(writer.size(), 1);
    ItemOutputStream out(std::move(writer));
    EXPECT_TRUE((out << tooLong).bad());
    out.clear();
    out.exceptions(std::ios_base::badbit);
    EXPECT_EQ(errorOf([&] { out << "y"; }), Errc::itemFull);
    if (isClosed) {
      EXPECT_EQ(errorOf([&] { out.close(); }), Errc::itemFull);
      EXPECT_EQ(store.getText("a"), "x");
    }
    EXPECT_TRUE(told.empty());
    store = Store();
    session = Session();
  }
  EXPECT_EQ(told, std::vector<std::error_code>{Errc::itemFull});
  ::munmap(room, kTooLong);
}

// Also what grew within a page, and with members open, which then do nothing more.
TEST_F(ApiTest, KeepsNothingOfAnAbandonedUpdate) {
  const std::string before = makeStore({{"old", "old"}});
  for (const std::string& bytes : {std::string("short"), makeBytes(5000000)}) {
    Store store = session_.open(path_, Mode::update);
    append(store, "s/new", bytes);
    Store nested = store.openStore("s");
    Reader reader = store.read("s/new");
    View view = store.view("s/new");
    Writer writer = store.append("old");
    writer.write(bytes);
    store.abandon();
    EXPECT_FALSE(store.isOpen());
    const std::function<void()> calls[] = {[&] { writer.write("x"); },
                                           [&] { reader.readText(); },
                                           [&] { nested.read("new").close(); },
                                           [&] { nested.createStore("t").close(); },
                                           [&] { nested.openStore("x").close(); },
                                           [&] { nested.commit(); },
                                           [&] { view.readText(); },
                                           [&] { nested.get("new"); },
                                           [&] { writer.close(); }};
    for (const auto& call : calls)
      EXPECT_EQ(errorOf(call), Errc::abandoned);
    EXPECT_FALSE(writer.isOpen());
    view.close();
    reader.close();
    nested.close();
    EXPECT_EQ(readFile(path_), before);
    EXPECT_EQ(session_.open(path_).getText("old"), "old");
    EXPECT_EQ(membersOf(session_.open(path_)).size(), 1u);
  }
  Store created = session_.open(directory_ / "y", Mode::create);
  append(created, "a", "a");
  created.abandon();
  EXPECT_FALSE(std::filesystem::exists(directory_ / "y"));
  EXPECT_EQ(errorOf([&] { return session_.open(directory_ / "y"); }), Errc::notFound);
}

TEST_F(ApiTest, OpensADamagedStoreOnlyWhenAskedTo) {
  std::filesystem::resize_file(path_, makeStore({{"a", "x"}}).size() - 1);
  EXPECT_EQ(errorOf([&] { return session_.openMapped(path_); }), Errc::damaged);
  const auto turn = [&] { hxtest::transcodeFile(path_, "hxmok1/be/utf-8", directory_ / "y"); };
  EXPECT_EQ(errorOf(turn), Errc::damaged);
  EXPECT_EQ(errorOf([&] { return Session().open(path_); }), Errc::damaged);
  EXPECT_EQ(session_.open(path_, Mode::read, {.acceptDamaged = true}).damage(), Errc::damaged);
}

// As by whoever ignores the lock of a mapped file, while a reader keeps the item's size known.
TEST_F(ApiTest, ReadsNothingBehindTheEndOfABlobThatChanges) {
  const std::string bytes = makeBytes(3 * 4096);
  std::string blob = makeStore({{"a", bytes}});
  const Store store = session_.openBlob(asBytes(blob), "x");
  Reader first = store.read("a");
  std::vector<std::byte> passed(2 * 4096 + 1);  // so that no page before is in memory
  first.read(passed);
  const hx::DataChunk changed{std::ssize(blob) - 1, 4096, 1, 0};
  std::memcpy(&blob[blob.find(bytes.substr(0, 4096)) - sizeof(changed)], &changed, sizeof(changed));
  std::array<std::byte, 100> buffer;
  EXPECT_EQ(errorOf([&] { return store.read("a").read(buffer); }), Errc::damaged);
}

// Damage that comes and goes under an open reader is thrown, after the bytes before it.
TEST_F(ApiTest, TakesNoDamageForTheEndOfAnItem) {
  const std::string bytes = makeBytes(3 * 4096), file = makeStore({{"a", bytes}});
  const std::size_t record = file.find(bytes.substr(0, 4096)) + 4096;  // the second page's
  const std::pair<std::size_t, std::size_t> damages[] = {{offsetof(hx::DataChunk, capacity), 4096},
                                                         {offsetof(hx::DataChunk, next), 8192}};
  for (const auto& [field, readable] : damages) {
    std::string blob = file, text(bytes.size(), '\0');
    const Store store = session_.openBlob(asBytes(blob), "x");
    Reader reader = store.read("a"), whole = store.read("a");
    ItemInputStream stream(store.read("a"));
    std::fill_n(&blob[record + field], 8, '\0');
    EXPECT_EQ(errorOf([&] { return whole.readAll(); }), Errc::damaged);
    EXPECT_TRUE(stream.read(text.data(), std::ssize(text)).bad());
    whole.close();
    stream.close();
    const auto read = [&] { return reader.read(std::as_writable_bytes(std::span(text))); };
    EXPECT_EQ(read(), readable);
    EXPECT_EQ(text.substr(0, readable), bytes.substr(0, readable));
    const std::string damaged = blob;
    std::copy(file.begin(), file.end(), blob.begin());
    EXPECT_EQ(errorOf(read), Errc::damaged);
    hxtest::writeFile(path_, damaged);
    const Store stored = session_.open(path_);
    reader = stored.read("a");
    text.resize(1 << 16);
    EXPECT_EQ(read(), readable) << "at once, past the cache";
    EXPECT_EQ(errorOf(read) == Errc::damaged, readable == 4096) << "or the item is shorter";
  }
}

}  // namespace

}  // namespace hxcrate
