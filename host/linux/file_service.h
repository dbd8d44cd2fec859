// The extension `hxfio` of host/file_io.h: opens and removes regular files by path.
//
// A file opened for update that is absent is created, and removed again when it is closed with
// nothing in it. The handle's path is absolute and free of links; a file whose path can't be given
// so (longer than 1024 characters) does not open. A link is followed by `open` and by
// `remove`: a store is deleted where its data are, and the link stays. What else is opened and who
// is kept out is told in locked_files.h, what an update leaves behind in disk_file.h, how an open
// is told more than its slot takes, and tells more, in open_request.h.
#pragma once

#include <string_view>

#include "host/file_io.h"
#include "host/linux/linux_host.h"
#include "host/linux/open_request.h"

namespace hxhost {

// Released by its `destroy` slot, which does not close the files that it opened; null without
// memory. Of `options`, `fileOps` is set.
hx::FileIo* makeFileService(const HostOptions& options) noexcept;

// See LinuxHost::reserve.
bool reserveFile(hx::FileIo* files, std::u32string_view path, Purpose purpose) noexcept;

}  // namespace hxhost
