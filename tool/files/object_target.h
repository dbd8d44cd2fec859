// A new store that becomes an object, s3://bucket/key: it is made as a file without a name, and
// sent.
#pragma once

#include <string>

#include "new_file.h"
#include "tool/trees/directory.h"

namespace tool {

// Where the file is made; never under the name.
FilePlace locateAside(const std::string& url);

// Throws a Failure, notOpenable, where no object can be written, or, unless it `replaces` it, when
// there is one; hxcrate::Error when there is no telling.
void requireSendable(const std::string& url, bool replaces);

// All of the file. Throws hxcrate::Error, and then there is no object, or the one that was before.
void sendFile(const NewFile& file, const std::string& url, bool replaces);

}  // namespace tool
