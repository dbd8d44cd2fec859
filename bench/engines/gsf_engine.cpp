// libgsf: compound files.
#include <gsf/gsf.h>

#include <cstring>

#include "bench/engines/engines.h"
#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

template <typename Object>
struct Unref {
  void operator()(Object* object) const { g_object_unref(object); }
};
template <typename Object>
using Ref = std::unique_ptr<Object, Unref<Object>>;

template <typename Object>
Ref<Object> checked(Object* object) {
  if (object == nullptr) throw std::runtime_error("gsf: a call failed");
  return Ref<Object>(object);
}
void checked(gboolean done) {
  if (!done) throw std::runtime_error("gsf: a call failed");
}

const guint8* rawBytes(Bytes bytes) {
  return reinterpret_cast<const guint8*>(bytes.data());
}

class GsfWriting : public Writing {
 public:
  GsfWriting(std::string path, Sync sync) : path_(std::move(path)), sync_(sync) {
    sink_ = checked(gsf_output_stdio_new(path_.c_str(), nullptr));
    entered_.push_back(checked(gsf_outfile_msole_new(sink_.get())));
  }

  void put(std::string_view name, Bytes bytes) override {
    const Ref<GsfOutput> item = makeChild(name, FALSE);
    checked(gsf_output_write(item.get(), bytes.size(), rawBytes(bytes)));
    checked(gsf_output_close(item.get()));
  }
  void putPieces(std::string_view name, const Pieces& pieces) override {
    const Ref<GsfOutput> item = makeChild(name, FALSE);
    for (std::size_t i = 0; i < pieces.count(); ++i)
      checked(gsf_output_write(item.get(), pieces.size(), rawBytes(pieces.at(i))));
    checked(gsf_output_close(item.get()));
  }
  void enter(std::string_view name) override {
    entered_.emplace_back(GSF_OUTFILE(makeChild(name, TRUE).release()));
  }
  void leave() override {
    checked(gsf_output_close(GSF_OUTPUT(entered_.back().get())));
    entered_.pop_back();
  }
  void commit() override {
    leave();
    sink_.reset();
    if (sync_ == Sync::on) FileDescriptor(path_, O_RDONLY).sync();
  }

 private:
  Ref<GsfOutput> makeChild(std::string_view name, gboolean isStore) {
    return checked(
        gsf_outfile_new_child(entered_.back().get(), std::string(name).c_str(), isStore));
  }

  std::string path_;
  Sync sync_;
  Ref<GsfOutput> sink_;
  std::vector<Ref<GsfOutfile>> entered_;
};

std::size_t readInto(GsfInput* item, std::span<std::byte> out) {
  const auto rest = static_cast<std::size_t>(gsf_input_remaining(item));
  const std::size_t count = std::min(rest, out.size());
  if (count == 0) return 0;
  auto* to = reinterpret_cast<guint8*>(out.data());
  require(gsf_input_read(item, count, to) != nullptr, "gsf: a read failed");
  return count;
}

void walkInto(GsfInfile* store, const Seen& seen, Tally& tally) {
  const int count = gsf_infile_num_children(store);
  for (int i = 0; i < count; ++i) {
    tally.count(gsf_infile_name_by_index(store, i));
    const Ref<GsfInput> child = checked(gsf_infile_child_by_index(store, i));
    if (GSF_IS_INFILE(child.get()) && gsf_infile_num_children(GSF_INFILE(child.get())) >= 0) {
      walkInto(GSF_INFILE(child.get()), seen, tally);
    } else if (seen) {
      std::vector<std::byte> bytes(static_cast<std::size_t>(gsf_input_size(child.get())));
      readInto(child.get(), bytes);
      seen(bytes);
    }
  }
}

class GsfReading : public Reading {
 public:
  explicit GsfReading(const std::string& path)
      : input_(checked(gsf_input_mmap_new(path.c_str(), nullptr))),
        store_(checked(gsf_infile_msole_new(input_.get(), nullptr))) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    return readInto(find(name).get(), out);
  }
  std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                          const Seen& seen) override {
    const Ref<GsfInput> item = find(name);
    std::uint64_t done = 0;
    while (const std::size_t count = readInto(item.get(), buffer)) {
      if (seen) seen(buffer.first(count));
      done += count;
    }
    return done;
  }
  Tally enumerate() override {
    Tally tally;
    const int count = gsf_infile_num_children(store_.get());
    for (int i = 0; i < count; ++i)
      tally.count(gsf_infile_name_by_index(store_.get(), i));
    return tally;
  }
  Tally walk(const Seen& seen) override {
    Tally tally;
    walkInto(store_.get(), seen, tally);
    return tally;
  }

 private:
  Ref<GsfInput> find(std::string_view name) {
    return checked(gsf_infile_child_by_name(store_.get(), std::string(name).c_str()));
  }

  Ref<GsfInput> input_;
  Ref<GsfInfile> store_;
};

class GsfSession : public Session {
 public:
  explicit GsfSession(Sync sync) : sync_(sync) {}
  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    return std::make_unique<GsfWriting>(path, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<GsfReading>(path);
  }

 private:
  Sync sync_;
};

class Gsf : public Engine {
 public:
  Gsf()
      : Engine({"gsf", "abcdefghikl",
                "Compound files of 512-byte sectors, read through a mapping. Sync on: fsync after "
                "closing.",
                "gsf", Threads::shareSession, 10000}) {}
  std::unique_ptr<Session> openSession(Sync sync) override {
    gsf_init();
    return std::make_unique<GsfSession>(sync);
  }
};

}  // namespace

EnginePtr makeGsf() {
  return std::make_unique<Gsf>();
}

}  // namespace bench
