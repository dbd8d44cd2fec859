// libzip: archives, nothing compressed.
#include <zip.h>

#include <cstring>
#include <deque>

#include "bench/engines/engines.h"
#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

struct Discard {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using Archive = std::unique_ptr<zip_t, Discard>;

Archive openArchive(const std::string& path, int flags) {
  Archive archive(zip_open(path.c_str(), flags, nullptr));
  require(archive != nullptr, "zip does not open " + path);
  return archive;
}

// Hands the pieces of a large item to the library, which asks for them while it closes.
class PieceSource {
 public:
  explicit PieceSource(const Pieces& pieces) : pieces_(pieces) {}

  static zip_int64_t answer(void* self, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    return static_cast<PieceSource*>(self)->answer(data, length, command);
  }

 private:
  zip_int64_t answer(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_OPEN:
        offset_ = 0;
        return 0;
      case ZIP_SOURCE_READ:
        return static_cast<zip_int64_t>(read(static_cast<std::byte*>(data), length));
      case ZIP_SOURCE_STAT:
        return describe(static_cast<zip_stat_t*>(data));
      case ZIP_SOURCE_ERROR:
        return zip_error_to_data(&error_, data, length);
      case ZIP_SOURCE_SUPPORTS:
        return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                              ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE,
                                              -1);
      default:
        return 0;
    }
  }

  zip_uint64_t read(std::byte* to, zip_uint64_t length) {
    if (offset_ == pieces_.totalBytes()) return 0;
    const std::size_t begin = offset_ % pieces_.size();
    const Bytes rest = pieces_.at(offset_ / pieces_.size()).subspan(begin);
    const std::size_t count = std::min<std::size_t>(length, rest.size());
    std::memcpy(to, rest.data(), count);
    offset_ += count;
    return count;
  }

  zip_int64_t describe(zip_stat_t* status) const {
    zip_stat_init(status);
    status->size = pieces_.totalBytes();
    status->valid = ZIP_STAT_SIZE;
    return sizeof *status;
  }

  const Pieces& pieces_;
  std::uint64_t offset_ = 0;
  zip_error_t error_{};
};

void addItem(zip_t* archive, const std::string& name, zip_source_t* source) {
  require(source != nullptr, "zip makes no source");
  const zip_int64_t index = zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8);
  require(index >= 0, "zip does not add an item");
  require(zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0) == 0,
          "zip does not store an item");
}

// Bytes and pieces are read when the archive is closed.
class ZipWriting : public Writing {
 public:
  ZipWriting(std::string path, int flags, Sync sync)
      : path_(std::move(path)), sync_(sync), archive_(openArchive(path_, flags)) {}

  void put(std::string_view name, Bytes bytes) override {
    addItem(archive_.get(), prefix_ + std::string(name),
            zip_source_buffer(archive_.get(), bytes.data(), bytes.size(), 0));
  }
  void putPieces(std::string_view name, const Pieces& pieces) override {
    sources_.emplace_back(pieces);
    addItem(archive_.get(), std::string(name),
            zip_source_function(archive_.get(), PieceSource::answer, &sources_.back()));
  }
  void enter(std::string_view name) override {
    prefix_.append(name);
    require(zip_dir_add(archive_.get(), prefix_.c_str(), ZIP_FL_ENC_UTF_8) >= 0,
            "zip makes no directory");
    prefix_.append("/");
  }
  void leave() override { prefix_.resize(prefix_.rfind('/', prefix_.size() - 2) + 1); }
  void commit() override {
    require(zip_close(archive_.get()) == 0, "zip does not close");
    static_cast<void>(archive_.release());
    if (sync_ == Sync::on) FileDescriptor(path_, O_RDONLY).sync();
  }

 private:
  std::string path_;
  Sync sync_;
  std::deque<PieceSource> sources_;
  Archive archive_;
  std::string prefix_;
};

struct CloseItem {
  void operator()(zip_file_t* file) const { zip_fclose(file); }
};
using Item = std::unique_ptr<zip_file_t, CloseItem>;

std::size_t readInto(const Item& item, std::span<std::byte> out) {
  const zip_int64_t count = zip_fread(item.get(), out.data(), out.size());
  require(count >= 0, "zip: a read failed");
  return static_cast<std::size_t>(count);
}

class ZipReading : public Reading {
 public:
  explicit ZipReading(Archive archive) : archive_(std::move(archive)) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return readInto(find(name), out);
  }
  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    const Item item = find(name);
    std::uint64_t done = 0;
    while (const std::size_t count = readInto(item, buffer)) {
      if (seen) seen(buffer.first(count));
      done += count;
    }
    return done;
  }
  Tally enumerate() override {
    Tally tally;
    eachName([&](zip_uint64_t, std::string_view name) { tally.count(name); });
    return tally;
  }
  Tally walk(const Seen& seen) override {
    Tally tally;
    eachName([&](zip_uint64_t index, std::string_view name) {
      const bool isStore = name.back() == '/';
      const std::string_view bare = name.substr(0, name.size() - (isStore ? 1 : 0));
      tally.count(bare.substr(bare.rfind('/') + 1));
      if (seen && !isStore) show(index, seen);
    });
    return tally;
  }

 private:
  Item find(std::string_view name) {
    Item item(zip_fopen(archive_.get(), std::string(name).c_str(), 0));
    require(item != nullptr, "zip has no such item");
    return item;
  }
  void show(zip_uint64_t index, const Seen& seen) {
    const Item item(zip_fopen_index(archive_.get(), index, 0));
    require(item != nullptr, "zip does not open an item");
    std::vector<std::byte> bytes(kLongestShown);
    bytes.resize(readInto(item, bytes));
    seen(bytes);
  }
  template <typename See>
  void eachName(const See& see) {
    const auto count = static_cast<zip_uint64_t>(zip_get_num_entries(archive_.get(), 0));
    for (zip_uint64_t i = 0; i < count; ++i)
      see(i, zip_get_name(archive_.get(), i, ZIP_FL_ENC_RAW));
  }

  static constexpr std::size_t kLongestShown = 4096;
  Archive archive_;
};

// Keeps the archive open for reading that was opened last.
class ZipSession : public Session {
 public:
  explicit ZipSession(Sync sync) : sync_(sync) {}
  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    return std::make_unique<ZipWriting>(path, ZIP_CREATE | ZIP_EXCL, sync_);
  }
  std::unique_ptr<Writing> update(const std::string& path) override {
    return std::make_unique<ZipWriting>(path, 0, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<ZipReading>(openArchive(path, ZIP_RDONLY));
  }

 private:
  Sync sync_;
};

class ZipImage : public Image {
 public:
  // Closes the archive, which writes it to `source`.
  ZipImage(zip_t* archive, zip_source_t* source) {
    zip_source_keep(source);
    require(zip_close(archive) == 0, "zip does not close");
    zip_stat_t status;
    require(zip_source_stat(source, &status) == 0 && zip_source_open(source) == 0,
            "zip made no image");
    bytes_.resize(status.size);
    const zip_int64_t count = zip_source_read(source, bytes_.data(), bytes_.size());
    require(count == static_cast<zip_int64_t>(bytes_.size()), "zip's image is short");
    zip_source_close(source);
    zip_source_free(source);
  }
  Bytes bytes() const override { return bytes_; }

 private:
  std::vector<std::byte> bytes_;
};

class ZipInMemory : public InMemory {
 public:
  ZipInMemory()
      : source_(zip_source_buffer_create(nullptr, 0, 0, nullptr)),
        archive_(zip_open_from_source(source_, ZIP_CREATE | ZIP_TRUNCATE, nullptr)) {
    require(archive_ != nullptr, "zip makes no archive in memory");
  }
  void put(std::string_view name, Bytes bytes) override {
    addItem(archive_.get(), std::string(name),
            zip_source_buffer(archive_.get(), bytes.data(), bytes.size(), 0));
  }
  std::unique_ptr<Image> makeImage() override {
    return std::make_unique<ZipImage>(archive_.release(), source_);
  }

 private:
  zip_source_t* source_;
  Archive archive_;
};

class Zip : public Engine {
 public:
  Zip()
      : Engine({"zip", "abcdefghikl",
                "Nothing compressed; the library writes all at the close, with a checksum of "
                "every item, and copies the whole archive to add to it. Nested stores: names with "
                "slashes. Sync on: fsync after closing.",
                "zip", Threads::ownSession}) {}

  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<ZipSession>(sync);
  }
  std::unique_ptr<InMemory> createInMemory() override { return std::make_unique<ZipInMemory>(); }
  std::unique_ptr<Reading> openImage(Bytes image) override {
    zip_source_t* source = zip_source_buffer_create(image.data(), image.size(), 0, nullptr);
    Archive archive(zip_open_from_source(source, ZIP_RDONLY, nullptr));
    require(archive != nullptr, "zip does not open the image");
    return std::make_unique<ZipReading>(std::move(archive));
  }
};

}  // namespace

EnginePtr makeZip() {
  return std::make_unique<Zip>();
}

}  // namespace bench
