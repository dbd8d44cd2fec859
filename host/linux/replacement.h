// A file in the making that takes the place of another one when it is complete.
#pragma once

#include <string>

#include "host/linux/linux_host.h"
#include "host/linux/regular_file.h"

namespace hxhost {

// One thread uses it. Operations return 0 or an errno.
class Replacement {
 public:
  // Of the open file, which is locked exclusively and outlives this. Nothing is written to it, also
  // not after its name has gone to this: its journal would be taken for this one's.
  Replacement(FileOps& ops, const RegularFile& replaced) : ops_(ops), replaced_(replaced) {}
  ~Replacement();  // nothing is left of one that was not delivered
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

  // An empty file that those may open who may open the other, for reading and writing.
  int create();
  int number() const { return file_.number(); }

  // Gives it the other's name, and with Durability::full nothing else is on disk afterwards. When
  // `hasHappened`, it has the name in spite of an error, which a power cut may undo.
  int deliver(Durability durability, bool& hasHappened);

 private:
  FileOps& ops_;
  const RegularFile& replaced_;
  Descriptor file_;
  std::string name_;  // that it has meanwhile; empty: none
};

}  // namespace hxhost
