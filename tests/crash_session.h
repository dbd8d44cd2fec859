// The real module on the real host, over any disk: what tests do to a store, and what they find in
// one.
#pragma once

#include <string>
#include <string_view>

#include "host/linux/linux_host.h"
#include "module/entry.h"
#include "store/status.h"
#include "tests/simulated_disk.h"

namespace hxtest {

// The store of the simulated disks.
constexpr std::u32string_view kCrashStore = U"/s";
constexpr const char* kCrashFile = "/s";
constexpr const char* kCrashJournal = "/s-journal";

class CrashSession {
 public:
  explicit CrashSession(const hxhost::HostOptions& options);
  ~CrashSession() { module->destroy(module); }
  CrashSession(const CrashSession&) = delete;
  CrashSession& operator=(const CrashSession&) = delete;

  // A store file, or a store in `parent`. Null with the reason in `status`.
  hx::Store* open(std::u32string_view path, uint32_t flags, hx::Store* parent = nullptr);
  void close(hx::Store* store) { store->closeStore(store); }

  // Appends to an item of the store, or of nested stores ("a/b"), which are created as needed.
  void append(hx::Store* store, std::string_view path, const std::string& bytes);

  // One of the updates that make the simulated store: 0 creates it, 1 fills it, 2 adds and nests,
  // 3 appends. False when the store does not open.
  bool update(size_t step);

  // Everything in the tree, names and bytes, whatever the order of the members; a member that can't
  // be read whole is an "!".
  std::string describe(hx::Store* store);

  // Opens, describes and closes the store. "absent" when there is none, "status n" when it does not
  // open.
  std::string look(std::u32string_view path, uint32_t flags = hx::kRead,
                   hx::Store* parent = nullptr);

  hxhost::LinuxHost host;
  hx::ExtensionInstance* module = nullptr;
  int32_t status = 0;

 private:
  hx::ItemHandle* openItem(hx::Store* store, std::u32string_view name, uint32_t flags);
  std::string bytesIn(hx::Store* store, std::u32string_view name);
};

// A host over that disk, which outlives it.
hxhost::HostOptions hostOver(SimulatedDisk& disk, int64_t cacheBytes = 65536);

// The disk after the updates before `step`.
DiskImage diskBefore(size_t step);

// What the module finds on that disk; the opening may change it.
std::string lookAt(SimulatedDisk& disk, uint32_t flags = hx::kRead);
std::string lookAt(const DiskImage& image);

}  // namespace hxtest
