// A store file becomes a tree of directories.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "selection.h"
#include "tool/files/write_limits.h"
#include "tool/manifest/attribute_restorer.h"
#include "tool/report/report.h"

namespace tool {

struct UnpackOptions {
  std::string store;
  std::string directory;
  std::vector<std::string> paths;
  SelectionOptions selected;
  std::int64_t maxEntries = kUnlimited;
  std::int64_t maxBytes = kUnlimited;
  bool overwrite = false;
  bool withJournals = false;
  bool isTold = false;        // the path of each entry that is made
  std::int64_t stripped = 0;  // names at the beginning of each path
  RestoreOptions restored;
  std::int64_t wait = 0;  // seconds
  bool dryRun = false;
};

// Nothing outside the directory is made or changed, whatever the store holds. Problems of single
// entries are told of on standard error, others thrown.
ExitCode unpack(UnpackOptions& options);

}  // namespace tool
