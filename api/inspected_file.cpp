#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "engine.h"
#include "held_file.h"
#include "host/linux/file_ops.h"
#include "host/linux/linux_host.h"
#include "host/linux/regular_file.h"
#include "host/linux/transfer.h"
#include "hxcrate/inspect.hpp"
#include "member_path.h"
#include "remote_files.h"

namespace hxcrate {

struct InspectedFile::Parts {
  std::string name;
  std::shared_ptr<hxhost::FileOps> ops = hxhost::makeSystemFileOps();
  hxhost::LinuxHost host{{.fileOps = ops}};
  OwnedFileService files = loadFileService(host.handle());
  std::optional<HeldFile> held;
  std::string caveat;
  hxhost::RegularFile unlocked;  // open in place of it

  int number() const { return (held ? held->opened().file : unlocked).descriptor.number(); }
  std::shared_ptr<hxremote::RemoteFile> remote;  // in place of all these
};

namespace {

void requireOpen(int error, const std::string& path, const hxhost::RegularFile& file) {
  if (error == 0) return;
  if (error == ENOENT) throw Error(Errc::notFound, path, "");
  const bool isOther = error == EISDIR || error == ENOTSUP;
  if (isOther) throw Error(Errc::fileNotOpen, path, "", "not a regular file");
  if (error == EFBIG) {
    throw Error(Errc::fileNotOpen, path, "",
                "longer than any store, " + std::to_string(file.info.size) + " bytes");
  }
  const std::error_code reason(error, std::system_category());
  throw Error(Errc::fileNotOpen, path, "", FileFailure{"open", path, -1, reason});
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

// What can't be had from afar is no damage of the file.
std::size_t readRemote(hxremote::RemoteFile& file, std::int64_t offset, std::span<std::byte> to) {
  const std::int64_t count = file.read(offset, to.data(), std::ssize(to));
  if (count < std::min(std::ssize(to), file.length() - offset)) {
    if (const auto failure = takeFailureOf(file)) {
      throw Error(Errc::fileFailed, file.shownUrl(), "", *failure);
    }
  }
  return static_cast<std::size_t>(count);
}

}  // namespace

InspectedFile::InspectedFile(const FilePath& given, std::chrono::milliseconds lockWait)
    : parts_(std::make_unique<Parts>()) {
  Parts& parts = *parts_;
  parts.name = showPath(given.text());
  if (isUrl(given.text())) {
    parts.remote = openRemoteFile(given.text());
    return;
  }
  const std::string& path = parts.name;
  hxhost::RegularFile& file = parts.unlocked;
  requireOpen(hxhost::locateRegularFile(*parts.ops, path, file), path, file);
  parts.held.emplace(parts.files.get(), decodeFilePath(path), lockWait);
  if (parts.held->isOpen()) return;
  parts.caveat = explainRefusal(*parts.held, path);
  parts.held.reset();
  constexpr auto kPurpose = hxhost::Purpose::kRead;
  requireOpen(hxhost::openRegularFile(*parts.ops, path, kPurpose, file), path, file);
}

InspectedFile::~InspectedFile() = default;

std::int64_t InspectedFile::length() const {
  if (parts_->remote) return parts_->remote->length();
  hxhost::FileInfo info{};
  return parts_->ops->inspect(parts_->number(), info) == 0 ? info.size : 0;
}

std::size_t InspectedFile::read(std::int64_t offset, std::span<std::byte> to) const {
  if (parts_->remote) return readRemote(*parts_->remote, offset, to);
  const hxhost::Transfer transfer =
      hxhost::readAll(*parts_->ops, parts_->number(), to.data(), std::ssize(to), offset);
  return static_cast<std::size_t>(transfer.count);
}

std::int64_t InspectedFile::findData(std::int64_t offset) const {
  if (parts_->remote) return offset;
  const std::int64_t found = parts_->ops->findData(parts_->number(), offset);
  if (found < 0) return found == -ENXIO ? std::max(offset, length()) : offset;
  return found;
}

std::optional<Transfers> InspectedFile::transfers() const {
  if (!parts_->remote) return std::nullopt;
  const hxremote::Transfers transfers = parts_->remote->transfers();
  return Transfers{transfers.requests, transfers.bytes, transfers.time};
}

const std::string& InspectedFile::name() const {
  return parts_->name;
}

const std::string& InspectedFile::caveat() const {
  return parts_->caveat;
}

bool InspectedFile::isIn(int file) const {
  hxhost::FileOps& ops = *parts_->ops;
  hxhost::FileInfo own{};
  hxhost::FileInfo other{};
  return ops.inspect(parts_->number(), own) == 0 && ops.inspect(file, other) == 0 &&
         hxhost::isSameFile(own, other);
}

}  // namespace hxcrate
