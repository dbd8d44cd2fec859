// TinyCDB: a file that is written once.
#include <cdb.h>

#include <cstring>

#include "bench/engines/engines.h"
#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

unsigned lengthOf(std::size_t size) {
  return static_cast<unsigned>(size);
}

class CdbWriting : public Writing {
 public:
  CdbWriting(const std::string& path, Sync sync)
      : file_(path, O_RDWR | O_CREAT | O_EXCL), sync_(sync) {
    require(::cdb_make_start(&make_, file_.number()) == 0, "cdb: no start");
  }
  void put(std::string_view name, Bytes bytes) override {
    require(::cdb_make_add(&make_, name.data(), lengthOf(name.size()), bytes.data(),
                           lengthOf(bytes.size())) == 0,
            "cdb: nothing added");
  }
  void commit() override {
    require(::cdb_make_finish(&make_) == 0, "cdb: no finish");
    if (sync_ == Sync::on) file_.sync();
  }

 private:
  FileDescriptor file_;
  Sync sync_;
  ::cdb_make make_{};
};

class CdbReading : public Reading {
 public:
  explicit CdbReading(const std::string& path) : file_(path, O_RDONLY) {
    require(::cdb_init(&database_, file_.number()) == 0, "cdb: not opened");
  }
  ~CdbReading() override { ::cdb_free(&database_); }
  CdbReading(const CdbReading&) = delete;
  CdbReading& operator=(const CdbReading&) = delete;

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    require(::cdb_find(&database_, name.data(), lengthOf(name.size())) > 0, "cdb: not found");
    const std::size_t count = std::min<std::size_t>(out.size(), cdb_datalen(&database_));
    std::memcpy(out.data(), cdb_getdata(&database_), count);
    return count;
  }
  Tally enumerate() override {
    Tally tally;
    unsigned place = 0;
    cdb_seqinit(&place, &database_);
    int found = 0;
    while ((found = ::cdb_seqnext(&place, &database_)) > 0)
      tally.count({static_cast<const char*>(cdb_getkey(&database_)), cdb_keylen(&database_)});
    require(found == 0, "cdb: the walk failed");
    return tally;
  }

 private:
  FileDescriptor file_;
  ::cdb database_{};
};

class CdbSession : public Session {
 public:
  explicit CdbSession(Sync sync) : sync_(sync) {}
  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    return std::make_unique<CdbWriting>(path, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<CdbReading>(path);
  }

 private:
  Sync sync_;
};

class Cdb : public Engine {
 public:
  Cdb()
      : Engine({"tinycdb", "abcdefghik",
                "Written once, with 2 KiB and 16 bytes an item of index; read through a mapping. "
                "Sync on: fsync at the end.",
                "tinycdb"}) {}
  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<CdbSession>(sync);
  }
};

}  // namespace

EnginePtr makeCdb() {
  return std::make_unique<Cdb>();
}

}  // namespace bench
