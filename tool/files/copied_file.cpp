#include "copied_file.h"

#include <fcntl.h>

#include <cerrno>
#include <system_error>

#include "tool/report/report.h"

namespace tool {

namespace {

Descriptor openForItsPath(const std::string& path) {
  Descriptor file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (file.isOpen()) return file;
  if (errno == ENOENT) throw hxcrate::Error(hxcrate::Errc::notFound, path, "");
  const std::error_code reason(errno, std::system_category());
  throw hxcrate::Error(hxcrate::Errc::fileNotOpen, path, "", {"open", path, -1, reason});
}

}  // namespace

CopiedFile::CopiedFile(const std::string& path) : path_(path) {
  if (hxcrate::isUrl(path)) return;
  file_ = openForItsPath(path);
  rights_.emplace(file_, path);
}

void CopiedFile::refuse() const {
  throw Failure(ExitCode::inputOutput, path_, "", "somebody gave its name to another file");
}

}  // namespace tool
