// SQLite.
#include <sqlite3.h>

#include <cstring>
#include <map>

#include "bench/engines/engines.h"

namespace bench {

namespace {

constexpr int kTop = 0;  // the parent of the members at the top

void check(int result, sqlite3* database) {
  if (result == SQLITE_OK || result == SQLITE_ROW || result == SQLITE_DONE) return;
  throw std::runtime_error(std::string("sqlite: ") + sqlite3_errmsg(database));
}

class Statement {
 public:
  Statement(sqlite3* database, const char* text) : database_(database) {
    check(sqlite3_prepare_v3(database, text, -1, SQLITE_PREPARE_PERSISTENT, &handle_, nullptr),
          database);
  }
  Statement(Statement&& other) noexcept
      : database_(other.database_), handle_(std::exchange(other.handle_, nullptr)) {}
  Statement& operator=(Statement&&) = delete;
  ~Statement() { sqlite3_finalize(handle_); }

  Statement& bind(int index, std::string_view text) {
    check(sqlite3_bind_text64(handle_, index, text.data(), text.size(), SQLITE_STATIC, SQLITE_UTF8),
          database_);
    return *this;
  }
  Statement& bind(int index, Bytes bytes) {
    check(sqlite3_bind_blob64(handle_, index, bytes.data(), bytes.size(), SQLITE_STATIC),
          database_);
    return *this;
  }
  Statement& bind(int index, sqlite3_int64 number) {
    check(sqlite3_bind_int64(handle_, index, number), database_);
    return *this;
  }
  bool step() {
    const int result = sqlite3_step(handle_);
    check(result, database_);
    return result == SQLITE_ROW;
  }
  void reset() { sqlite3_reset(handle_); }
  void run() {
    step();
    reset();
  }

  sqlite3_int64 number(int column) const { return sqlite3_column_int64(handle_, column); }
  std::string_view text(int column) const {
    const auto* begin = reinterpret_cast<const char*>(sqlite3_column_text(handle_, column));
    return {begin, static_cast<std::size_t>(sqlite3_column_bytes(handle_, column))};
  }
  Bytes bytes(int column) const {
    const auto* begin = static_cast<const std::byte*>(sqlite3_column_blob(handle_, column));
    return {begin, static_cast<std::size_t>(sqlite3_column_bytes(handle_, column))};
  }

 private:
  sqlite3* database_;
  sqlite3_stmt* handle_ = nullptr;
};

// A connection with the statements that were prepared on it.
class Database {
 public:
  explicit Database(const std::string& path) {
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX;
    const int result = sqlite3_open_v2(path.c_str(), &handle_, flags, nullptr);
    require(result == SQLITE_OK, "sqlite does not open " + path);
  }
  ~Database() {
    statements_.clear();
    sqlite3_close(handle_);
  }
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  sqlite3* handle() { return handle_; }
  void execute(const std::string& text) {
    check(sqlite3_exec(handle_, text.c_str(), nullptr, nullptr, nullptr), handle_);
  }
  // `text` is a literal: its address is what it is known by.
  Statement& prepared(const char* text) {
    return statements_.try_emplace(text, handle_, text).first->second;
  }

 private:
  sqlite3* handle_ = nullptr;
  std::map<const char*, Statement> statements_;
};

void makeTables(Database& database, Shape shape) {
  if (shape == Shape::small) {
    database.execute("CREATE TABLE items(name TEXT PRIMARY KEY, bytes BLOB) WITHOUT ROWID");
  } else if (shape == Shape::large) {
    database.execute("CREATE TABLE pieces(name TEXT, number INTEGER, bytes BLOB)");
    database.execute("CREATE UNIQUE INDEX places ON pieces(name, number)");
  } else {
    database.execute(
        "CREATE TABLE members(id INTEGER PRIMARY KEY, parent INTEGER, name TEXT, bytes BLOB)");
    database.execute("CREATE UNIQUE INDEX names ON members(parent, name)");
  }
}

class SqliteWriting : public Writing {
 public:
  SqliteWriting(Database& database, Shape shape) : database_(database), shape_(shape) {
    database_.execute("BEGIN IMMEDIATE");
  }

  void put(std::string_view name, Bytes bytes) override {
    if (shape_ == Shape::nested) {
      insertMember(name).bind(3, bytes).run();
    } else {
      Statement& insert = database_.prepared("INSERT INTO items VALUES(?1, ?2)");
      insert.bind(1, name).bind(2, bytes).run();
    }
  }

  void putPieces(std::string_view name, const Pieces& pieces) override {
    Statement& insert = database_.prepared("INSERT INTO pieces VALUES(?1, ?2, ?3)");
    insert.bind(1, name);
    for (std::size_t i = 0; i < pieces.count(); ++i)
      insert.bind(2, static_cast<sqlite3_int64>(i)).bind(3, pieces.at(i)).run();
  }

  void enter(std::string_view name) override {
    insertMember(name).bind(3, Bytes()).run();
    parents_.push_back(sqlite3_last_insert_rowid(database_.handle()));
  }
  void leave() override { parents_.pop_back(); }
  void commit() override { database_.execute("COMMIT"); }

 private:
  Statement& insertMember(std::string_view name) {
    Statement& insert =
        database_.prepared("INSERT INTO members(parent, name, bytes) VALUES(?1, ?2, ?3)");
    return insert.bind(1, parents_.back()).bind(2, name);
  }

  Database& database_;
  Shape shape_;
  std::vector<sqlite3_int64> parents_{kTop};
};

class SqliteReading : public Reading {
 public:
  explicit SqliteReading(Database& database) : database_(database) { database_.execute("BEGIN"); }
  ~SqliteReading() override {
    sqlite3_exec(database_.handle(), "COMMIT", nullptr, nullptr, nullptr);
  }

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    Statement& select = database_.prepared("SELECT bytes FROM items WHERE name = ?1");
    require(select.bind(1, name).step(), "sqlite has no such item");
    const Bytes bytes = select.bytes(0);
    const std::size_t count = std::min(out.size(), bytes.size());
    std::memcpy(out.data(), bytes.data(), count);
    select.reset();
    return count;
  }

  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    Statement& select =
        database_.prepared("SELECT bytes FROM pieces WHERE name = ?1 ORDER BY number");
    select.bind(1, name);
    std::uint64_t done = 0;
    while (select.step()) {
      const Bytes bytes = select.bytes(0);
      std::memcpy(buffer.data(), bytes.data(), bytes.size());
      if (seen) seen(buffer.first(bytes.size()));
      done += bytes.size();
    }
    select.reset();
    return done;
  }

  Tally enumerate() override {
    Statement& select = database_.prepared("SELECT name FROM items");
    Tally tally;
    while (select.step())
      tally.count(select.text(0));
    select.reset();
    return tally;
  }

  Tally walk(const Seen& seen) override {
    Tally tally;
    walkInto(kTop, 0, seen, tally);
    return tally;
  }

 private:
  void walkInto(sqlite3_int64 parent, std::size_t depth, const Seen& seen, Tally& tally) {
    if (depth == levels_.size()) {
      levels_.emplace_back(database_.handle(),
                           "SELECT id, name, bytes IS NULL, bytes FROM members WHERE parent = ?1");
    }
    levels_[depth].bind(1, parent);
    while (levels_[depth].step()) {
      tally.count(levels_[depth].text(1));
      if (levels_[depth].number(2) != 0) {
        walkInto(levels_[depth].number(0), depth + 1, seen, tally);
      } else if (seen) {
        seen(levels_[depth].bytes(3));
      }
    }
    levels_[depth].reset();
  }

  Database& database_;
  std::vector<Statement> levels_;
};

class SqliteSession : public Session {
 public:
  explicit SqliteSession(Sync sync) : sync_(sync) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape shape) override {
    Database& database = connect(path, shape);
    setJournal("DELETE");
    auto writing = std::make_unique<SqliteWriting>(database, shape);
    makeTables(database, shape);
    return writing;
  }
  // Of all journals the write-ahead log waits least for one small commit.
  std::unique_ptr<Writing> update(const std::string& path) override {
    Database& database = connect(path, Shape::small);
    setJournal("WAL");
    return std::make_unique<SqliteWriting>(database, Shape::small);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape shape) override {
    return std::make_unique<SqliteReading>(connect(path, shape));
  }

 private:
  Database& connect(const std::string& path, Shape shape) {
    if (database_ && path == path_) return *database_;
    path_ = path;
    database_ = std::make_unique<Database>(path);
    database_->execute(shape == Shape::large ? "PRAGMA page_size = 65536"
                                             : "PRAGMA page_size = 4096");
    database_->execute("PRAGMA cache_size = -65536; PRAGMA mmap_size = 2147418112");
    return *database_;
  }
  void setJournal(const std::string& synced) {
    const std::string journal = sync_ == Sync::on ? synced : "OFF";
    const std::string synchronous = sync_ == Sync::on ? "FULL" : "OFF";
    database_->execute("PRAGMA journal_mode = " + journal +
                       "; PRAGMA synchronous = " + synchronous);
  }

  Sync sync_;
  std::string path_;
  std::unique_ptr<Database> database_;
};

class SqliteImage : public Image {
 public:
  explicit SqliteImage(sqlite3* database) {
    sqlite3_int64 size = 0;
    bytes_ = sqlite3_serialize(database, "main", &size, 0);
    require(bytes_ != nullptr, "sqlite makes no image");
    size_ = static_cast<std::size_t>(size);
  }
  ~SqliteImage() override { sqlite3_free(bytes_); }
  SqliteImage(const SqliteImage&) = delete;
  SqliteImage& operator=(const SqliteImage&) = delete;
  Bytes bytes() const override { return {reinterpret_cast<const std::byte*>(bytes_), size_}; }

 private:
  unsigned char* bytes_;
  std::size_t size_;
};

class SqliteInMemory : public InMemory {
 public:
  SqliteInMemory() {
    database_.execute("PRAGMA page_size = 65536");
    database_.execute("CREATE TABLE items(id INTEGER PRIMARY KEY, name TEXT UNIQUE, bytes BLOB)");
  }
  void put(std::string_view name, Bytes bytes) override {
    Statement& insert = database_.prepared("INSERT INTO items(name, bytes) VALUES(?1, ?2)");
    insert.bind(1, name).bind(2, bytes).run();
  }
  std::unique_ptr<Image> makeImage() override {
    return std::make_unique<SqliteImage>(database_.handle());
  }

 private:
  Database database_{":memory:"};
};

// Gives up its own database for what lies in the bytes.
class SqliteImageReading : public Reading {
 public:
  explicit SqliteImageReading(Bytes image) {
    auto* bytes = reinterpret_cast<unsigned char*>(const_cast<std::byte*>(image.data()));
    const auto size = static_cast<sqlite3_int64>(image.size());
    check(sqlite3_deserialize(database_.handle(), "main", bytes, size, size,
                              SQLITE_DESERIALIZE_READONLY),
          database_.handle());
    reading_ = std::make_unique<SqliteReading>(database_);
  }
  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return reading_->get(name, out);
  }

 private:
  Database database_{":memory:"};
  std::unique_ptr<SqliteReading> reading_;
};

class Sqlite : public Engine {
 public:
  Sqlite()
      : Engine({"sqlite", "abcdefghikl",
                "Prepared statements, one transaction, a cache of 64 MiB, mmap of 2 GiB. Small "
                "items: a table without row ids, pages of 4096 bytes; large ones: a row for each "
                "64 KiB, pages of 65536 bytes, which was faster than sqlite3_blob_write; nested "
                "stores: rows with the parent's id. Sync off: journal_mode OFF, synchronous OFF; "
                "on: synchronous FULL, a rollback journal where a file is made and a write-ahead "
                "log where one is updated. In memory: sqlite3_serialize and _deserialize. Trees: "
                "sqlite3 -A with its own settings: it deflates and waits for the disk.",
                "sqlite", Threads::ownSession}) {}

  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<SqliteSession>(sync);
  }
  std::unique_ptr<InMemory> createInMemory() override { return std::make_unique<SqliteInMemory>(); }
  std::unique_ptr<Reading> openImage(Bytes image) override {
    return std::make_unique<SqliteImageReading>(image);
  }
  Archiver archiver(const std::string& file, const std::string& in,
                    const std::string& out) const override {
    return {{"sqlite3", "-A", "-cf", file, "-C", in, "."},
            {"sqlite3", "-A", "-xf", file, "-C", out}};
  }
};

}  // namespace

EnginePtr makeSqlite() {
  return std::make_unique<Sqlite>();
}

}  // namespace bench
