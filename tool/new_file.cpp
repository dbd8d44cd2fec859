#include "new_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "report.h"

namespace tool {

// Where nothing has the name, the file has it at once.
NewFile::NewFile(const Descriptor& directory, const std::string& name, const std::string& path,
                 bool overwrite)
    : directory_(directory), name_(name), path_(path) {
  create(name);
  if (file_.isOpen()) return;
  if (errno != EEXIST) throw systemFailure(path, "create");
  const auto existing = inspect(directory, name);
  if (existing) checkReplaceable(*existing, path, overwrite);
  createAside();
}

NewFile::~NewFile() {
  if (!madeAs_.empty()) ::unlinkat(directory_.number(), madeAs_.c_str(), 0);
}

void NewFile::create(const std::string& name) {
  file_ = openBeneath(directory_, name, O_WRONLY | O_CREAT | O_EXCL, 0666);
  if (file_.isOpen()) madeAs_ = name;
}

void NewFile::createAside() {
  for (int i = 0; !file_.isOpen() && (i == 0 || errno == EEXIST); ++i)
    create(".hxcrate-" + std::to_string(::getpid()) + "-" + std::to_string(i));
  if (!file_.isOpen()) throw systemFailure(path_, "create");
}

void NewFile::checkReplaceable(const struct stat& existing, const std::string& path,
                               bool overwrite) {
  const char* reason = overwrite ? "exists already and is no regular file" : "exists already";
  if (overwrite && S_ISREG(existing.st_mode)) return;
  throw Failure(ExitCode::partial, path, "", reason);
}

void NewFile::deliver() {
  if (!file_.close()) throw systemFailure(path_, "write");
  if (madeAs_ != name_ && !moveFile(directory_, madeAs_, directory_, name_, true)) {
    throw systemFailure(path_, "give the file its name");
  }
  madeAs_.clear();
}

}  // namespace tool
