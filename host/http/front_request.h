// The first request for a file, which tells all about it: a generous piece of its front.
#pragma once

#include <optional>
#include <vector>

#include "host/http/downloads.h"

namespace hxremote {

struct FileFront {
  Identity identity;
  std::vector<std::byte> bytes;  // from the file's first on; none when `isAsKnown`
  bool isAsKnown = false;        // the file is the one that was known
};

// Asks for it, and again after faults that may pass. `known`: the version that is here already.
// Where the server ignores ranges the front is the whole file, as long as that is small. The
// address of the context becomes the one that answered, its transfers count. Nothing with the
// reason.
std::optional<FileFront> requestFront(RequestContext& context, const std::optional<Identity>& known,
                                      Failure& failure);

}  // namespace hxremote
