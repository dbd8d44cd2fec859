// A file that is being unpacked.
#pragma once

#include <string>

#include "directory.h"

namespace tool {

// Goes with this object unless it was delivered.
class NewFile {
 public:
  // In an open directory, which outlives it. Throws a Failure, in which the file is called `path`:
  // a name that exists is only replaced with `overwrite`, and only when it is a regular file's.
  NewFile(const Descriptor& directory, const std::string& name, const std::string& path,
          bool overwrite);
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  const Descriptor& descriptor() const { return file_; }
  // All is written. What is replaced was there until now.
  void deliver();

  // Throws the Failure that this existing entry would be.
  static void checkReplaceable(const struct stat& existing, const std::string& path,
                               bool overwrite);

 private:
  void create(const std::string& name);
  void createAside();

  const Descriptor& directory_;
  const std::string& name_;
  const std::string& path_;
  std::string madeAs_;  // what the file is called for now; empty once it is delivered
  Descriptor file_;
};

}  // namespace tool
