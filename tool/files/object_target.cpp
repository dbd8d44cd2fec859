#include "object_target.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdlib>
#include <span>

#include "hxcrate/inspect.hpp"
#include "interruption.h"
#include "tool/report/report.h"

namespace tool {

namespace {

// All of a file that nobody else has, and so nobody shortens.
class MappedBytes {
 public:
  explicit MappedBytes(const NewFile& file) {
    struct stat status {};
    if (::fstat(file.descriptor().number(), &status) != 0) throw systemFailure(file.path(), "map");
    length_ = static_cast<std::size_t>(status.st_size);
    bytes_ = ::mmap(nullptr, length_, PROT_READ, MAP_SHARED, file.descriptor().number(), 0);
    if (bytes_ == MAP_FAILED) throw systemFailure(file.path(), "map");
  }
  ~MappedBytes() { ::munmap(bytes_, length_); }
  MappedBytes(const MappedBytes&) = delete;
  MappedBytes& operator=(const MappedBytes&) = delete;

  std::span<const std::byte> get() const {
    return {static_cast<const std::byte*>(bytes_), length_};
  }

 private:
  std::size_t length_ = 0;
  void* bytes_ = nullptr;
};

[[noreturn]] void refuse(const std::string& url, const char* reason) {
  throw Failure(ExitCode::notOpenable, url, "", reason);
}

bool isThere(const std::string& url) {
  try {
    const hxcrate::InspectedFile object(url);
    return true;
  } catch (const hxcrate::Error& error) {
    if (error.errc() != hxcrate::Errc::notFound) throw;
    return false;
  }
}

}  // namespace

FilePlace locateAside(const std::string& url) {
  const char* folder = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe): nobody sets any
  const bool isGiven = folder != nullptr && *folder != '\0';
  return {openDirectory(isGiven ? folder : "/var/tmp"), url.substr(url.rfind('/') + 1)};
}

void requireSendable(const std::string& url, bool replaces) {
  if (!url.starts_with("s3://")) refuse(url, "only objects are written: s3://bucket/key");
  if (url.ends_with("/")) refuse(url, "not the name of an object");
  if (!replaces && isThere(url)) refuse(url, "exists already");
}

void sendFile(const NewFile& file, const std::string& url, bool replaces) {
  const auto goOn = [](std::int64_t) { throwIfInterrupted(); };
  hxcrate::sendObject(url, MappedBytes(file).get(), {replaces, goOn});
}

}  // namespace tool
