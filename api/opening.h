// The opening of a store, which everything opened through it shares.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "engine.h"
#include "member_path.h"
#include "records/records.h"

namespace hxcrate {

// Closes what the module opened, until an Opening does.
struct RootCloser {
  void operator()(hx::Store* root) const { root->closeStore(root); }
};
using OpenedRoot = std::unique_ptr<hx::Store, RootCloser>;

// One opening of a store file, a store in memory or a blob, shared by everything that was opened
// through it. The last to go closes it, or abandons its update when it goes by an exception that
// came after the opening.
class Opening {
 public:
  // Of nothing yet. The `bytes` are what a blob is opened from.
  Opening(std::shared_ptr<Engine> engine, std::string path, bool writable,
          std::shared_ptr<const void> bytes = nullptr);
  ~Opening();
  Opening(const Opening&) = delete;
  Opening& operator=(const Opening&) = delete;

  // Takes over the opening of a root. With a name it is a file that the session's list was told of.
  void take(OpenedRoot root, std::u32string name = {}) noexcept;

  Engine& engine() const { return *engine_; }
  const std::shared_ptr<Engine>& sharedEngine() const { return engine_; }
  hx::ExtensionInstance* module() const { return engine_->module(); }
  hx::Store* root() const { return root_; }
  const std::string& path() const { return path_; }  // as given
  bool writable() const { return writable_; }
  bool isInMemory() const { return (root_->flags & hx::kNoFileStore) != 0; }
  bool isIn(int file) const;
  // A file of the disk or behind a URL, not mapped, that is open for reading.
  bool isReadFile() const { return !writable_ && !isInMemory() && !hx::isInBlob(root_); }
  std::optional<std::int64_t> openedLength() const {
    return outcome_ != nullptr ? std::optional(outcome_->opened().size) : std::nullopt;
  }
  std::int64_t bytesRead() const { return outcome_ != nullptr ? outcome_->bytesRead() : 0; }

  // Of a store file that is open.
  hxhost::OpenedFile openedFile() const { return hxhost::LinuxHost::openedOf(hx::fileOf(root_)); }

  // An error of this file: `status` as the module gave it, and the system's reason if there is one.
  [[noreturn]] void fail(std::int32_t status, const std::string& member) const;

  // Throws abandoned, and fileFailed after a commit that failed: what would be shown is not in the
  // file. `place` is the record of what was to be used.
  template <typename Record>
  void requireKept(const Record& place) const {
    if (update_ != Update::kKept) fail(static_cast<int>(Errc::fileFailed), pathOf(place));
  }

  // Throws also what the update was lost by.
  template <typename Record>
  void requireWhole(const Record& place) const {
    requireKept(place);
    if (outcome_ != nullptr && outcome_->isLost())
      fail(static_cast<int>(Errc::fileFailed), pathOf(place));
  }

  // How many items are open for writing, and about to be.
  std::atomic<int>& writers() { return writers_; }

  // Throws membersOpen while an item is open for writing, notLocked, and what the update was lost
  // by; then it is over.
  void commit(const std::string& place);

  // Gives up the update of the file, by whatever is open in it. Throws notLocked.
  void abandon();

  // Whether an exception unwinds that came after the opening.
  bool isUnwinding() const noexcept;

  // Somebody was told what the update was lost by: it is not reported when the last member goes.
  void markTold() noexcept { isTold_ = true; }

  // Throws fileFailed when not everything reached the file, or could be undone, whoever was told;
  // it is closed all the same.
  void close();

 private:
  enum class Update { kKept, kAbandoned, kLost };  // lost: by a commit

  std::optional<FileFailure> takeFailure() const;
  std::optional<FileFailure> endFailure() const;
  void closeRoot();

  std::shared_ptr<Engine> engine_;
  std::shared_ptr<const void> bytes_;
  std::string path_;
  std::u32string name_;                           // what the module knows the file by
  std::shared_ptr<hxhost::FileOutcome> outcome_;  // of the file; null without one
  const bool writable_;
  const int exceptionsAtOpening_;
  std::atomic<int> writers_{0};
  std::atomic<Update> update_{Update::kKept};
  std::atomic<bool> isTold_{false};
  hx::Store* root_ = nullptr;  // null before it is taken and when closed
};

}  // namespace hxcrate
