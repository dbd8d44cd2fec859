#include "mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

#include "host/linux/path_codec.h"
#include "member_path.h"

namespace hxcrate {

namespace {

[[noreturn]] void fail(const std::string& path, const char* operation) {
  const std::error_code reason(errno, std::system_category());
  throw Error(Errc::fileNotOpen, path, "", FileFailure{operation, path, -1, reason});
}

class Descriptor {
 public:
  explicit Descriptor(const std::string& path)
      : number_(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)) {}
  ~Descriptor() {
    if (number_ >= 0) ::close(number_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }

 private:
  int number_;
};

hx::FileIo* loadFileService(Engine& engine) {
  hx::HostHandle* host = engine.host();
  void* files = host->loadExtension(host, U"hxfio", 5, 0);
  if (files == nullptr) throw std::bad_alloc();
  return static_cast<hx::FileIo*>(files);
}

hx::FileHandle* openForReading(hx::FileIo* files, const std::u32string& path) {
  hx::OpenParameters parameters{};
  parameters.accessMode = hx::HX_ACCESS_READ;
  parameters.fixed40 = 1024;
  parameters.fixed48 = 1;
  parameters.fixed200 = 1;
  std::int64_t word = 0;
  return files->open(files, path.data(), static_cast<std::int64_t>(path.size()), &parameters, 0, 0,
                     "hxfio", &word, 0);
}

}  // namespace

void MappedFile::Unmapper::operator()(const std::byte* start) const {
  ::munmap(const_cast<std::byte*>(start), size);
}

MappedFile::MappedFile(std::shared_ptr<Engine> engine, const std::string& path)
    : engine_(std::move(engine)),
      files_(loadFileService(*engine_)),
      mapping_(nullptr, Unmapper{0}) {
  const std::u32string wide = decodeFilePath(path);
  file_.reset(openForReading(files_.get(), wide));
  if (file_ == nullptr) engine_->failOpening(path, wide, Errc::fileNotOpen);
  const Descriptor opened(hxhost::describePath(file_->path, file_->pathLength));
  struct stat status {};
  if (opened.number() < 0 || ::fstat(opened.number(), &status) != 0) fail(path, "open");
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) throw Error(Errc::notAStore, path, "", "it is empty");
  void* start = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, opened.number(), 0);
  if (start == MAP_FAILED) fail(path, "map");
  mapping_ = {static_cast<const std::byte*>(start), Unmapper{size}};
}

}  // namespace hxcrate
