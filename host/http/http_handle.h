// The file service of one remote file, and its handles.
#pragma once

#include "host/file_io.h"

namespace hxremote {

class HttpFile;

// Opens the file for reading, whatever the path; removes nothing. Owned by the file.
class FileService : public hx::FileIo {
 public:
  explicit FileService(HttpFile& file);

  HttpFile& file() const { return file_; }

 private:
  HttpFile& file_;
};

}  // namespace hxremote
