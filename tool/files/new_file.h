// A file that is not there until it is whole.
#pragma once

#include <sys/stat.h>

#include <hxcrate/leftovers.hpp>
#include <optional>
#include <string>

#include "file_rights.h"
#include "interruption.h"
#include "tool/trees/directory.h"

namespace tool {

// It has no name while it is written, so that nothing is left of it however the command ends. Where
// the file system knows no such files it has a name of their kind (hxcrate/leftovers.hpp), as it
// has for a moment before it replaces another one. No name is touched that leads to a file that
// somebody else made.
class NewFile {
 public:
  struct Options {
    // The regular file that is there under the name and is replaced; its rights are the new one's.
    std::optional<struct stat> replaced = {};
    // Who may not read that file may not read the new one.
    const FileRights* readers = nullptr;
  };

  // In an open directory, which outlives it. Throws a Failure, in which the file is called `path`.
  NewFile(const Descriptor& directory, std::string name, std::string path, Options options);
  NewFile(const Descriptor& directory, std::string name, std::string path)
      : NewFile(directory, std::move(name), std::move(path), Options{}) {}
  ~NewFile();
  NewFile(const NewFile&) = delete;
  NewFile& operator=(const NewFile&) = delete;

  const Descriptor& descriptor() const { return file_; }  // for reading and writing
  const std::string& path() const { return path_; }

  // All is written, and what is on disk from now on, the name included, is the whole file. False,
  // and nothing changed, when something else has the name, or has what was to be replaced.
  bool deliver();
  // The same, but for the disk: the caller sees to that for all that it delivers.
  bool deliverUnsynced();

 private:
  NewFile(const Descriptor& directory, std::string name, std::string path, mode_t mode);

  void createAside(mode_t mode);
  void takeRightsOfReplaced();
  bool isMineStill() const;
  bool linkAside();
  bool giveName();
  bool replace();

  const InterruptionGuard guard_;
  const Descriptor& directory_;
  const std::string name_;
  const std::string path_;
  std::optional<struct stat> replaced_;
  std::string aside_;  // what it is called for now; empty: nothing
  Descriptor file_;
};

// A file in an open directory that never gets a name, for reading and writing. Throws a Failure, in
// which the directory is called `path`.
Descriptor openNameless(const Descriptor& directory, const std::string& path);
}  // namespace tool
