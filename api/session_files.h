// Which store files a session has open, and which closed ones it keeps in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>

#include "host/linux/file_ops.h"
#include "records/records.h"

namespace hxcrate {

// The module knows a store file by its name, open or closed, and shares what is open under one name
// among its readers. This keeps a name from standing for two files, and what is kept of a closed
// file from being taken for what it is now. The caller sees to it that one thread at a time uses
// it.
class SessionFiles {
 public:
  // At most `most` closed ones are kept.
  SessionFiles(hx::ExtensionInstance* module, std::size_t most) : module_(module), most_(most) {}

  // Whether the name is that of another file, which is open; since then the path has been given to
  // the file `now`.
  bool isTaken(const std::u32string& name, const hxhost::FileInfo& now) const;

  // Before the file is opened: what is kept of it stays only while it is as it was when it was
  // closed.
  void check(const std::u32string& name, const hxhost::FileInfo& now);

  void enter(const std::u32string& name, const hxhost::FileInfo& file);

  // After a close. When that was the last, the store is kept as that of a file that looks so, or
  // forgotten if there is no telling.
  void leave(const std::u32string& name, const std::optional<hxhost::FileInfo>& left);

  // Keeps nothing of a closed one.
  void forget(const std::u32string& name);

 private:
  struct OpenFile {
    hxhost::FileInfo file;
    int openings = 0;
  };
  struct KeptStore {
    hxhost::FileInfo file;
    std::uint64_t lastUse = 0;
  };

  void dropOldest();

  hx::ExtensionInstance* module_;
  std::size_t most_;
  std::unordered_map<std::u32string, OpenFile> open_;
  std::unordered_map<std::u32string, KeptStore> kept_;
  std::uint64_t uses_ = 0;
};

}  // namespace hxcrate
