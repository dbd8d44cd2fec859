// What a store's file looked like when this instance last had it, to find out whether somebody else
// changed it meanwhile.
#pragma once

#include "records/records.h"

namespace hx {

// The file's header and length as they are now. A file that can't be read gives a stamp that
// matches none and is not known.
FileStamp stampOf(FileHandle* file);

bool isKnown(const FileStamp& stamp);
bool sameStamp(const FileStamp& a, const FileStamp& b);

}  // namespace hx
