#include "mapped_file.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "member_path.h"

namespace hxcrate {

namespace {

[[noreturn]] void fail(const std::string& path, const char* operation) {
  const std::error_code reason(errno, std::system_category());
  throw Error(Errc::fileNotOpen, path, "", FileFailure{operation, path, -1, reason});
}

}  // namespace

void MappedFile::Unmapper::operator()(const std::byte* start) const {
  ::munmap(const_cast<std::byte*>(start), size);
}

MappedFile::MappedFile(std::shared_ptr<Engine> engine, const std::string& path,
                       std::chrono::milliseconds lockWait)
    : engine_(std::move(engine)),
      file_(engine_->module()->fileExtension, decodeFilePath(path), lockWait),
      mapping_(nullptr, Unmapper{0}) {
  if (!file_.isOpen()) failOpening(path, file_.refusal(), Errc::fileNotOpen, false);
  struct stat status {};
  if (::fstat(file_.descriptor(), &status) != 0) fail(path, "inspect");
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size == 0) throw Error(Errc::notAStore, path, "", "it is empty");
  void* start = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file_.descriptor(), 0);
  if (start == MAP_FAILED) fail(path, "map");
  mapping_ = {static_cast<const std::byte*>(start), Unmapper{size}};
}

}  // namespace hxcrate
