// The answers to the kernel's questions about what is mounted.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "mount/fuse_library.h"
#include "mount/store_tree.h"

namespace mounted {

// Nothing that is mounted changes, so the kernel is told to keep whatever it was told: names that
// there are none of, too, and pages from one open to the next. Opens of files and folders it does
// not ask about at all. Several threads answer, under no lock of ours.
class FileSystem {
 public:
  explicit FileSystem(StoreTree& tree) : tree_(tree) {}

  static const fuse_lowlevel_ops& operations();

  // When it was last asked anything: seconds of the steady clock.
  const std::atomic<std::int64_t>& lastUse() const { return lastUse_; }

  // The first who asks waits for what the stores' manifests tell.
  StoreTree& tree() {
    std::call_once(told_, [this] { tree_.readManifests(); });
    return tree_;
  }
  void noteUse();

  // Whether a member's attributes shall come with its name before they are asked for: of so many as
  // were looked up alone before, times sixteen. `find` through 100 folders of 1,000 files takes two
  // thirds of the processor time the first time, and `du` of a source tree no more than when all
  // come.
  bool foresee();
  void noteLookUp();

  // Whether the kernel goes on by itself after it was refused the opening of a file, or a folder.
  bool opensAlone = false;
  bool opensFoldersAlone = false;

 private:
  StoreTree& tree_;
  std::once_flag told_;
  std::atomic<std::int64_t> lastUse_{0};
  std::atomic<int> foreseen_{0};
};

}  // namespace mounted
