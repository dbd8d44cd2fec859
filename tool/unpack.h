// hxcrate unpack: a store file becomes a tree of directories.
#pragma once

#include <string>

#include "report.h"

namespace tool {

struct UnpackOptions {
  std::string store;
  std::string directory;
  bool overwrite = false;
};

// Nothing is made outside `directory`, whatever names the store holds and whatever links lie there.
// Each entry that can't be unpacked is named on standard error. Throws Failure or hxcrate::Error
// when nothing can be.
ExitCode unpack(const UnpackOptions& options);

}  // namespace tool
