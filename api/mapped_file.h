// A store file that is mapped into memory for reading.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "engine.h"
#include "held_file.h"

namespace hxcrate {

// Holds the file open, as any reader does, for as long as it is mapped.
class MappedFile {
 public:
  // Maps the regular file `path`, and waits so long when it is being updated. Throws.
  MappedFile(std::shared_ptr<Engine> engine, const std::string& path,
             std::chrono::milliseconds lockWait);

  std::span<const std::byte> bytes() const { return {mapping_.get(), mapping_.get_deleter().size}; }

 private:
  struct Unmapper {
    hxhost::FileOps* ops = nullptr;
    std::size_t size = 0;
    void operator()(const std::byte* start) const;
  };

  std::shared_ptr<Engine> engine_;
  HeldFile file_;
  std::unique_ptr<const std::byte, Unmapper> mapping_;
};

}  // namespace hxcrate
