// The links and folders of a manifest, in a directory that is unpacked into.
#pragma once

#include <sys/stat.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "attribute_restorer.h"
#include "hxcrate/crate.hpp"
#include "manifest.h"
#include "tool/files/byte_pump.h"
#include "tool/trees/directory.h"

namespace tool {

// Whoever else may write below the directory can exchange anything there meanwhile: each path is
// gone from the top anew, through no link, and what is found at its end has to be what was made.
// Those paths are `target`s, those inside the store `place`s. Failures are of one entry.
class TreeRestorer {
 public:
  // `manifest`: null: none; outlives it.
  TreeRestorer(const Manifest* manifest, const RestoreOptions& options);

  // Before all of the following.
  void start(const Descriptor& top);

  // What the manifest has of a member of that kind; null: nothing.
  const MemberAttributes* find(std::string_view place, bool isFile) const;

  // A new file, with all that it gets, before it has its name.
  void restore(const Descriptor& file, const std::string& path, const std::string& place,
               const std::string& target, const MemberAttributes& member);
  // A folder that was made for this and is open now. It gets the rest at the end.
  void noteFolder(const Descriptor& folder, std::string_view place, const std::string& target);

  // Gives a file that was restored, and has the item's bytes, the further name that the manifest
  // tells of. False, and nothing is done, when there is none.
  bool linkInstead(const DirectoryCursor& cursor, const std::string& name, const std::string& place,
                   const MemberAttributes& member, hxcrate::Reader& reader, BytePump& pump);

  // When all files are there: nothing is ever written through it then. `withJournals`: also where
  // it would be taken for the journal of a store.
  void makeSymbolicLink(const std::string& target, const std::string& path,
                        const MemberAttributes& member, bool withJournals);

  // Calls `give` for each folder that was noted, the inner ones first: what is made in a folder
  // changes its time, and its mode may forbid to enter it.
  template <typename Give>
  void finishFolders(Give give) {
    for (; !folders_.empty(); folders_.pop_back())
      give(folders_.back().target, [&](const std::string& path) { finish(folders_.back(), path); });
  }

 private:
  struct Folder {
    std::string target;
    const MemberAttributes* member;
    struct stat status;
  };
  // The files of one group are names of one file. Any of them may be the first to be met.
  struct LinkedFile {
    std::string target;  // empty: none was made yet
    struct stat status;
  };

  LinkedFile* groupOf(const std::string& place, const MemberAttributes& member);
  Descriptor openMade(const LinkedFile& made) const;
  void finish(const Folder& folder, const std::string& path);

  const Manifest* manifest_;
  AttributeRestorer restorer_;
  Descriptor top_;
  std::map<std::string, LinkedFile, std::less<>> linked_;  // by their groups
  std::vector<Folder> folders_;
};

}  // namespace tool
