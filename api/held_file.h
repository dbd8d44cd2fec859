// A regular file that the file service holds open for reading.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "engine.h"
#include "host/file_io.h"

namespace hxcrate {

struct FileServiceEnder {
  void operator()(hx::FileIo* files) const { files->head.destroy(files); }
};
using OwnedFileService = std::unique_ptr<hx::FileIo, FileServiceEnder>;

// A file service of its own. Throws std::bad_alloc.
OwnedFileService loadFileService(hx::HostHandle* host);

// While it lives, whoever wants to update the file is kept out, in this process too; an update that
// was cut off is undone before.
class HeldFile {
 public:
  // Opens the file by a service that outlives this, and waits so long when it is being updated;
  // isOpen tells whether it did. Throws std::bad_alloc.
  HeldFile(hx::FileIo* files, const std::u32string& path, std::chrono::milliseconds lockWait = {});

  bool isOpen() const { return file_ != nullptr; }
  const OpenRefusal& refusal() const { return refusal_; }  // when it is not
  hxhost::OpenedFile opened() const { return hxhost::LinuxHost::openedOf(file_.get()); }

 private:
  struct FileCloser {
    void operator()(hx::FileHandle* file) const { file->close(file); }
  };

  std::unique_ptr<hx::FileHandle, FileCloser> file_;
  OpenRefusal refusal_;
};

}  // namespace hxcrate
