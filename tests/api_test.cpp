// The C++ API over the real host and the real module.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <functional>
#include <hxcrate/crate.hpp>
#include <hxcrate/inspect.hpp>
#include <map>
#include <optional>
#include <ranges>
#include <thread>
#include <vector>

#include "tests/temporary_directory.h"

namespace hxcrate {

namespace {

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::TemporaryDirectory;
using hxtest::writeFile;

// What must not compile.
template <typename T>
concept Handle = std::movable<T> && std::is_nothrow_move_constructible_v<T> &&
    std::is_nothrow_default_constructible_v<T> && !std::copyable<T>;
template <typename T>
concept Writable = requires(T item) {
  item.write("text");
};
template <typename T>
concept Creating = requires(T store) {
  store.create("item");
};
template <typename T>
concept GivesBytes = requires {
  std::declval<T>().bytes();
};
template <typename T>
concept OpensAsBlob = requires(Session session) {
  session.openBlob(std::declval<T>(), "x");
};

static_assert(Handle<Store> && Handle<Reader> && Handle<Writer> && Handle<Blob>);
static_assert(!std::copyable<Session> && std::movable<ItemInputStream>);
static_assert(!std::constructible_from<OpenItem, Reader> && !std::assignable_from<Reader&, Writer>);
static_assert(Writable<Writer> && !Writable<Reader> && Creating<Store> && !Creating<const Store>);
static_assert(GivesBytes<Blob&> && !GivesBytes<Blob>);
static_assert(OpensAsBlob<std::vector<std::byte>&> && !OpensAsBlob<std::vector<std::byte>>);
static_assert(std::ranges::view<MemberRange> && std::ranges::input_range<MemberRange>);
static_assert(Element<std::uint8_t> && Element<double> && !Element<bool> && !Element<long double>);

std::span<const std::byte> asBytes(const std::string& text) {
  return std::as_bytes(std::span(text));
}

std::string asText(const std::vector<std::byte>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::optional<Error> thrownBy(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

// No error when nothing was thrown.
std::error_code errorOf(const std::function<void()>& call) {
  const std::optional<Error> error = thrownBy(call);
  return error ? error->code() : std::error_code();
}

class ApiTest : public testing::Test {
 protected:
  static void append(Store& store, const std::string& path, const std::string& bytes) {
    Writer writer = store.append(path, Parents::create);
    const std::int64_t before = writer.position();
    writer.write(bytes);
    EXPECT_EQ(writer.position(), before + static_cast<std::int64_t>(bytes.size()));
    writer.close();
  }

  // Reads in pieces that fit no page.
  static std::string get(const Store& store, const std::string& path) {
    Reader reader = store.read(path);
    std::string text;
    std::vector<std::byte> piece(3333);
    while (const std::size_t count = reader.read(piece)) {
      text += asText(piece).substr(0, count);
      EXPECT_EQ(reader.position(), static_cast<std::int64_t>(text.size()));
    }
    EXPECT_EQ(reader.size(), reader.position());
    EXPECT_EQ(asText(store.read(path).readAll()), text);
    return text;
  }

  static std::map<std::string, MemberKind> membersOf(const Store& store) {
    std::map<std::string, MemberKind> members;
    for (const Member& member : store.members()) {
      EXPECT_TRUE(members.emplace(member.name, member.kind).second) << member.name;
    }
    return members;
  }

  Store makeStore(const std::string& path, std::int32_t pageSize = 0) {
    return session_.open(path, Mode::create, {.pageSize = pageSize});
  }

  void makeStoreOf(const std::map<std::string, std::string>& items, const std::string& path = {}) {
    Store store = makeStore(path.empty() ? path_ : path);
    for (const auto& [name, bytes] : items)
      append(store, name, bytes);
    store.close();
  }

  TemporaryDirectory directory_;
  std::string path_ = directory_ / "x.st";
  Session session_;
};

// Sizes around the ends of pages, as a file, as a mapped file and as a blob.
TEST_F(ApiTest, ReadsTheSameOfAFileAMappedFileAndABlob) {
  for (const std::int32_t pageSize : {1, 7, 65536}) {
    const auto page = static_cast<std::size_t>(pageSize);
    Store memory = session_.createInMemory("x.st", pageSize);
    Store file = session_.open(path_, Mode::replace, {.pageSize = pageSize});
    for (const std::size_t length : {std::size_t{0}, page - 1, page, page + 1, 5 * page + 2}) {
      append(memory, "a/b/" + std::to_string(length), makeBytes(length));
      append(file, "a/b/" + std::to_string(length), makeBytes(length));
    }
    file.close();
    EXPECT_EQ(errorOf([&] { return memory.openStore("a").makeBlob(); }), Errc::noBlob);
    const Blob blob = memory.makeBlob();
    Session other;
    const Store opened[] = {other.open(path_), other.openMapped(path_),
                            other.openBlob(blob.bytes(), "x.st")};
    for (const Store& store : opened) {
      EXPECT_EQ(store.pageSize(), pageSize);
      for (const auto& [name, kind] : membersOf(store.openStore("a/b")))
        EXPECT_EQ(get(store, "a/b/" + name), makeBytes(std::stoul(name)));
    }
  }
}

TEST_F(ApiTest, ABlobNeedsNeitherItsStoreNorItsSession) {
  auto session = std::make_unique<Session>();
  const std::uint64_t before = session->memoryUse().blocks;
  Store store = session->createInMemory("x.st");
  Store namesake = session->createInMemory("x.st");
  append(store, "a", "a");
  Blob blob = store.makeBlob();
  EXPECT_TRUE(membersOf(namesake).empty());
  store.close();
  namesake.close();
  EXPECT_EQ(session->memoryUse().blocks, before + 1);
  session.reset();
  const Blob taken = std::move(blob);
  EXPECT_TRUE(blob.bytes().empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(get(session_.openBlob(taken.bytes(), "x.st"), "a"), "a");
}

TEST_F(ApiTest, KeepsNamesByteForByteAndRefusesWhatWouldBeCut) {
  const std::string longest(64, 'n'), bytes = "\x01\x7f\x80\xff\xc3\xa4", nul("n\0n", 3);
  Store store = makeStore(path_);
  for (const std::string& name : {longest, bytes, std::string("..")})
    append(store, name + "/" + name, name);
  for (const std::string& name : {std::string(), std::string(65, 'n'), nul, std::string("/a"),
                                  std::string("a/"), "a//" + longest, "a/" + nul + "/b"}) {
    const auto create = [&] { return store.create(name, Parents::create); };
    EXPECT_EQ(errorOf(create), Errc::badName) << name;
    EXPECT_EQ(errorOf([&] { return store.openStore(name); }), Errc::badName) << name;
  }
  for (const std::string& file : {directory_ / "\xff", directory_ / nul, std::string()})
    EXPECT_EQ(errorOf([&] { return makeStore(file); }), Errc::badName) << file;
  store.close();
  const Store reopened = session_.open(path_);
  const std::map<std::string, MemberKind> expected = {
      {longest, MemberKind::store}, {bytes, MemberKind::store}, {"..", MemberKind::store}};
  EXPECT_EQ(membersOf(reopened), expected);
  for (const auto& [name, kind] : expected)
    EXPECT_EQ(get(reopened, name + "/" + name), name);
}

// What each mode makes of each file; where it fails the file must be as it was.
TEST_F(ApiTest, OpensAsTheModeSaysAndLeavesWhatItRefuses) {
  makeStoreOf({{"a", "a"}});
  const std::optional<std::string> files[] = {std::nullopt, "", "a short text", readFile(path_)};
  const std::error_code fine;
  struct Case {
    Mode mode;
    std::array<std::error_code, 4> expected;
  };
  const Case cases[] = {{Mode::read, {Errc::notFound, Errc::notAStore, Errc::notAStore, fine}},
                        {Mode::update, {Errc::notFound, Errc::notAStore, Errc::notAStore, fine}},
                        {Mode::openOrCreate, {fine, fine, Errc::notAStore, fine}},
                        {Mode::create, {fine, Errc::exists, Errc::exists, Errc::exists}},
                        {Mode::replace, {fine, fine, fine, fine}}};
  for (const Case& test : cases) {
    for (std::size_t i = 0; i < 4; ++i) {
      SCOPED_TRACE(testing::Message()
                   << static_cast<int>(test.mode) << files[i].value_or("absent"));
      std::filesystem::remove(path_);
      if (files[i]) writeFile(path_, *files[i]);
      Session session;
      EXPECT_EQ(errorOf([&] {
                  Store store = session.open(path_, test.mode);
                  EXPECT_EQ(membersOf(store).size(),
                            i == 3 && test.mode != Mode::replace ? 1u : 0u);
                  store.close();
                }),
                test.expected[i]);
      if (test.mode == Mode::read) {
        EXPECT_EQ(errorOf([&] { return session.openMapped(path_); }), test.expected[i]);
      }
      if (!test.expected[i]) {
        EXPECT_FALSE(errorOf([&] { return session.open(path_); }));
      } else {
        EXPECT_EQ(std::filesystem::exists(path_), files[i].has_value());
        EXPECT_EQ(readFile(path_), files[i].value_or(""));
      }
    }
  }
}

// The path is kept when the working directory changes, what the file held is not when it is
// removed.
TEST_F(ApiTest, FindsAFileWhereItWasAndMakesItAnewWhenItIsGone) {
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  makeStoreOf({{"a", "here"}}, "x.st");
  std::filesystem::current_path(before);
  EXPECT_EQ(errorOf([&] { return session_.open("x.st"); }), Errc::notFound);
  EXPECT_EQ(get(session_.open(path_), "a"), "here");
  std::filesystem::remove(path_);
  EXPECT_TRUE(membersOf(makeStore(path_)).empty());
}

// By codes in place of exceptions here, by exceptions elsewhere.
TEST_F(ApiTest, RefusesWhatContradictsWhatIsThere) {
  std::error_code error = Errc::damaged;
  Store store = session_.open(path_, Mode::create, error, {.pageSize = 64});
  EXPECT_TRUE(!error && store.pageSize() == 64);
  Writer writer = store.create("s/item", error, Parents::create);
  writer.write("text", error);
  const auto expect = [&](const auto& opened, auto code) {
    EXPECT_FALSE(opened.isOpen());
    EXPECT_EQ(error, code);
  };
  expect(store.read("s/item", error), Errc::itemInUse);
  expect(store.append("s/item", error), Errc::itemInUse);
  writer.close(error);
  EXPECT_FALSE(error);
  writer.write("more", error);
  expect(writer, Errc::closed);
  expect(store.create("s/item", error), Errc::exists);
  expect(store.createStore("s", error), Errc::exists);
  expect(store.openOrCreateStore("s/item", error), Errc::exists);
  expect(store.openOrCreateStore("", error), Errc::badName);
  expect(store.append("s", error), Errc::exists);
  expect(store.openStore("s/item", error), std::errc::no_such_file_or_directory);
  expect(store.read("s", error), Errc::notFound);
  expect(store.create("none/item", error), Errc::notFound);
  expect(session_.open(path_, Mode::create, error), Errc::exists);
  expect(session_.open(path_, Mode::replace, error), Errc::storeInUse);
  expect(session_.open(path_, Mode::update, error, {.pageSize = -1}), Errc::badPageSize);
  std::array<std::byte, 8> buffer;
  EXPECT_EQ(store.read("s/item", error).read(buffer, error), 4u);
  {
    const Store nested = store.openOrCreateStore("t/u", error, Parents::create);
    store.close(error);
    EXPECT_TRUE(nested.isOpen() && error == Errc::membersOpen);
  }
  store.close(error);
  EXPECT_TRUE(!error && !store.isOpen());
}

TEST_F(ApiTest, WritesNothingThroughAStoreThatIsOpenForReading) {
  makeStoreOf({{"a", "a"}});
  const std::string before = readFile(path_);
  std::string bytes = before;
  Store readers[] = {session_.open(path_), session_.openMapped(path_),
                     session_.openBlob(asBytes(bytes), "x")};
  for (Store& store : readers) {
    EXPECT_EQ(errorOf([&] { return store.create("b"); }), Errc::readOnly);
    EXPECT_EQ(errorOf([&] { return store.append("a"); }), Errc::readOnly);
    EXPECT_EQ(errorOf([&] { return store.createStore("b"); }), Errc::readOnly);
    EXPECT_EQ(errorOf([&] { return store.openOrCreateStore("b"); }), Errc::readOnly);
    EXPECT_EQ(errorOf([&] { return store.makeBlob(); }), Errc::noBlob);
    EXPECT_EQ(get(store, "a"), "a");
    store.close();
  }
  EXPECT_EQ(readFile(path_), before);
  EXPECT_EQ(bytes, before);
}

TEST_F(ApiTest, KeepsOthersOutOfAFileThatIsUpdatedOrMapped) {
  Store store = makeStore(path_);
  Session other;
  EXPECT_EQ(errorOf([&] { return other.open(path_); }), Errc::storeInUse);
  EXPECT_EQ(errorOf([&] { return session_.openMapped(path_); }), Errc::storeInUse);
  std::thread closing([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    store.close();
  });
  Session patient({.durability = Durability::none, .lockWait = std::chrono::seconds(20)});
  EXPECT_FALSE(errorOf([&] { return patient.open(path_); }));
  closing.join();
  const Store mapped = session_.openMapped(path_);
  EXPECT_EQ(errorOf([&] { return session_.open(path_, Mode::update); }), Errc::storeInUse);
  EXPECT_FALSE(errorOf([&] { return session_.open(path_); }));
}

TEST_F(ApiTest, KeepsTheFileOpenOrMappedForWhatWasOpenedInIt) {
  const std::string bytes = makeBytes(1000000);
  makeStoreOf({{"s/a", bytes}});
  const auto isMapped = [&] {
    return readFile("/proc/self/maps").find(path_) != std::string::npos;
  };
  for (const bool mapped : {false, true}) {
    auto session = std::make_unique<Session>();
    const std::uint64_t before = session->memoryUse().bytes;
    auto store =
        std::make_unique<Store>(mapped ? session->openMapped(path_) : session->open(path_));
    Reader reader = store->read("s/a");
    EXPECT_EQ(asText(reader.readAll()), bytes);
    EXPECT_LT(session->memoryUse().peakBytes, before + (mapped ? 3000 : 3000 + 2 * 4096));
    EXPECT_EQ(errorOf([&] { return store->close(); }), Errc::membersOpen);
    reader = store->read("s/a");
    store.reset();
    session.reset();
    EXPECT_EQ(isMapped(), mapped);
    Reader taken = std::move(reader);
    EXPECT_EQ(errorOf([&] { reader.size(); }), Errc::closed);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(asText(taken.readAll()), bytes);
    taken.close();
    EXPECT_FALSE(isMapped());
  }
}

TEST_F(ApiTest, ClosesWhatIsAssignedTo) {
  Store store = makeStore(path_);
  Store nested = store.createStore("s");
  append(nested, "a", "a");
  Writer writer = nested.create("b");
  Reader reader = nested.read("a");
  writer = nested.append("c");
  EXPECT_EQ(writer.path(), "s/c");
  Reader other = nested.read("b");
  other = std::move(reader);
  EXPECT_EQ(get(nested, "a"), "a");
  EXPECT_FALSE(errorOf([&] { return nested.append("b"); }));
  EXPECT_EQ(errorOf([&] { return nested.append("a"); }), Errc::itemInUse);
}

// From a file of this machine, and from the same file of one with the other byte order.
template <typename T>
void keepArray(Session& session, const std::string& path, std::vector<T> values) {
  Store store = session.open(path, Mode::replace, {.pageSize = 64});
  store.create("a").write(std::as_bytes(std::span(values)));
  EXPECT_EQ(store.read("a").readArray<T>(), values);
  store.close();
  transcode(InspectedFile(path), "hxmok1/be/utf-8", path + std::to_string(sizeof(T)));
  for (T& value : values) {
    auto* bytes = reinterpret_cast<std::byte*>(&value);
    std::reverse(bytes, bytes + sizeof(T));
  }
  const Store foreign = session.open(path + std::to_string(sizeof(T)));
  EXPECT_EQ(foreign.read("a").readArray<T>(), values);
  Reader reader = foreign.read("a");
  EXPECT_EQ(reader.skip(sizeof(T)), sizeof(T));
  std::vector<T> rest(values.size());
  EXPECT_EQ(reader.readArray(std::span(rest).first(2)), 2u);
  EXPECT_EQ(reader.readArray(std::span(rest).subspan(2)), values.size() - 3);  // as many as left
  EXPECT_TRUE(std::equal(values.begin() + 1, values.end(), rest.begin()));
  EXPECT_EQ(reader.skip(1), 0u);
}

TEST_F(ApiTest, ReadsNumbersOfEitherByteOrder) {
  keepArray<std::uint8_t>(session_, path_, {1, 2, 255, 4});
  keepArray<std::int16_t>(session_, path_, {1, -2, 0x1234, 4});
  keepArray(session_, path_, std::vector<std::int32_t>(50000, 0x12345678));
  keepArray(session_, path_, std::vector<double>(100, 0.1));
}

TEST_F(ApiTest, ServesAsStreamsOfTheStandardLibrary) {
  const std::string bytes = makeBytes(70000);
  Store store = makeStore(path_);
  ItemOutputStream first(store.create("a"));
  first << 4711 << ' ';
  ItemOutputStream out = std::move(first);
  EXPECT_TRUE(first.bad());  // NOLINT(bugprone-use-after-move)
  out << bytes << std::flush << 'x';
  EXPECT_EQ(out.tellp(), 70006);
  EXPECT_FALSE(out.seekp(0));
  out.close();
  EXPECT_EQ(get(store, "a"), "4711 " + bytes + "x");

  ItemInputStream begun(store.read("a"));
  int number = 0;
  EXPECT_TRUE(begun >> number && begun.get() == ' ');
  ItemInputStream in{Reader()};
  in = std::move(begun);
  std::string text(60000, '\0');
  EXPECT_TRUE(in.read(text.data(), 60000) && number == 4711);
  EXPECT_EQ(text, bytes.substr(0, 60000));
  EXPECT_TRUE(in.seekg(70004) && in.tellg() == 70004);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), bytes.substr(69999) + "x");
  in.clear();
  EXPECT_FALSE(in.seekg(0));
  in.clear();
  EXPECT_EQ(in.tellg(), 70006);
  in.close();
  EXPECT_TRUE(in.get() == EOF && in.bad());
}

TEST_F(ApiTest, TakesThePageSizeOfNewStoresFromTheSession) {
  Session session({.pageSize = 512, .cacheBytesPerFile = 1});
  EXPECT_EQ(session.createInMemory("x").pageSize(), 512);
  session.open(path_, Mode::create).close();
  EXPECT_EQ(session_.open(path_, Mode::openOrCreate).pageSize(), 512);
  EXPECT_EQ(errorOf([&] { return Session({.pageSize = -1}); }), Errc::badPageSize);
}

// Names that the API would not make: two alike, and one of no bytes.
TEST_F(ApiTest, ShowsEachNameOnce) {
  Store memory = session_.createInMemory("x", 64);
  for (const char* name : {"aa", "ab", "ac", "b", "c"})
    append(memory, name, "");
  const Blob blob = memory.makeBlob();
  std::string bytes = asText({blob.bytes().begin(), blob.bytes().end()});
  for (const char* name : {"ab", "ac"})
    bytes.replace(bytes.find(name + std::string(62, '\0')), 2, "aa");
  bytes[bytes.find("c" + std::string(63, '\0'))] = '\0';
  const std::map<std::string, MemberKind> expected = {{"aa", MemberKind::item},
                                                      {"b", MemberKind::item}};
  EXPECT_EQ(membersOf(session_.openBlob(asBytes(bytes), "x")), expected);
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
      EXPECT_EQ(get(store, "a"), "x");
    }
    EXPECT_TRUE(told.empty());
    store = Store();
    session = Session();
  }
  EXPECT_EQ(told, std::vector<std::error_code>{Errc::itemFull});
  ::munmap(room, kTooLong);
}

// Calls it while no file can grow past 100,000 bytes, as on a full disk.
void runOnFullDisk(const std::function<void()>& call) {
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit limit = {100000, before.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &limit);
  call();
  ::setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
}

TEST_F(ApiTest, ThrowsFromCloseWhatTheDiskDidNotTake) {
  const std::string other = directory_ / "other.st";
  makeStoreOf({{"a", "a"}}, other);
  makeStoreOf({{"old", "old"}});
  const std::string before = readFile(path_);
  Store store = session_.open(path_, Mode::update);
  runOnFullDisk([&] {
    append(store, "a", makeBytes(5000000));
    // The failure is this file's, whatever happens to others meanwhile.
    EXPECT_EQ(errorOf([&] { return session_.open(directory_.path().string()); }),
              Errc::fileNotOpen);
    EXPECT_FALSE(errorOf([&] { return session_.open(other).close(); }));
    const std::optional<Error> error = thrownBy([&] { store.close(); });
    ASSERT_TRUE(error && error->fileFailure() != nullptr) << "closed as if all were well";
    EXPECT_EQ(error->errc(), Errc::fileFailed);
    EXPECT_EQ(error->store(), path_);
    EXPECT_EQ(error->fileFailure()->operation, "write");
    EXPECT_EQ(error->fileFailure()->reason, std::errc::file_too_large);
    EXPECT_LE(error->fileFailure()->offset, 100000);
    EXPECT_TRUE(error->reason().ends_with("; the store is as it was)")) << error->reason();
  });
  EXPECT_FALSE(store.isOpen());
  EXPECT_EQ(readFile(path_), before);
}

TEST_F(ApiTest, TellsTheSessionWhatADestructorCanNotThrow) {
  std::vector<std::string> told;
  Session session({.onUnreportedError = [&](const Error& error) { told.push_back(error.what()); }});
  runOnFullDisk([&] {
    Store store = session.open(path_, Mode::create);
    append(store, "a", makeBytes(5000000));
  });
  ASSERT_EQ(told.size(), 1u);
  EXPECT_TRUE(told[0].starts_with(path_ + ": the file service failed (write at byte ")) << told[0];
}

// What else is said, docs/guide.md shows.
TEST_F(ApiTest, SaysWhereAndWhy) {
  makeStoreOf({{"s/a", "a"}});
  Store store = session_.open(path_, Mode::update);
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { return store.read("s/a").readArray<std::int32_t>(); },
       "s/a: the item ends within an element (bytes left: 1, in an element: 4)"},
      {[&] { return store.openStore("s").create("a"); }, "s/a: exists already"},
      {[&] { return store.create("s//a"); },
       "s//a: the name can't be kept (a component is empty)"}};
  for (const auto& [call, message] : cases)
    EXPECT_EQ(thrownBy(call).value().what(), path_ + ": " + message);
}

TEST_F(ApiTest, OpensWhatIsLeftOfADamagedDirectoryOnlyWhenAskedTo) {
  Store store = makeStore(path_);
  for (int i = 0; i < 20; ++i)
    append(store, std::to_string(i), "x");
  store.close();
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) - 5 * 96 - 40);
  const std::string file = readFile(path_);
  EXPECT_EQ(errorOf([&] { return session_.openMapped(path_); }), Errc::damaged);
  EXPECT_EQ(errorOf([&] { return session_.openBlob(asBytes(file).first(39), "x"); }),
            Errc::notAStore);
  EXPECT_EQ(errorOf([&] { return Session().open(path_, Mode::update); }), Errc::damaged);
  Session session;
  EXPECT_EQ(errorOf([&] { return session.open(path_); }), Errc::damaged);
  const Store rest = session.open(path_, Mode::read, {.acceptDamaged = true});
  EXPECT_EQ(rest.damage(), Errc::damaged);
  const auto members = membersOf(rest);
  EXPECT_TRUE(members.size() >= 10 && members.size() < 20) << members.size();
  for (const auto& [name, kind] : members)
    EXPECT_EQ(get(rest, name), "x");
}

TEST_F(ApiTest, ReportsADamagedItemAfterTheBytesBeforeIt) {
  Store store = makeStore(path_);
  const std::string bytes = makeBytes(3 * 4096);
  append(store, "a", bytes);
  store.close();
  // The second page's record lies behind the first page's bytes: a capacity that is no page size.
  std::string file = readFile(path_);
  const std::size_t record = file.find(bytes.substr(0, 4096)) + 4096;
  file[record + 8] = 1;
  writeFile(path_, file);
  Session session;
  const Store damaged = session.open(path_);
  EXPECT_EQ(errorOf([&] { return damaged.read("a").readAll(); }), Errc::damaged);
}

}  // namespace

}  // namespace hxcrate
