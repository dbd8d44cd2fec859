// What stands behind a session: the host and the module's instance.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "host/http/remote_file.h"
#include "host/linux/linux_host.h"
#include "host/linux/open_request.h"
#include "hxcrate/error.hpp"
#include "hxcrate/session.hpp"
#include "records/records.h"
#include "session_files.h"

namespace hxcrate {

// What the file service says of the file that was asked for as `path`.
FileFailure translate(const hxhost::FileFailure& failure, const std::string& path,
                      bool rolledBack = false);

// Why a file was not opened.
struct OpenRefusal {
  std::optional<hxhost::FileFailure> failure;  // when the system has said it
  hxhost::Holder holder = hxhost::Holder::kNobody;
  std::chrono::milliseconds waited{0};
};
OpenRefusal refusalOf(const hxhost::OpenRequest& request);

// Throws why the file `path` was not opened: `code`, by what was refused if anything was, unless
// there is no such file, or one where it was to be made; `mayCreate`: that it was.
[[noreturn]] void failOpening(const std::string& path, const OpenRefusal& refusal, Errc code,
                              bool mayCreate);

// What the update was lost by, else a read that failed since this was last asked.
std::optional<FileFailure> takeFailureOf(hxhost::FileOutcome& outcome, const std::string& path);

// One host and one instance of the module, which nobody else sees: every name in it passed through
// this API or came from a file. Safe for several threads.
class Engine {
 public:
  // `files`: what its host's are made of; null: the system's. Throws noModule.
  explicit Engine(SessionOptions options, std::shared_ptr<hxhost::FileOps> files = nullptr);
  // Of the one file that lies behind a URL.
  Engine(SessionOptions options, std::shared_ptr<hxremote::RemoteFile> file);
  ~Engine();
  static Session makeSession(std::shared_ptr<Engine> engine);
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const SessionOptions& options() const { return options_; }
  hx::ExtensionInstance* module() const { return module_; }
  hx::HostHandle* host() { return host_.handle(); }
  const std::shared_ptr<hxhost::FileOps>& fileOps() const { return fileOps_; }
  // Counts what is read behind URLs for the session.
  const std::shared_ptr<hxremote::TransferMeter>& transferMeter() const { return meter_; }
  hxremote::RemoteFile* remoteFile() const { return remoteFile_.get(); }  // null: files of the disk
  MemoryUse memoryUse() const;

  // A pool of its own, which holds the engine `self` that it came from. Throws std::bad_alloc.
  static std::shared_ptr<hx::Pool> makePool(std::shared_ptr<Engine> self);

  // Held around the open and the close of a store file; guards `files`.
  std::mutex& openingMutex() { return openingMutex_; }
  SessionFiles& files() { return files_; }

  // A number that no other store in memory has.
  unsigned numberStoreInMemory() { return storesInMemory_++; }

  // For destructors: runs `call`, and tells the session's hook, if there is one, what it threw.
  template <typename Call>
  void reportFailureOf(const std::string& store, const Call& call) noexcept {
    try {
      call();
    } catch (const Error& error) {
      report(error);
    } catch (...) {
      reportNoMemory(store);
    }
  }

 private:
  void report(const Error& error) noexcept;
  void reportNoMemory(const std::string& store) noexcept;

  SessionOptions options_;
  const std::shared_ptr<hxhost::FileOps> fileOps_;
  const std::shared_ptr<hxremote::TransferMeter> meter_ =
      std::make_shared<hxremote::TransferMeter>();
  const std::shared_ptr<hxremote::RemoteFile> remoteFile_;
  hxhost::LinuxHost host_;
  hx::ExtensionInstance* module_;
  std::atomic<unsigned> storesInMemory_{0};
  std::mutex openingMutex_;
  SessionFiles files_;
};

}  // namespace hxcrate
