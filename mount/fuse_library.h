// libfuse3's low-level interface, in the version that this is written for.
#pragma once

#define FUSE_USE_VERSION FUSE_MAKE_VERSION(3, 12)
#include <fuse3/fuse_lowlevel.h>
