// Plain system calls on one file: a large item is a file; small ones are records appended to one
// file, and an unordered_map of the names is made when it is opened.
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "bench/engines/engines.h"
#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

constexpr std::size_t kWriteBuffer = 64 << 10;
constexpr std::uint32_t kNotPresent = 0xffffffff;

struct Record {
  std::uint32_t nameLength;
  std::uint32_t size;  // kNotPresent: the record opens a store, or closes one when unnamed
};

struct Place {
  std::uint64_t offset;
  std::uint32_t size;
};

// The records of one file by the names in them.
struct Index {
  std::vector<std::byte> bytes;  // of the whole file; the names stay in it
  std::unordered_map<std::string_view, Place> places;
};

std::string largeItemPath(const std::string& path, std::string_view name) {
  return path + "." + std::string(name);
}

class PlainWriting : public Writing {
 public:
  PlainWriting(const std::string& path, int flags, Sync sync)
      : path_(path), flags_(flags), sync_(sync) {
    buffer_.reserve(kWriteBuffer * 2);
  }

  void put(std::string_view name, Bytes bytes) override {
    append(name, static_cast<std::uint32_t>(bytes.size()), bytes);
  }
  void enter(std::string_view name) override { append(name, kNotPresent, {}); }
  void leave() override { append({}, kNotPresent, {}); }

  void putPieces(std::string_view name, const Pieces& pieces) override {
    file_ = FileDescriptor(largeItemPath(path_, name), O_WRONLY | O_CREAT | O_TRUNC);
    for (std::size_t i = 0; i < pieces.count(); ++i)
      file_.write(pieces.at(i));
    finish();
  }

  void commit() override {
    if (!buffer_.empty()) flush();
    finish();
  }

 private:
  void append(std::string_view name, std::uint32_t size, Bytes bytes) {
    const Record record{static_cast<std::uint32_t>(name.size()), size};
    add(&record, sizeof record);
    add(name.data(), name.size());
    add(bytes.data(), bytes.size());
    if (buffer_.size() >= kWriteBuffer) flush();
  }
  void add(const void* bytes, std::size_t length) {
    const auto* begin = static_cast<const std::byte*>(bytes);
    buffer_.insert(buffer_.end(), begin, begin + length);
  }
  void flush() {
    if (file_.number() < 0) file_ = FileDescriptor(path_, O_WRONLY | flags_);
    file_.write(buffer_);
    buffer_.clear();
  }
  void finish() {
    if (sync_ == Sync::on && file_.number() >= 0) file_.sync();
    file_ = FileDescriptor();
  }

  std::string path_;
  int flags_;
  Sync sync_;
  FileDescriptor file_;
  std::vector<std::byte> buffer_;
};

// Calls `see` with the name, the record and the offset of the bytes of every record.
template <typename See>
void eachRecord(Bytes bytes, const See& see) {
  std::size_t at = 0;
  while (at < bytes.size()) {
    Record record;
    std::memcpy(&record, &bytes[at], sizeof record);
    at += sizeof record;
    const std::string_view name(reinterpret_cast<const char*>(bytes.data()) + at,
                                record.nameLength);
    at += record.nameLength;
    see(name, record, at);
    if (record.size != kNotPresent) at += record.size;
  }
  require(at == bytes.size(), "the plain file is cut short");
}

std::vector<std::byte> readAll(const FileDescriptor& file) {
  struct stat status;
  require(::fstat(file.number(), &status) == 0, "fstat failed");
  std::vector<std::byte> bytes(static_cast<std::size_t>(status.st_size));
  require(file.readAt(bytes, 0) == bytes.size(), "a plain read fell short");
  return bytes;
}

std::shared_ptr<const Index> readIndex(const FileDescriptor& file) {
  auto index = std::make_shared<Index>();
  index->bytes = readAll(file);
  eachRecord(index->bytes, [&](std::string_view name, const Record& record, std::size_t offset) {
    if (record.size != kNotPresent) index->places.emplace(name, Place{offset, record.size});
  });
  return index;
}

class PlainReading : public Reading {
 public:
  PlainReading(const std::string& path, std::shared_ptr<const Index> index)
      : file_(path, O_RDONLY), index_(std::move(index)) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    const Place& place = index_->places.at(name);
    return file_.readAt(out.first(std::min<std::size_t>(out.size(), place.size)), place.offset);
  }

  Tally enumerate() override {
    Tally tally;
    for (const auto& [name, place] : index_->places)
      tally.count(name);
    return tally;
  }

  std::uint64_t listSizes() override {
    std::uint64_t bytes = 0;
    for (const auto& [name, place] : index_->places)
      bytes += place.size;
    return bytes;
  }

 private:
  FileDescriptor file_;
  std::shared_ptr<const Index> index_;
};

class PlainAnywhere : public Anywhere {
 public:
  explicit PlainAnywhere(const std::string& path) : file_(path, O_RDONLY) {}
  std::size_t readAt(std::uint64_t offset, std::span<std::byte> out) const override {
    return file_.readAt(out, offset);
  }

 private:
  FileDescriptor file_;
};

class PlainLargeReading : public Reading {
 public:
  explicit PlainLargeReading(std::string path) : path_(std::move(path)) {}

  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    const FileDescriptor file(largeItemPath(path_, name), O_RDONLY);
    std::uint64_t done = 0;
    while (const std::size_t count = file.readAt(buffer, done)) {
      if (seen) seen(buffer.first(count));
      done += count;
    }
    return done;
  }

  std::unique_ptr<Anywhere> openAnywhere(std::string_view name) override {
    return std::make_unique<PlainAnywhere>(largeItemPath(path_, name));
  }

 private:
  std::string path_;
};

class PlainNestedReading : public Reading {
 public:
  explicit PlainNestedReading(std::string path) : path_(std::move(path)) {}

  Tally walk(const Seen& seen) override {
    const std::vector<std::byte> bytes = readAll(FileDescriptor(path_, O_RDONLY));
    Tally tally;
    eachRecord(bytes, [&](std::string_view name, const Record& record, std::size_t offset) {
      if (!name.empty()) tally.count(name);
      if (seen && record.size != kNotPresent) seen(Bytes(bytes).subspan(offset, record.size));
    });
    return tally;
  }

 private:
  std::string path_;
};

// Keeps the index of the small file that was opened last.
class PlainSession : public Session {
 public:
  explicit PlainSession(Sync sync) : sync_(sync) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    return std::make_unique<PlainWriting>(path, O_CREAT | O_EXCL, sync_);
  }
  std::unique_ptr<Writing> update(const std::string& path) override {
    index_.reset();
    return std::make_unique<PlainWriting>(path, O_APPEND, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape shape) override {
    if (shape == Shape::large) return std::make_unique<PlainLargeReading>(path);
    if (shape == Shape::nested) return std::make_unique<PlainNestedReading>(path);
    if (!index_ || path != indexed_) index_ = readIndex(FileDescriptor(path, O_RDONLY));
    indexed_ = path;
    return std::make_unique<PlainReading>(path, index_);
  }

 private:
  Sync sync_;
  std::string indexed_;
  std::shared_ptr<const Index> index_;
};

// The same bytes in one buffer, and where they came from.
class PlainImage : public Image {
 public:
  explicit PlainImage(Bytes source)
      : memory_(std::calloc(1, source.size()), std::free), size_(source.size()) {
    require(memory_ != nullptr, "no memory");
    std::memcpy(memory_.get(), source.data(), size_);
  }
  Bytes bytes() const override { return {static_cast<const std::byte*>(memory_.get()), size_}; }

 private:
  std::unique_ptr<void, void (*)(void*)> memory_;
  std::size_t size_;
};

class PlainInMemory : public InMemory {
 public:
  void put(std::string_view, Bytes bytes) override {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
  }
  std::unique_ptr<Image> makeImage() override { return std::make_unique<PlainImage>(bytes_); }

 private:
  std::vector<std::byte> bytes_;
};

// Items of the buffer's size one after the other, whatever their names.
class PlainImageReading : public Reading {
 public:
  explicit PlainImageReading(Bytes image) : rest_(image) {}
  std::size_t get(std::string_view, std::span<std::byte> out) override {
    const Bytes item = rest_.first(std::min(out.size(), rest_.size()));
    std::memcpy(out.data(), item.data(), item.size());
    rest_ = rest_.subspan(item.size());
    return item.size();
  }

 private:
  Bytes rest_;
};

class PlainFile : public Engine {
 public:
  PlainFile()
      : Engine({"plain", "abcdefghiklmo",
                "One file: write and pread; small items as records of lengths, name and bytes, "
                "written in blocks of 64 KiB and found by an unordered_map that is made when the "
                "file is opened. In memory: calloc and memcpy. Trees: tar. Sync on: fsync at the "
                "end; tar never waits.",
                "plain"}) {}

  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<PlainSession>(sync);
  }
  std::unique_ptr<InMemory> createInMemory() override { return std::make_unique<PlainInMemory>(); }
  std::unique_ptr<Reading> openImage(Bytes image) override {
    return std::make_unique<PlainImageReading>(image);
  }
  Archiver archiver(const std::string& file, const std::string& in,
                    const std::string& out) const override {
    return {{"tar", "-C", in, "-cf", file, "."}, {"tar", "-C", out, "-xf", file}};
  }
};

}  // namespace

EnginePtr makePlainFile() {
  return std::make_unique<PlainFile>();
}

}  // namespace bench
