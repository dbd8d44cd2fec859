// A store file that is mapped into memory for reading.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "engine.h"
#include "host/file_io.h"

namespace hxcrate {

// Holds the file open, as any reader does, for as long as it is mapped: whoever wants to update it
// is kept out, and an update that was cut off is undone before. The file service is one of its own,
// because the module's would let its own session go from reading to updating.
class MappedFile {
 public:
  // Maps the regular file `path`. The caller holds the engine's opening mutex. Throws.
  MappedFile(std::shared_ptr<Engine> engine, const std::string& path);

  std::span<const std::byte> bytes() const { return {mapping_.get(), mapping_.get_deleter().size}; }

 private:
  struct ServiceEnder {
    void operator()(hx::FileIo* files) const { files->head.destroy(files); }
  };
  struct FileCloser {
    void operator()(hx::FileHandle* file) const { file->close(file); }
  };
  struct Unmapper {
    std::size_t size;
    void operator()(const std::byte* start) const;
  };

  std::shared_ptr<Engine> engine_;
  std::unique_ptr<hx::FileIo, ServiceEnder> files_;
  std::unique_ptr<hx::FileHandle, FileCloser> file_;
  std::unique_ptr<const std::byte, Unmapper> mapping_;
};

}  // namespace hxcrate
