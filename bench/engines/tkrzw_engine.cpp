// Tkrzw's hash file.
#include <tkrzw_dbm_hash.h>

#include <cstring>

#include "bench/engines/engines.h"

namespace bench {

namespace {

void check(const tkrzw::Status& status) {
  if (!status.IsOK()) throw std::runtime_error("tkrzw: " + tkrzw::ToString(status));
}

std::string_view textOf(Bytes bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

class TkrzwWriting : public Writing {
 public:
  TkrzwWriting(const std::string& path, Sync sync) : sync_(sync) {
    check(database_.Open(path, true));
  }
  void put(std::string_view name, Bytes bytes) override {
    check(database_.Set(name, textOf(bytes), false));
  }
  void commit() override {
    if (sync_ == Sync::on) check(database_.Synchronize(true));
    check(database_.Close());
  }

 private:
  Sync sync_;
  tkrzw::HashDBM database_;
};

class TkrzwReading : public Reading {
 public:
  explicit TkrzwReading(const std::string& path) { check(database_.Open(path, false)); }

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    check(database_.Get(name, &value_));
    const std::size_t count = std::min(out.size(), value_.size());
    std::memcpy(out.data(), value_.data(), count);
    return count;
  }
  Tally enumerate() override {
    Tally tally;
    const auto iterator = database_.MakeIterator();
    check(iterator->First());
    for (std::string name; iterator->Get(&name).IsOK(); check(iterator->Next()))
      tally.count(name);
    return tally;
  }

 private:
  tkrzw::HashDBM database_;
  std::string value_;
};

class TkrzwSession : public Session {
 public:
  explicit TkrzwSession(Sync sync) : sync_(sync) {}
  std::unique_ptr<Writing> create(const std::string& path, Shape) override { return update(path); }
  std::unique_ptr<Writing> update(const std::string& path) override {
    return std::make_unique<TkrzwWriting>(path, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<TkrzwReading>(path);
  }

 private:
  Sync sync_;
};

class Tkrzw : public Engine {
 public:
  Tkrzw()
      : Engine(
            {"tkrzw", "abcdefghik",
             "HashDBM with its own settings: a million buckets, memory-mapped, updated in place; "
             "no transactions. Sync on: Synchronize(hard) before closing.",
             "tkrzw"}) {}
  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<TkrzwSession>(sync);
  }
};

}  // namespace

EnginePtr makeTkrzw() {
  return std::make_unique<Tkrzw>();
}

}  // namespace bench
