// LMDB.
#include <fcntl.h>
#include <lmdb.h>
#include <unistd.h>

#include <cstring>

#include "bench/engines/engines.h"

namespace bench {

namespace {

constexpr std::size_t kMapSize = std::size_t{2} << 30;

void check(int result) {
  if (result != MDB_SUCCESS) throw std::runtime_error(std::string("lmdb: ") + mdb_strerror(result));
}

MDB_val valueOf(std::string_view text) {
  return {text.size(), const_cast<char*>(text.data())};
}
std::string_view textOf(const MDB_val& value) {
  return {static_cast<const char*>(value.mv_data), value.mv_size};
}

class Environment {
 public:
  Environment(const std::string& path, Sync sync) {
    check(mdb_env_create(&handle_));
    check(mdb_env_set_mapsize(handle_, kMapSize));
    const unsigned flags =
        MDB_NOSUBDIR | MDB_NOTLS | MDB_WRITEMAP | (sync == Sync::off ? unsigned{MDB_NOSYNC} : 0u);
    check(mdb_env_open(handle_, path.c_str(), flags, 0666));
  }
  ~Environment() { mdb_env_close(handle_); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  MDB_env* handle() const { return handle_; }

 private:
  MDB_env* handle_ = nullptr;
};

class Transaction {
 public:
  Transaction(const Environment& environment, unsigned flags) {
    check(mdb_txn_begin(environment.handle(), nullptr, flags, &handle_));
    check(mdb_dbi_open(handle_, nullptr, 0, &database_));
  }
  ~Transaction() {
    if (handle_ != nullptr) mdb_txn_abort(handle_);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  MDB_txn* handle() const { return handle_; }
  MDB_dbi database() const { return database_; }
  void commit() { check(mdb_txn_commit(std::exchange(handle_, nullptr))); }

 private:
  MDB_txn* handle_ = nullptr;
  MDB_dbi database_ = 0;
};

class LmdbWriting : public Writing {
 public:
  explicit LmdbWriting(const Environment& environment) : transaction_(environment, 0) {}

  void put(std::string_view name, Bytes bytes) override {
    MDB_val value{bytes.size(), const_cast<std::byte*>(bytes.data())};
    insert(name, value, MDB_NOOVERWRITE);
  }
  // Values can't grow: the length is told first.
  void putPieces(std::string_view name, const Pieces& pieces) override {
    MDB_val value{pieces.totalBytes(), nullptr};
    insert(name, value, MDB_NOOVERWRITE | MDB_RESERVE);
    auto* to = static_cast<std::byte*>(value.mv_data);
    for (std::size_t i = 0; i < pieces.count(); ++i, to += pieces.size())
      std::memcpy(to, pieces.at(i).data(), pieces.size());
  }
  // A store is a key as well, so that an empty one would be there.
  void enter(std::string_view name) override {
    put(name, {});
    prefix_.append(name).append("/");
  }
  void leave() override { prefix_.resize(prefix_.rfind('/', prefix_.size() - 2) + 1); }
  void commit() override { transaction_.commit(); }

 private:
  void insert(std::string_view name, MDB_val& value, unsigned flags) {
    const std::size_t length = prefix_.size();
    prefix_.append(name);
    MDB_val key = valueOf(prefix_);
    check(mdb_put(transaction_.handle(), transaction_.database(), &key, &value, flags));
    prefix_.resize(length);
  }

  Transaction transaction_;
  std::string prefix_;
};

class LmdbReading : public Reading {
 public:
  explicit LmdbReading(const Environment& environment) : transaction_(environment, MDB_RDONLY) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    const Bytes bytes = find(name);
    const std::size_t count = std::min(out.size(), bytes.size());
    std::memcpy(out.data(), bytes.data(), count);
    return count;
  }

  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    const Bytes bytes = find(name);
    for (std::size_t done = 0; done < bytes.size(); done += buffer.size()) {
      const std::size_t count = std::min(buffer.size(), bytes.size() - done);
      std::memcpy(buffer.data(), &bytes[done], count);
      if (seen) seen(buffer.first(count));
    }
    return bytes.size();
  }

  Tally enumerate() override {
    Tally tally;
    eachKey([&](std::string_view key, Bytes) { tally.count(key); });
    return tally;
  }
  Tally walk(const Seen& seen) override {
    Tally tally;
    eachKey([&](std::string_view key, Bytes bytes) {
      tally.count(key.substr(key.rfind('/') + 1));
      if (seen && !bytes.empty()) seen(bytes);
    });
    return tally;
  }

 private:
  Bytes find(std::string_view name) {
    MDB_val key = valueOf(name);
    MDB_val value;
    check(mdb_get(transaction_.handle(), transaction_.database(), &key, &value));
    return bytesOf(value);
  }

  static Bytes bytesOf(const MDB_val& value) {
    return {static_cast<const std::byte*>(value.mv_data), value.mv_size};
  }

  template <typename See>
  void eachKey(const See& see) {
    MDB_cursor* cursor = nullptr;
    check(mdb_cursor_open(transaction_.handle(), transaction_.database(), &cursor));
    const std::unique_ptr<MDB_cursor, void (*)(MDB_cursor*)> closer(cursor, mdb_cursor_close);
    MDB_val key;
    MDB_val value;
    int result = MDB_SUCCESS;
    while ((result = mdb_cursor_get(cursor, &key, &value, MDB_NEXT)) == MDB_SUCCESS)
      see(textOf(key), bytesOf(value));
    require(result == MDB_NOTFOUND, "lmdb: the cursor failed");
  }

  Transaction transaction_;
};

// One environment for each file: a process may not open it twice.
class LmdbSession : public Session {
 public:
  explicit LmdbSession(Sync sync) : sync_(sync) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape) override { return update(path); }
  std::unique_ptr<Writing> update(const std::string& path) override {
    return std::make_unique<LmdbWriting>(environment(path));
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<LmdbReading>(environment(path));
  }

 private:
  const Environment& environment(const std::string& path) {
    if (!environment_ || path != path_) {
      environment_.reset();
      environment_ = std::make_unique<Environment>(path, sync_);
      path_ = path;
    }
    return *environment_;
  }

  Sync sync_;
  std::string path_;
  std::unique_ptr<Environment> environment_;
};

class Lmdb : public Engine {
 public:
  Lmdb()
      : Engine({"lmdb", "abcdefghikl",
                "One write transaction, MDB_WRITEMAP, a map of 2 GiB; a large item is one value "
                "whose length is told first (MDB_RESERVE); nested stores: paths as keys. Sync off: "
                "MDB_NOSYNC, on: the default.",
                "lmdb"}) {}
  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<LmdbSession>(sync);
  }
};

}  // namespace

EnginePtr makeLmdb() {
  return std::make_unique<Lmdb>();
}

}  // namespace bench
