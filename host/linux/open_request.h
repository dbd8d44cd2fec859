// How the opens and removals of one thread are to go, and what they came to. The slots of `hxfio`
// have a place for neither, and the module stands between them and whoever asks: so both travel by
// the calling thread.
#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "host/linux/file_outcome.h"

namespace hxhost {

class FileLease;

// What a file is opened for.
enum class Purpose {
  kRead,
  kUpdate,  // an absent file is created
  kReplace  // the same, but an old file is to be removed, whatever is under its journal's name
};

struct OpenTerms {
  // An open for an update refuses a file that is there already, with EEXIST, and a removal leaves
  // it: what is opened is new for certain.
  bool onlyNew = false;
  // An open for an update creates nothing: an absent file is refused with ENOENT.
  bool onlyExisting = false;
  // How long each waits for a file that somebody else has open; below zero: for ever.
  std::chrono::milliseconds lockWait{0};
};

// Who was in the way of an open or a removal that failed with EBUSY.
enum class Holder {
  kNobody,
  kElsewhere,    // another process, or another file service of this one
  kReadersHere,  // of the same file service
  kUpdaterHere,
  kUpdaterWaitsHere  // for others, before whoever comes later
};

// While it lives, all that its thread opens and removes through any host follows its terms and is
// told here; without one the host's own wait holds and nobody is told. Of nested ones the innermost
// counts. Made, used and ended by one thread.
class OpenRequest {
 public:
  explicit OpenRequest(const OpenTerms& terms);
  ~OpenRequest();
  OpenRequest(const OpenRequest&) = delete;
  OpenRequest& operator=(const OpenRequest&) = delete;

  // The calling thread's; null when there is none.
  static OpenRequest* current();

  const OpenTerms& terms() const { return terms_; }

  // Why the last open, removal or reservation failed. Else what failed in a file that was opened
  // here: first in the last, which is looked at as it is now. An absent file counts for an open,
  // not for a removal.
  std::optional<FileFailure> failure() const;
  Holder holder() const { return holder_; }

  // Of the file that was opened last; null when none was.
  const std::shared_ptr<FileOutcome>& file() const { return file_; }

  // How long it was waited for files that others had open, all in all.
  std::chrono::milliseconds waited() const { return waited_; }

  // A file that is open and locked already for what the thread asks for by the same path while the
  // request lives; null when there is none. See LinuxHost::reserve.
  void keepReservation(std::shared_ptr<FileLease> file) { reservation_ = std::move(file); }
  FileLease* reservation() const { return reservation_.get(); }

  void noteFailure(const FileFailure& failure, Holder holder);
  void noteOpened(std::shared_ptr<FileOutcome> file);
  void noteWait(std::chrono::milliseconds wait) { waited_ += wait; }

 private:
  const OpenTerms terms_;
  OpenRequest* const outer_;
  std::shared_ptr<FileLease> reservation_;
  std::optional<FileFailure> failure_;
  std::optional<FileFailure> formerFailure_;  // of files opened before the last
  Holder holder_ = Holder::kNobody;
  std::shared_ptr<FileOutcome> file_;
  std::chrono::milliseconds waited_{0};
};

}  // namespace hxhost
