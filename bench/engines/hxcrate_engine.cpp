// This store, through its C++ API.
#include <hxcrate/crate.hpp>

#include <algorithm>

#include "bench/engines/engines.h"

namespace bench {

namespace {

hxcrate::SessionOptions optionsFor(Sync sync) {
  hxcrate::SessionOptions options;
  options.durability = sync == Sync::on ? hxcrate::Durability::full : hxcrate::Durability::none;
  return options;
}

void putItem(hxcrate::Store& store, std::string_view name, Bytes bytes) {
  hxcrate::Writer writer = store.create(name);
  writer.write(bytes);
  writer.close();
}

class HxWriting : public Writing {
 public:
  explicit HxWriting(hxcrate::Store store) { entered_.push_back(std::move(store)); }

  void put(std::string_view name, Bytes bytes) override { putItem(entered_.back(), name, bytes); }

  void putPieces(std::string_view name, const Pieces& pieces) override {
    hxcrate::Writer writer = entered_.back().create(name);
    for (std::size_t i = 0; i < pieces.count(); ++i)
      writer.write(pieces.at(i));
    writer.close();
  }

  void enter(std::string_view name) override {
    entered_.push_back(entered_.back().createStore(name));
  }
  void leave() override { entered_.pop_back(); }
  void commit() override { entered_.front().close(); }

 private:
  std::vector<hxcrate::Store> entered_;
};

void walkInto(const hxcrate::Store& store, const Seen& seen, Tally& tally) {
  for (const hxcrate::Member& member : store.members()) {
    tally.count(member.name);
    if (member.kind == hxcrate::MemberKind::store) {
      walkInto(store.openStore(member.name), seen, tally);
    } else if (seen) {
      seen(store.read(member.name).readAll());
    }
  }
}

class HxAnywhere : public Anywhere {
 public:
  explicit HxAnywhere(hxcrate::View view) : view_(std::move(view)) {}
  std::size_t readAt(std::uint64_t offset, std::span<std::byte> out) const override {
    return view_.readAt(static_cast<std::int64_t>(offset), out);
  }

 private:
  hxcrate::View view_;
};

class HxReading : public Reading {
 public:
  explicit HxReading(hxcrate::Store store) : store_(std::move(store)) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return store_.get(name, out);
  }

  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    hxcrate::Reader reader = store_.read(name);
    std::uint64_t done = 0;
    while (const std::size_t count = reader.read(buffer)) {
      if (seen) seen(buffer.first(count));
      done += count;
    }
    return done;
  }

  std::unique_ptr<Anywhere> openAnywhere(std::string_view name) override {
    return std::make_unique<HxAnywhere>(store_.view(name));
  }

  std::uint64_t listSizes() override {
    std::uint64_t bytes = 0;
    for (const hxcrate::ListedMember& item : store_.list({}, {.hasSizes = true}))
      bytes += static_cast<std::uint64_t>(item.size);
    return bytes;
  }

  Tally enumerate() override {
    Tally tally;
    for (const hxcrate::Member& member : store_.members())
      tally.count(member.name);
    return tally;
  }

  Tally walk(const Seen& seen) override {
    Tally tally;
    walkInto(store_, seen, tally);
    return tally;
  }

 protected:
  const hxcrate::Store& store() const { return store_; }

 private:
  hxcrate::Store store_;
};

// Copies from where the item lies, instead of by a call for it.
class HxInPlaceReading : public HxReading {
 public:
  using HxReading::HxReading;
  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    const hxcrate::View view = store().view(name);
    const Bytes item = view.contiguous().value();
    std::copy_n(item.begin(), std::min(item.size(), out.size()), out.begin());
    return item.size();
  }
};

// How bytes are read; `inPlace` is of images.
enum class Access { file, mapped, inPlace };

class HxSession : public Session {
 public:
  HxSession(Sync sync, std::int32_t pageSize, Access access)
      : session_(optionsFor(sync)), pageSize_(pageSize), access_(access) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    return std::make_unique<HxWriting>(
        session_.open(path, hxcrate::Mode::create, {.pageSize = pageSize_}));
  }
  std::unique_ptr<Writing> update(const std::string& path) override {
    return std::make_unique<HxWriting>(session_.open(path, hxcrate::Mode::update));
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<HxReading>(access_ == Access::mapped ? session_.openMapped(path)
                                                                 : session_.open(path));
  }

 private:
  hxcrate::Session session_;
  std::int32_t pageSize_;
  Access access_;
};

class HxImage : public Image {
 public:
  explicit HxImage(hxcrate::Blob blob) : blob_(std::move(blob)) {}
  Bytes bytes() const override { return blob_.bytes(); }

 private:
  hxcrate::Blob blob_;
};

class HxInMemory : public InMemory {
 public:
  explicit HxInMemory(std::int32_t pageSize) : store_(session_.createInMemory("image", pageSize)) {}

  void put(std::string_view name, Bytes bytes) override { putItem(store_, name, bytes); }
  std::unique_ptr<Image> makeImage() override {
    return std::make_unique<HxImage>(store_.makeBlob());
  }

 private:
  hxcrate::Session session_;
  hxcrate::Store store_;
};

class Hxcrate : public Engine {
 public:
  Hxcrate(EngineInfo info, std::int32_t pageSize, Access access)
      : Engine(std::move(info)), pageSize_(pageSize), access_(access) {}

  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<HxSession>(sync, pageSize_, access_);
  }
  std::unique_ptr<InMemory> createInMemory() override {
    return std::make_unique<HxInMemory>(pageSize_);
  }
  std::unique_ptr<Reading> openImage(Bytes image) override {
    hxcrate::Store store = hxcrate::Session().openBlob(image, "image");
    if (access_ == Access::inPlace) return std::make_unique<HxInPlaceReading>(std::move(store));
    return std::make_unique<HxReading>(std::move(store));
  }
  Archiver archiver(const std::string& file, const std::string& in,
                    const std::string& out) const override {
    return {{HX_COMMAND_PATH, "pack", file, in}, {HX_COMMAND_PATH, "unpack", file, out}};
  }

 private:
  std::int32_t pageSize_;
  Access access_;
};

}  // namespace

std::vector<EnginePtr> makeHxcrate() {
  std::vector<EnginePtr> engines;
  const auto add = [&](std::int32_t pageSize, Access access, EngineInfo info) {
    engines.push_back(std::make_unique<Hxcrate>(std::move(info), pageSize, access));
  };
  add(4096, Access::file,
      {"hxcrate", "abcdefghiklmo",
       "C++ API, pages of 4096 bytes. Sync off: Durability::none, on: Durability::full.",
       "hxcrate"});
  add(256, Access::file,
      {"hxcrate-256", "cdefgkno", "Pages of 256 bytes, for small items.", "hxcrate-256"});
  add(65536, Access::file, {"hxcrate-64k", "h", "Pages of 65536 bytes.", "hxcrate-64k"});
  add(65536, Access::inPlace,
      {"hxcrate-in-place", "h", "The same, read by View::contiguous.", "hxcrate-64k"});
  add(262144, Access::file,
      {"hxcrate-256k", "abim", "Pages of 262144 bytes, for large items.", "hxcrate-256k"});
  add(4096, Access::file,
      {"hxcrate-sessions", "i", "A session for each thread, pages of 4096 bytes.", "hxcrate",
       Threads::ownSession});
  add(4096, Access::mapped,
      {"hxcrate-mapped", "bdefi", "Session::openMapped, pages of 4096 bytes.", "hxcrate"});
  add(256, Access::mapped,
      {"hxcrate-mapped-256", "e", "The same, pages of 256 bytes.", "hxcrate-256"});
  add(262144, Access::mapped,
      {"hxcrate-mapped-256k", "bi", "The same, pages of 262144 bytes.", "hxcrate-256k"});
  return engines;
}

}  // namespace bench
