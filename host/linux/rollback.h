// Making a file what it was before an update that did not come to its end, from the journal that
// the update left beside it. Rolling back once more what was rolled back in part, or whole, changes
// nothing.
#pragma once

#include "host/linux/regular_file.h"

namespace hxhost {

enum class JournalState {
  kNone,
  kSpent,  // it has nothing to say: the file did not change since it was begun
  kHot     // the file has to be rolled back before anybody reads it
};

// What lies under the journal's name beside the open file, of which `info` must be current. What it
// says holds only while nobody updates the file. An errno when that can't be told, or must be told
// to somebody:
//   ESTALE   it is none, or belongs to another file than this one, or this one was cut since
//   EPERM    it is neither the caller's nor root's nor of the file's owner
//   ENOTSUP  it is no regular file, or a journal of a version that this host does not know
int examineJournal(FileOps& ops, const RegularFile& file, JournalState& state);

// Removes a journal that is beside the file, after rolling the file back when it is hot; 0 or an
// errno, ENAMETOOLONG when no journal can be beside it. That it is gone is on disk then: the file's
// name may be given to another, to which the journal would be a stranger's. The file is locked
// exclusively and open for writing, and absent from its path afterwards when the update had created
// it.
int recoverFile(FileOps& ops, RegularFile& file);

// The same for a file that is to be removed: it must not be left as half an update when only its
// journal's removal reaches the disk. 0 also for a journal that can't be applied but may stay: to
// the empty file that is created there next it has nothing to say.
int clearJournal(FileOps& ops, RegularFile& file);

// Rolls the file back by an open journal, and puts the result on disk; 0 or an errno.
int applyJournal(FileOps& ops, int journal, RegularFile& file) noexcept;

}  // namespace hxhost
