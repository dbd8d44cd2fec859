// A store file as another machine would have written it.
#pragma once

#include <fstream>
#include <hxcrate/inspect.hpp>
#include <string>

namespace hxtest {

// Of the file `from` makes the file `to`.
inline void transcodeFile(const std::string& from, const char* encodingId, const std::string& to,
                          decltype(hxcrate::transcode) transcode = hxcrate::transcode) {
  std::ofstream file(to, std::ios::binary);
  transcode(hxcrate::InspectedFile(from), encodingId, [&](auto offset, auto bytes) {
    file.seekp(offset).write(reinterpret_cast<const char*>(bytes.data()), std::ssize(bytes));
  });
}

}  // namespace hxtest
