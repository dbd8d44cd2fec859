#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "engine.h"
#include "held_file.h"
#include "host/linux/linux_host.h"
#include "hxcrate/inspect.hpp"
#include "member_path.h"

namespace hxcrate {

struct InspectedFile::Parts {
  std::string name;
  hxhost::LinuxHost host;
  OwnedFileService files = loadFileService(host.handle());
  std::optional<HeldFile> held;
  std::optional<ReadDescriptor> unlocked;  // when it is not held
  std::string caveat;

  int file() const { return held ? held->descriptor() : unlocked->number(); }
};

namespace {

// Sums of offsets and lengths in a file stay numbers of 64 bits.
constexpr std::int64_t kLongestFile = std::int64_t{1} << 62;

[[noreturn]] void fail(const std::string& path, const char* operation, int error) {
  if (error == ENOENT) throw Error(Errc::notFound, path, "");
  const std::error_code reason(error, std::system_category());
  throw Error(Errc::fileNotOpen, path, "", FileFailure{operation, path, -1, reason});
}

// Why a file that is there was not opened. Throws storeInUse.
std::string explainRefusal(const HeldFile& file, const std::string& path) {
  if (!file.refusal().failure) return "the file service does not open it";
  const FileFailure failure = translate(*file.refusal().failure, path);
  if (failure.reason == std::errc::device_or_resource_busy) {
    throw Error(Errc::storeInUse, path, "", failure);
  }
  return Error(Errc::fileNotOpen, path, "", failure).reason();
}

void requireRegular(const ReadDescriptor& file, const std::string& path) {
  struct stat status {};
  if (file.number() < 0 || ::fstat(file.number(), &status) != 0) fail(path, "open", errno);
  if (!S_ISREG(status.st_mode)) throw Error(Errc::fileNotOpen, path, "", "not a regular file");
  if (status.st_size > kLongestFile) {
    throw Error(Errc::fileNotOpen, path, "",
                "longer than any store, " + std::to_string(status.st_size) + " bytes");
  }
}

}  // namespace

InspectedFile::InspectedFile(const std::string& path) : parts_(std::make_unique<Parts>()) {
  Parts& parts = *parts_;
  parts.name = path;
  requireRegular(ReadDescriptor(path), path);
  parts.held.emplace(parts.files.get(), decodeFilePath(path));
  if (parts.held->isOpen()) return;
  parts.caveat = explainRefusal(*parts.held, path);
  parts.held.reset();
  parts.unlocked.emplace(path);
  requireRegular(*parts.unlocked, path);
}

InspectedFile::~InspectedFile() = default;

std::int64_t InspectedFile::length() const {
  struct stat status {};
  return ::fstat(parts_->file(), &status) == 0 ? status.st_size : 0;
}

std::size_t InspectedFile::read(std::int64_t offset, std::span<std::byte> to) const {
  std::size_t done = 0;
  while (done < to.size()) {
    const ssize_t count = ::pread(parts_->file(), to.data() + done, to.size() - done,
                                  offset + static_cast<std::int64_t>(done));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

std::int64_t InspectedFile::findData(std::int64_t offset) const {
  const off_t found = ::lseek(parts_->file(), offset, SEEK_DATA);
  if (found < 0) return errno == ENXIO ? std::max(offset, length()) : offset;
  return found;
}

const std::string& InspectedFile::name() const {
  return parts_->name;
}

const std::string& InspectedFile::caveat() const {
  return parts_->caveat;
}

bool InspectedFile::isIn(int file) const {
  struct stat own {
  }, other{};
  return ::fstat(parts_->file(), &own) == 0 && ::fstat(file, &other) == 0 &&
         own.st_dev == other.st_dev && own.st_ino == other.st_ino;
}

}  // namespace hxcrate
