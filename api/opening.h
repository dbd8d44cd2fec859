// The opening of a store, which everything opened through it shares.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "engine.h"
#include "records/records.h"

namespace hxcrate {

// Closes what the module opened, until a Opening does.
struct RootCloser {
  void operator()(hx::Store* root) const { root->closeStore(root); }
};
using OpenedRoot = std::unique_ptr<hx::Store, RootCloser>;

// One opening of a store file, a store in memory or a blob, shared by everything that was opened
// through it. The last to go closes it.
class Opening {
 public:
  // Takes over the opening of `root`, and a share in the `bytes` that it was opened from.
  Opening(std::shared_ptr<Engine> engine, OpenedRoot root, std::string path, bool writable,
          std::shared_ptr<const void> bytes = nullptr);
  ~Opening();
  Opening(const Opening&) = delete;
  Opening& operator=(const Opening&) = delete;

  Engine& engine() const { return *engine_; }
  const std::shared_ptr<Engine>& sharedEngine() const { return engine_; }
  hx::ExtensionInstance* module() const { return engine_->module(); }
  hx::Store* root() const { return root_; }
  const std::string& path() const { return path_; }  // as given
  bool writable() const { return writable_; }
  bool isInMemory() const { return (root_->flags & hx::kNoFileStore) != 0; }

  // What the update of the file was lost by, else a read that failed since this was last asked.
  std::optional<FileFailure> takeFailure();

  // An error of this file: `status` as the module gave it, and the system's reason if there is one.
  [[noreturn]] void fail(std::int32_t status, const std::string& member);

  // Makes the update of the file fail on purpose, whoever takes part in it: its end undoes it.
  // False when there is no file or it is open for reading.
  bool abandonUpdate();

  // Throws fileFailed when not everything reached the file; it is closed all the same.
  void close();

 private:
  std::shared_ptr<Engine> engine_;
  std::shared_ptr<const void> bytes_;
  std::string path_;
  std::shared_ptr<hxhost::FileOutcome> outcome_;  // of the file; null without one
  bool writable_;
  hx::Store* root_;  // null when closed; taken over last, when nothing can fail any more
};

}  // namespace hxcrate
