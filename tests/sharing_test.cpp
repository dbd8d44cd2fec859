// Who may have a store file open, what an update is undone by, and what is told of it: the API over
// the real host and the real module.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <hxcrate/crate.hpp>
#include <iostream>
#include <thread>

#include "tests/api_errors.h"
#include "tests/temporary_directory.h"

namespace hxcrate {

namespace {

using hxtest::makeBytes;
using hxtest::readFile;
using hxtest::writeFile;
using std::chrono::milliseconds;

// While it lives, no file grows past so many bytes.
class SizeLimit {
 public:
  explicit SizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit = {bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~SizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }

 private:
  sighandler_t handler_;
  rlimit before_{};
};

class Sharing : public testing::Test {
 protected:
  Sharing() {
    Store store = session_.open(path_, Mode::create);
    put(store, "old");
    store.close();
  }

  static void put(Store& store, const std::string& name) { store.append(name).write(name); }

  // The names of the items in the file, as anybody else sees them.
  static std::string namesIn(const Store& store) {
    std::string names;
    for (const char* name : {"old", "a", "b", "c"}) {
      std::error_code error;
      if (store.read(name, error).isOpen()) names += name;
    }
    return names;
  }
  std::string names() const { return namesIn(Session().open(path_)); }

  // As if the machine stopped now and went on with a copy of the disk.
  std::string namesAfterCrash() const {
    const std::string copy = directory_ / "copy";
    std::filesystem::create_directory(copy);
    for (const char* name : {"/x.st", "/x.st-journal"}) {
      std::filesystem::remove(copy + name);
      if (std::filesystem::exists(directory_.path().string() + name)) {
        writeFile(copy + name, readFile(directory_.path().string() + name));
      }
    }
    return namesIn(Session().open(copy + "/x.st"));
  }

  const hxtest::TemporaryDirectory directory_;
  const std::string path_ = directory_ / "x.st";
  Session session_;
};

// By whatever path it is asked for.
TEST_F(Sharing, IsOneUpdateOrAnyNumberOfReaders) {
  const std::string link = directory_ / "link";
  std::filesystem::create_symlink(path_, link);
  const auto in = [](const std::string& path, const char* use) {
    return path + ": the store is in use (open for " + use + " in this session)";
  };
  Store reader = session_.open(path_);
  for (const std::string& path : {path_, link}) {
    for (const Mode mode : {Mode::update, Mode::openOrCreate, Mode::replace})
      EXPECT_EQ(whatOf([&] { return session_.open(path, mode); }), in(path, "reading"));
    EXPECT_EQ(namesIn(session_.open(path)), "old");
  }
  reader.close();
  Store mapped = session_.openMapped(link);
  EXPECT_EQ(whatOf([&] { return session_.open(path_, Mode::update); }), in(path_, "reading"));
  mapped.close();

  Store update = session_.open(link, Mode::update);
  for (const std::string& path : {path_, link}) {
    for (const Mode mode : {Mode::read, Mode::update, Mode::replace})
      EXPECT_EQ(whatOf([&] { return session_.open(path, mode); }), in(path, "update"));
    EXPECT_EQ(whatOf([&] { return session_.openMapped(path); }), in(path, "update"));
  }
  put(update, "a");
  update.close();
  EXPECT_EQ(namesAfterCrash(), "olda");
}

TEST_F(Sharing, CommitsAndGoesOn) {
  Store store = session_.open(path_, Mode::update);
  Store nested = store.createStore("s");
  Reader reader = store.read("old");
  Writer writer = store.append("a");
  const std::string before = readFile(path_);
  EXPECT_EQ(errorOf([&] { store.commit(); }), Errc::membersOpen);
  EXPECT_EQ(readFile(path_), before);
  writer.close();
  store.commit();
  EXPECT_EQ(namesAfterCrash(), "olda");
  EXPECT_EQ(errorOf([&] { return Session().open(path_); }), Errc::storeInUse);
  EXPECT_EQ(reader.readText(), "old");
  put(nested, "x");
  put(store, "b");
  nested.commit();
  EXPECT_EQ(namesAfterCrash(), "oldab");
  put(store, "c");
  reader.close();
  nested.close();
  store.abandon();
  EXPECT_EQ(names(), "oldab");
  EXPECT_EQ(session_.open(path_).read("s/x").readText(), "x");
  EXPECT_EQ(errorOf([&] { session_.open(path_).commit(); }), Errc::readOnly);
}

// Told by the next call that writes, and by the close, or by the callback where nobody closes; it
// is this file's, whatever happens to others meanwhile.
TEST_F(Sharing, TellsAFailureAsSoonAsItIsKnown) {
  const std::string before = readFile(path_);
  std::vector<std::string> told;
  Session session({.onUnreportedError = [&](const Error& error) { told.push_back(error.what()); }});
  const SizeLimit limit(300000);
  for (const bool isClosed : {true, false}) {
    Store store = session.open(path_, Mode::update);
    Writer writer = store.create("a");
    const std::string piece = makeBytes(1 << 20);
    int written = 1;
    while (written < 8 && whatOf([&] { writer.write(piece); }).empty())
      ++written;
    EXPECT_LT(written, 8);
    EXPECT_EQ(errorOf([&] { return store.create("b"); }), std::errc::file_too_large);
    writer.close();
    EXPECT_EQ(errorOf([&] { return session.open(directory_.path()); }), Errc::fileNotOpen);
    EXPECT_EQ(errorOf([&] { session.open(directory_ / "y", Mode::openOrCreate).close(); }),
              std::error_code());
    if (!isClosed) continue;
    const std::string what = whatOf([&] { store.close(); });
    EXPECT_TRUE(what.starts_with(path_ + ": the file service failed (write at byte ")) << what;
    EXPECT_TRUE(what.ends_with("; the store is as it was)")) << what;
    EXPECT_TRUE(!store.isOpen() && told.empty());
    told.push_back(what);
  }
  ASSERT_EQ(told.size(), 2u);
  EXPECT_EQ(told[0], told[1]);
  EXPECT_EQ(readFile(path_), before);

  Store store = session.open(path_, Mode::update);
  Store nested = store.createStore("s");
  store.create("a").write(makeBytes(400000));
  EXPECT_EQ(errorOf([&] { nested.commit(); }), std::errc::file_too_large);
  EXPECT_FALSE(nested.isOpen());
  EXPECT_EQ(errorOf([&] { store.commit(); }), Errc::fileFailed);
  EXPECT_FALSE(store.isOpen());
  EXPECT_EQ(readFile(path_), before);
  EXPECT_EQ(namesIn(session.open(path_, Mode::update)), "old");
}

// By whatever is still open. Who was told what an update was lost by is not told again.
TEST_F(Sharing, ShowsNothingThatWasUndone) {
  for (const Errc end : {Errc::fileFailed, Errc::abandoned}) {
    int reports = 0;
    Session session({.onUnreportedError = [&](const Error&) { ++reports; }});
    {
      Store store = session.open(path_, Mode::update);
      Store nested = store.createStore("s");
      put(nested, "a");
      Reader reader = nested.read("a");
      Reader ended = nested.read("a");
      ended.readText();
      const View view = nested.view("a");
      Writer writer = end == Errc::abandoned ? nested.create("b") : Writer();
      const MemberRange members = nested.members();
      const Listing listing = nested.list();
      auto member = members.begin();
      auto listed = listing.begin();
      if (end == Errc::abandoned) {
        store.abandon();
      } else {
        std::filesystem::rename(path_, path_ + "2");
        EXPECT_EQ(errorOf([&] { store.commit(); }), end);
        std::filesystem::rename(path_ + "2", path_);
      }
      const std::function<void()> uses[] = {
          [&] { return reader.size(); },
          [&] { return reader.position(); },
          [&] { return reader.readText(); },
          [&] { return ended.readText(); },
          [&] { return ended.readArray<int>(); },
          [&] { return view.readText(); },
          [&] { return nested.read("a"); },
          [&] { return nested.getText("a"); },
          [&] { return nested.exists("a"); },
          [&] { return nested.stat("a"); },
          [&] { return nested.list(); },
          [&] { return nested.members(); },
          [&] { return members.begin(); },
          [&] { return listing.begin(); },
          [&] { ++member; },
          [&] { ++listed; },
          [&] { end == Errc::abandoned ? void(writer.size()) : put(nested, "c"); },
          [&] { end == Errc::abandoned ? writer.write("") : nested.commit(); }};
      for (const auto& use : uses)
        EXPECT_EQ(errorOf(use), end) << &use - uses;
    }
    EXPECT_EQ(reports, 0);
    EXPECT_EQ(names(), "old");
  }
}

// The store first, its members after it, or a nested store alone.
TEST_F(Sharing, LeavingByAnExceptionUndoes) {
  const std::function<void()> leave[] = {[&] {
                                           Store store = session_.open(path_, Mode::update);
                                           put(store, "a");
                                           throw 1;
                                         },
                                         [&] {
                                           Store nested;
                                           Store store = session_.open(path_, Mode::update);
                                           nested = store.createStore("s");
                                           put(store, "a");
                                           throw 1;
                                         },
                                         [&] {
                                           Store store = session_.open(path_, Mode::update);
                                           put(store, "a");
                                           const Store nested = store.createStore("s");
                                           store = Store();
                                           throw 1;
                                         }};
  for (const auto& call : leave) {
    EXPECT_THROW(call(), int);
    EXPECT_EQ(names(), "old");
  }
  // What is opened while an exception is on its way is none of its business.
  struct Cleanup {
    Session& session;
    const std::string& path;
    ~Cleanup() {
      Store store = session.open(path, Mode::update);
      put(store, "b");
    }
  };
  const auto clean = [&] {
    const Cleanup cleanup{session_, path_};
    throw 1;
  };
  EXPECT_THROW(clean(), int);
  EXPECT_EQ(names(), "oldb");
}

// Whoever waits for one file keeps nobody from another, and says how long it was.
TEST_F(Sharing, WaitsAlone) {
  Store busy = Session().open(path_, Mode::update);
  for (const milliseconds wait : {milliseconds(60000), milliseconds(-1), milliseconds::max()}) {
    auto patient = std::async(std::launch::async, [&] {
      return errorOf([&] { return session_.open(path_, Mode::read, {.lockWait = wait}); });
    });
    EXPECT_EQ(patient.wait_for(milliseconds(50)), std::future_status::timeout);
    session_.open(directory_ / "y", Mode::openOrCreate).close();
    EXPECT_EQ(patient.wait_for(milliseconds(0)), std::future_status::timeout);
    busy.close();
    EXPECT_FALSE(patient.get());
    busy = session_.open(path_, Mode::update);
  }
  const std::string what =
      whatOf([&] { return session_.open(path_, Mode::update, {.lockWait = milliseconds(20)}); });
  EXPECT_TRUE(what.find("in this session, waited 2") != what.npos) << what;
  busy.close();

  Store reader = Session().open(path_);
  const auto updating = std::async(std::launch::async, [&] {
    session_.open(path_, Mode::update, {.lockWait = milliseconds(-1)}).close();
  });
  std::string reason;
  while (reason.empty())
    reason = whatOf([&] { session_.open(path_).close(); });
  EXPECT_TRUE(reason.ends_with("(waited for by an update in this session)")) << reason;
  reader.close();
}

// A file of the same header and length in place of the one that was closed, and one that was
// changed within the same tick of the clock.
TEST_F(Sharing, ShowsNothingStale) {
  EXPECT_EQ(namesIn(session_.open(path_)), "old");
  const std::string other = directory_ / "other";
  Store made = Session().open(other, Mode::create);
  made.append("new").write("old");
  made.close();
  ASSERT_EQ(readFile(other).size(), readFile(path_).size());
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(namesIn(session_.open(path_)), "old");  // kept from here on
  std::filesystem::rename(other, path_);
  EXPECT_EQ(session_.open(path_).read("new").readText(), "old");
  EXPECT_EQ(names(), "");

  Session another({.durability = Durability::none});
  std::string text = "old";
  for (int round = 0; round < 100; ++round) {
    EXPECT_EQ(session_.open(path_).read("new").readText(), text);
    Store update = another.open(path_, Mode::update);
    update.append("new").write("x");
    update.close();
    text += "x";
  }
}

// A reader of a file that lost its name stays with it.
TEST_F(Sharing, TellsFilesApartThatHadOneName) {
  const Store old = session_.open(path_);
  std::filesystem::remove(path_);
  EXPECT_EQ(errorOf([&] { return session_.open(path_); }), Errc::notFound);
  Store made = session_.open(path_, Mode::create);
  put(made, "a");
  made.close();
  EXPECT_EQ(namesIn(session_.open(path_)), "a");
  EXPECT_EQ(namesIn(old), "old");
}

TEST_F(Sharing, KeepsAsManyClosedStoresAsItIsTold) {
  const std::string bytes = readFile(path_);
  for (int i = 0; i < 300; ++i)
    writeFile(directory_ / std::to_string(i), bytes);
  std::this_thread::sleep_for(milliseconds(20));
  Session session;
  const std::uint64_t empty = session.memoryUse().bytes;
  Store first = session.open(path_);
  const std::uint64_t one = session.memoryUse().bytes - empty;
  first.close();
  session.forget(path_);
  EXPECT_EQ(session.memoryUse().bytes, empty);
  for (int i = 0; i < 300; ++i)
    session.open(directory_ / std::to_string(i)).close();
  EXPECT_LT(session.memoryUse().bytes, empty + 18 * one);
  EXPECT_GT(session.memoryUse().bytes, empty + 14 * one);

  Session updating;
  Store update = updating.open(path_, Mode::update);
  update.close();
  EXPECT_GT(updating.memoryUse().bytes, empty + one / 2) << "its own update is no doubt";
}

// Members go and are renamed in one step; a failure, be it the caller's own, leaves the file.
TEST_F(Sharing, RewritesAFileInItsPlace) {
  const std::string link = directory_ / "link", bytes = makeBytes(1000000);
  std::filesystem::create_symlink(path_, link);
  std::filesystem::permissions(path_, std::filesystem::perms{0640});
  Store store = session_.open(path_, Mode::update);
  store.create("s/t/a", Parents::create).write(bytes);
  for (const char* dropped : {"s/tmp/b", "s/tmp.c", "u/v"})
    store.create(dropped, Parents::create).write(bytes);
  RewriteOptions options;
  const auto keeps = [](const ListedMember& m) { return m.path != "s/tmp" && m.path != "s/tmp.c"; };
  options.keeps = keeps;
  EXPECT_EQ(errorOf([&] { session_.rewrite(link, options); }), Errc::storeInUse);
  store.close();
  const std::string before = readFile(path_);
  const std::pair<std::string, std::error_code> refused[] = {
      {"x", Errc::exists}, {"a/b", Errc::badName}, {"", Errc::badName}};
  for (const auto& [name, code] : refused) {
    options.rename = [name = name](const ListedMember&) { return name; };
    EXPECT_EQ(errorOf([&] { session_.rewrite(link, options); }), code) << name;
  }
  {
    const SizeLimit limit(300000);
    EXPECT_EQ(errorOf([&] { session_.rewrite(link); }), std::errc::file_too_large);
  }
  EXPECT_EQ(readFile(path_), before);
  options.rename = [](const ListedMember& m) {
    return m.path == "u" ? "w" : m.path.substr(m.path.rfind('/') + 1);
  };
  options.keeps = [](const ListedMember&) -> bool { throw std::runtime_error("own"); };
  std::error_code error;
  EXPECT_THROW(session_.rewrite(link, error, options), std::runtime_error);
  EXPECT_EQ(readFile(path_), before);
  options.keeps = keeps;
  options.pageSize = 512;
  hxtest::writeFile(directory_ / ".hxcrate-0123456789abcdef", "left by one who was killed");
  session_.rewrite(link, options);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  const Store written = session_.open(link);
  std::string seen;
  for (const ListedMember& member : written.list("", {.isSorted = true}))
    seen += member.path + " ";
  EXPECT_EQ(seen, "old s s/t s/t/a w w/v ");
  EXPECT_TRUE(written.getText("s/t/a") == bytes && written.pageSize() == 512);
  EXPECT_EQ(std::filesystem::status(path_).permissions(), std::filesystem::perms{0640});
  const auto files = std::filesystem::directory_iterator(directory_.path());
  EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

// Whoever is killed while there is one leaves it beside the other file. The second time a close of
// the old file would write its directory in another order.
TEST_F(Sharing, RewritesWithoutAJournal) {
  Store store = session_.open(path_, Mode::update);
  for (int i = 0; i < 200; ++i)
    store.create(std::to_string(i)).close();
  store.close();
  session_.rewrite(path_);
  const int made = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  ASSERT_GE(::inotify_add_watch(made, directory_.path().c_str(), IN_CREATE), 0);
  session_.rewrite(path_);
  char events[4096] = {};
  EXPECT_GT(::read(made, events, sizeof(events)), 0);
  ::close(made);
  EXPECT_EQ(std::string(events, sizeof(events)).find("-journal"), std::string::npos);
  std::string file = readFile(path_);
  file[file.find("10" + std::string(62, '\0')) + 1] = '1';
  writeFile(path_, file);
  EXPECT_EQ(errorOf([&] { session_.rewrite(path_); }), Errc::damaged) << "two are called 11";
}

// Nothing but waiting comes of it.
TEST_F(Sharing, MakesStoresBesideWhoeverReplacesThem) {
  const auto work = [&](Mode mode) {
    Session session({.durability = Durability::none, .lockWait = milliseconds(-1)});
    std::string failures;
    for (int round = 0; round < 300; ++round)
      failures += whatOf([&] { session.open(path_, mode).close(); });
    return failures;
  };
  auto replacing = std::async(std::launch::async, [&] { return work(Mode::replace); });
  EXPECT_EQ(work(Mode::openOrCreate), "");
  EXPECT_EQ(replacing.get(), "");
}

// The same from either overload: the number of the system, and what it means here.
TEST_F(Sharing, GivesCodesThatAProgramCanUse) {
  writeFile(directory_ / "text", makeBytes(500));
  const std::pair<std::string, std::pair<std::errc, Errc>> cases[] = {
      {directory_.path(), {std::errc::is_a_directory, Errc::fileNotOpen}},
      {directory_ / std::string(300, 'n'), {std::errc::filename_too_long, Errc::fileNotOpen}},
      {std::string(5000, 'n'), {std::errc::filename_too_long, Errc::nameTooLong}},
      {path_ + "/x", {std::errc::not_a_directory, Errc::fileNotOpen}},
      {directory_ / "none", {std::errc::no_such_file_or_directory, Errc::notFound}}};
  for (const auto& [path, codes] : cases) {
    std::error_code error;
    EXPECT_FALSE(session_.open(path, error).isOpen());
    EXPECT_TRUE(error == codes.first && error == codes.second) << path << error.message();
    EXPECT_EQ(error, errorOf([&, path = path] { return session_.open(path); }));
    EXPECT_FALSE(session_.openMapped(path, error).isOpen());
    EXPECT_TRUE(error == codes.first && error == codes.second) << path << error.message();
  }
  const auto inChild = [&](const std::function<std::error_code()>& call, std::errc code) {
    EXPECT_EXIT(::_exit(call() == code ? 0 : 1), testing::ExitedWithCode(0), "") << int(code);
  };
  inChild(
      [&] {
        constexpr uid_t kNobody = 65534;
        Session session;
        std::filesystem::permissions(directory_.path(), std::filesystem::perms::all);
        std::filesystem::permissions(path_, std::filesystem::perms::none);
        if (::geteuid() == 0 && ::setresuid(kNobody, kNobody, kNobody) != 0) ::_exit(2);
        return errorOf([&] { return session.open(path_); });
      },
      std::errc::permission_denied);
  // The undefined-behaviour sanitizer needs a descriptor itself to look at an object.
  if (!HX_SANITIZED)
    inChild(
        [&] {
          const rlimit none = {static_cast<rlim_t>(::dup(0)), 1024};
          Session session;
          ::setrlimit(RLIMIT_NOFILE, &none);
          return errorOf([&] { return session.open(directory_ / "text"); });
        },
        std::errc::too_many_files_open);
  inChild(
      [&] {
        const std::string full = directory_ / "full";
        std::filesystem::create_directory(full);
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("x", full.c_str(), "tmpfs", 0, "size=64k") != 0) {
          std::cout << "no tmpfs may be mounted here: a full disk is not tried\n";
          return make_error_code(std::errc::no_space_on_device);
        }
        Session session;
        Store store = session.open(full + "/x", Mode::create);
        std::error_code error;
        store.create("a").write(makeBytes(1 << 20), error);
        store.close(error);
        return error;
      },
      std::errc::no_space_on_device);
  EXPECT_EQ(errorOf([&] { return session_.open(directory_ / "text"); }), Errc::notAStore);
  const std::string what =
      whatOf([&] { return session_.open(directory_ / std::string(100000, 'n')); });
  EXPECT_LT(what.size(), 4096u);
}

}  // namespace

}  // namespace hxcrate
