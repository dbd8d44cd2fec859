// A regular file that the file service holds open for reading.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "host/file_io.h"
#include "host/linux/file_outcome.h"

namespace hxcrate {

// While it lives, whoever wants to update the file is kept out, in this process too; an update that
// was cut off is undone before. The file service is one of its own, because a session's would let
// that session go from reading to updating.
class HeldFile {
 public:
  // Opens the file, and waits so long when it is being updated; isOpen tells whether it did.
  // Throws std::bad_alloc.
  HeldFile(hx::HostHandle* host, const std::u32string& path,
           std::chrono::milliseconds lockWait = {});

  bool isOpen() const { return file_ != nullptr; }
  // Why it is not open, when the system has said it.
  const std::optional<hxhost::FileFailure>& failure() const { return failure_; }
  // Where it is, without links.
  std::string path() const;

 private:
  struct ServiceEnder {
    void operator()(hx::FileIo* files) const { files->head.destroy(files); }
  };
  struct FileCloser {
    void operator()(hx::FileHandle* file) const { file->close(file); }
  };

  std::unique_ptr<hx::FileIo, ServiceEnder> files_;
  std::unique_ptr<hx::FileHandle, FileCloser> file_;
  std::optional<hxhost::FileFailure> failure_;
};

// Owns a file descriptor.
class ReadDescriptor {
 public:
  // Opens `path` for reading, without waiting for anything; -1 with errno set.
  explicit ReadDescriptor(const std::string& path);
  ~ReadDescriptor();
  ReadDescriptor(const ReadDescriptor&) = delete;
  ReadDescriptor& operator=(const ReadDescriptor&) = delete;

  int number() const { return number_; }

 private:
  int number_;
};

}  // namespace hxcrate
