// HDF5.
#include <hdf5.h>
#include <hdf5_hl.h>
#include <unistd.h>

#include <cstring>

#include "bench/engines/engines.h"

namespace bench {

namespace {

constexpr std::size_t kCoreIncrement = 64 << 20;

hid_t checked(hid_t result) {
  if (result < 0) throw std::runtime_error("hdf5: a call failed");
  return result;
}

// An identifier of any kind, given back at the end.
class Id {
 public:
  explicit Id(hid_t number) : number_(checked(number)) {}
  Id(Id&& other) noexcept : number_(std::exchange(other.number_, H5I_INVALID_HID)) {}
  Id& operator=(Id&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Id() {
    if (number_ >= 0) H5Idec_ref(number_);
  }
  hid_t number() const { return number_; }

 private:
  hid_t number_;
};

Id makeSpace(std::size_t size, std::size_t most) {
  const hsize_t now = size;
  const hsize_t limit = most == 0 ? H5S_UNLIMITED : most;
  return Id(H5Screate_simple(1, &now, &limit));
}

Id latestFormat() {
  Id access(H5Pcreate(H5P_FILE_ACCESS));
  checked(H5Pset_libver_bounds(access.number(), H5F_LIBVER_LATEST, H5F_LIBVER_LATEST));
  return access;
}

Id layoutOf(H5D_layout_t layout) {
  Id properties(H5Pcreate(H5P_DATASET_CREATE));
  checked(H5Pset_layout(properties.number(), layout));
  checked(H5Pset_fill_time(properties.number(), H5D_FILL_TIME_NEVER));
  return properties;
}

// Small items lie in their own headers, larger ones in one extent each.
class ItemWriter {
 public:
  explicit ItemWriter(H5D_layout_t layout) : layout_(layoutOf(layout)) {}

  void put(hid_t group, std::string_view name, Bytes bytes) const {
    const Id space = makeSpace(bytes.size(), bytes.size());
    const Id item(H5Dcreate2(group, std::string(name).c_str(), H5T_NATIVE_UINT8, space.number(),
                             H5P_DEFAULT, layout_.number(), H5P_DEFAULT));
    checked(H5Dwrite(item.number(), H5T_NATIVE_UINT8, H5S_ALL, H5S_ALL, H5P_DEFAULT, bytes.data()));
  }

 private:
  Id layout_;
};

class Hdf5Writing : public Writing {
 public:
  Hdf5Writing(hid_t file, Sync sync) : file_(file), sync_(sync) {
    groups_.emplace_back(H5Gopen2(file, "/", H5P_DEFAULT));
  }

  void put(std::string_view name, Bytes bytes) override {
    items_.put(groups_.back().number(), name, bytes);
  }

  void putPieces(std::string_view name, const Pieces& pieces) override {
    const Id layout = layoutOf(H5D_CHUNKED);
    const hsize_t size = pieces.size();
    checked(H5Pset_chunk(layout.number(), 1, &size));
    const Id item(H5Dcreate2(file_, std::string(name).c_str(), H5T_NATIVE_UINT8,
                             makeSpace(0, 0).number(), H5P_DEFAULT, layout.number(), H5P_DEFAULT));
    const Id memory = makeSpace(size, size);
    for (std::size_t i = 0; i < pieces.count(); ++i)
      append(item, memory, i * size, pieces.at(i));
  }

  void enter(std::string_view name) override {
    groups_.emplace_back(H5Gcreate2(groups_.back().number(), std::string(name).c_str(), H5P_DEFAULT,
                                    H5P_DEFAULT, H5P_DEFAULT));
  }
  void leave() override { groups_.pop_back(); }

  void commit() override {
    groups_.clear();
    checked(H5Fflush(file_, H5F_SCOPE_LOCAL));
    if (sync_ == Sync::off) return;
    void* descriptor = nullptr;
    checked(H5Fget_vfd_handle(file_, H5P_DEFAULT, &descriptor));
    require(::fsync(*static_cast<int*>(descriptor)) == 0, "fsync failed");
  }

 private:
  static void append(const Id& item, const Id& memory, hsize_t offset, Bytes piece) {
    const hsize_t count = piece.size();
    const hsize_t size = offset + count;
    checked(H5Dset_extent(item.number(), &size));
    const Id space(H5Dget_space(item.number()));
    checked(H5Sselect_hyperslab(space.number(), H5S_SELECT_SET, &offset, nullptr, &count, nullptr));
    checked(H5Dwrite(item.number(), H5T_NATIVE_UINT8, memory.number(), space.number(), H5P_DEFAULT,
                     piece.data()));
  }

  hid_t file_;
  Sync sync_;
  ItemWriter items_{H5D_COMPACT};
  std::vector<Id> groups_;
};

std::size_t sizeOf(const Id& item) {
  const Id space(H5Dget_space(item.number()));
  return static_cast<std::size_t>(checked(H5Sget_simple_extent_npoints(space.number())));
}

std::size_t readItem(hid_t place, const char* name, std::span<std::byte> out) {
  const Id item(H5Dopen2(place, name, H5P_DEFAULT));
  const std::size_t size = sizeOf(item);
  require(size <= out.size(), "the buffer is too short");
  checked(H5Dread(item.number(), H5T_NATIVE_UINT8, H5S_ALL, H5S_ALL, H5P_DEFAULT, out.data()));
  return size;
}

// What the library hands through to its callbacks.
struct Walk {
  Tally tally;
  const Seen& seen;
};

herr_t countLink(hid_t group, const char* path, const H5L_info_t*, void* argument) {
  auto& walk = *static_cast<Walk*>(argument);
  const std::string_view name(path);
  walk.tally.count(name.substr(name.rfind('/') + 1));
  if (!walk.seen) return 0;
  const Id object(H5Oopen(group, path, H5P_DEFAULT));
  if (H5Iget_type(object.number()) != H5I_DATASET) return 0;
  std::vector<std::byte> bytes(sizeOf(object));
  readItem(group, path, bytes);
  walk.seen(bytes);
  return 0;
}

class Hdf5Reading : public Reading {
 public:
  explicit Hdf5Reading(hid_t file) : file_(file) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return readItem(file_, std::string(name).c_str(), out);
  }

  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    const Id item(H5Dopen2(file_, std::string(name).c_str(), H5P_DEFAULT));
    const Id space(H5Dget_space(item.number()));
    const Id memory = makeSpace(buffer.size(), buffer.size());
    const auto size = static_cast<hsize_t>(checked(H5Sget_simple_extent_npoints(space.number())));
    const hsize_t count = buffer.size();
    for (hsize_t done = 0; done < size; done += count) {
      checked(H5Sselect_hyperslab(space.number(), H5S_SELECT_SET, &done, nullptr, &count, nullptr));
      checked(H5Dread(item.number(), H5T_NATIVE_UINT8, memory.number(), space.number(), H5P_DEFAULT,
                      buffer.data()));
      if (seen) seen(buffer);
    }
    return size;
  }

  Tally enumerate() override {
    const Seen unseen;
    Walk walk{{}, unseen};
    checked(H5Literate(file_, H5_INDEX_NAME, H5_ITER_NATIVE, nullptr, countLink, &walk));
    return walk.tally;
  }

  Tally walk(const Seen& seen) override {
    Walk walk{{}, seen};
    checked(H5Lvisit(file_, H5_INDEX_NAME, H5_ITER_NATIVE, countLink, &walk));
    return walk.tally;
  }

 private:
  hid_t file_;
};

// Keeps the file open that was opened last, and so what the library caches of it.
class Hdf5Session : public Session {
 public:
  explicit Hdf5Session(Sync sync) : sync_(sync) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    keep(path, H5Fcreate(path.c_str(), H5F_ACC_EXCL, H5P_DEFAULT, access_.number()));
    return std::make_unique<Hdf5Writing>(file_.back().number(), sync_);
  }
  std::unique_ptr<Writing> update(const std::string& path) override {
    if (file_.empty() || path != path_)
      keep(path, H5Fopen(path.c_str(), H5F_ACC_RDWR, access_.number()));
    return std::make_unique<Hdf5Writing>(file_.back().number(), sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    if (file_.empty() || path != path_)
      keep(path, H5Fopen(path.c_str(), H5F_ACC_RDONLY, access_.number()));
    return std::make_unique<Hdf5Reading>(file_.back().number());
  }

 private:
  void keep(const std::string& path, hid_t file) {
    file_.clear();
    file_.emplace_back(file);
    path_ = path;
  }

  Sync sync_;
  Id access_ = latestFormat();
  std::string path_;
  std::vector<Id> file_;  // one or none
};

class Hdf5Image : public Image {
 public:
  explicit Hdf5Image(hid_t file) {
    checked(H5Fflush(file, H5F_SCOPE_LOCAL));
    size_ = static_cast<std::size_t>(checked(H5Fget_file_image(file, nullptr, 0)));
    bytes_.reset(static_cast<std::byte*>(std::malloc(size_)));
    require(bytes_ != nullptr, "no memory");
    checked(H5Fget_file_image(file, bytes_.get(), size_));
  }
  Bytes bytes() const override { return {bytes_.get(), size_}; }

 private:
  std::unique_ptr<std::byte, void (*)(void*)> bytes_{nullptr, std::free};
  std::size_t size_;
};

// The oldest format: an image of the latest one is not opened again, its superblock's checksum is
// wrong (1.10.8).
Id createCoreFile() {
  const Id access(H5Pcreate(H5P_FILE_ACCESS));
  checked(H5Pset_fapl_core(access.number(), kCoreIncrement, 0));
  return Id(H5Fcreate("image", H5F_ACC_TRUNC, H5P_DEFAULT, access.number()));
}

class Hdf5InMemory : public InMemory {
 public:
  void put(std::string_view name, Bytes bytes) override { items_.put(file_.number(), name, bytes); }
  std::unique_ptr<Image> makeImage() override {
    return std::make_unique<Hdf5Image>(file_.number());
  }

 private:
  Id file_ = createCoreFile();
  ItemWriter items_{H5D_CONTIGUOUS};
};

class Hdf5ImageReading : public Reading {
 public:
  explicit Hdf5ImageReading(Bytes image)
      : file_(H5LTopen_file_image(const_cast<std::byte*>(image.data()), image.size(),
                                  H5LT_FILE_IMAGE_DONT_COPY | H5LT_FILE_IMAGE_DONT_RELEASE)) {}
  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return readItem(file_.number(), std::string(name).c_str(), out);
  }

 private:
  Id file_;
};

class Hdf5 : public Engine {
 public:
  Hdf5()
      : Engine(
            {"hdf5", "abcdefghikl",
             "Latest format, fill values never written. Large items: a dataset that grows by "
             "chunks of 64 KiB; small ones: compact datasets; nested stores: groups. Sync on: "
             "H5Fflush and fsync. In memory: the core driver, H5Fget_file_image and "
             "H5LTopen_file_image without a copy, in the oldest format. A session keeps the file "
             "open.",
             "hdf5", Threads::none, 100000}) {
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  }

  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<Hdf5Session>(sync);
  }
  std::unique_ptr<InMemory> createInMemory() override { return std::make_unique<Hdf5InMemory>(); }
  std::unique_ptr<Reading> openImage(Bytes image) override {
    return std::make_unique<Hdf5ImageReading>(image);
  }
};

}  // namespace

EnginePtr makeHdf5() {
  return std::make_unique<Hdf5>();
}

}  // namespace bench
