// Transfers of whole stretches, in as many operations as it takes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/file_io.h"
#include "host/linux/file_ops.h"

namespace hxhost {

struct Transfer {
  int64_t count = 0;  // bytes
  int error = 0;      // errno; 0 also at the end of the file, and when the system took nothing

  // What to report when bytes are missing: without an error the file has become shorter.
  int reason() const;
};

Transfer readAll(FileOps& ops, int file, void* out, int64_t count, int64_t offset) noexcept;

// Whether all of the parts could be filled.
bool readParts(FileOps& ops, int file, const hx::ReadRequest* parts, int32_t count,
               int64_t offset) noexcept;

Transfer writeAll(FileOps& ops, int file, const void* bytes, int64_t count,
                  int64_t offset) noexcept;

}  // namespace hxhost
