// What stands behind a session: the host and the module's instance.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/linux/linux_host.h"
#include "hxcrate/error.hpp"
#include "hxcrate/session.hpp"
#include "store/records.h"

namespace hxcrate {

// One host and one instance of the module, which nobody else sees: every name in it passed through
// this API or came from a file. Safe for several threads.
class Engine {
 public:
  // Throws noModule.
  explicit Engine(SessionOptions options);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  hx::ExtensionInstance* module() const { return module_; }
  MemoryUse memoryUse() const;

  // Held around the open and the close of a store file, so that what the file service reports
  // afterwards belongs to that call.
  std::mutex& openingMutex() { return openingMutex_; }

  // The first failure to open or remove the file that was asked for as `path`, or to read or write
  // the one that lies at `path`; all of them are forgotten. Those of other files are kept for
  // whoever has them open.
  std::optional<FileFailure> takeOpenFailure(const std::string& path);
  std::optional<FileFailure> takeTransferFailure(const std::string& path);

  // For destructors: the session's hook, if there is one.
  void reportUnreported(const Error& error) noexcept;

 private:
  std::optional<FileFailure> takeFailure(const std::string& path, bool ofOpening);

  SessionOptions options_;
  hxhost::LinuxHost host_;
  hx::ExtensionInstance* module_;
  std::mutex openingMutex_;
  std::mutex failuresMutex_;
  std::vector<FileFailure> failures_;  // taken from the host, not yet asked for; the oldest first
};

}  // namespace hxcrate
