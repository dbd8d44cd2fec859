// A host of one file that has no name: whatever path is opened for an update is that file.
#pragma once

#include <memory>

#include "host/linux/file_ops.h"

namespace hxhost {

// `file` is an empty regular file that is open on the `disk` for reading and writing; it stays the
// caller's, and open for as long as these operations. A journal goes into memory: until it gets a
// name nobody else can see the file, and what an update leaves behind when it is cut off goes with
// it.
std::shared_ptr<FileOps> makeNamelessFileOps(std::shared_ptr<FileOps> disk, int file);

}  // namespace hxhost
