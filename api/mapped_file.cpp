#include "mapped_file.h"

#include <utility>

#include "host/linux/regular_file.h"
#include "member_path.h"

namespace hxcrate {

namespace {

[[noreturn]] void fail(const std::string& path, const char* operation, int error) {
  const std::error_code reason(error, std::system_category());
  throw Error(Errc::fileNotOpen, path, "", FileFailure{operation, path, -1, reason});
}

}  // namespace

void MappedFile::Unmapper::operator()(const std::byte* start) const {
  ops->unmap(start, size);
}

MappedFile::MappedFile(std::shared_ptr<Engine> engine, const std::string& path,
                       std::chrono::milliseconds lockWait)
    : engine_(std::move(engine)),
      file_(engine_->module()->fileExtension, decodeFilePath(path), lockWait),
      mapping_(nullptr, Unmapper{}) {
  if (!file_.isOpen()) failOpening(path, file_.refusal(), Errc::fileNotOpen, false);
  const hxhost::OpenedFile file = file_.opened();
  const int number = file.file.descriptor.number();
  hxhost::FileInfo info{};
  if (const int error = file.ops.inspect(number, info)) fail(path, "inspect", error);
  if (info.size == 0) throw Error(Errc::notAStore, path, "", "it is empty");
  const auto size = static_cast<std::size_t>(info.size);
  const void* start = nullptr;
  if (const int error = file.ops.map(number, size, start)) fail(path, "map", error);
  mapping_ = {static_cast<const std::byte*>(start), Unmapper{&file.ops, size}};
}

}  // namespace hxcrate
