// The real module on the real host, over any disk: what tests do to a store, and what they find in
// one.
#pragma once

#include <numeric>
#include <set>
#include <string>
#include <string_view>

#include "host/linux/linux_host.h"
#include "host/linux/open_request.h"
#include "module/entry.h"
#include "records/status.h"
#include "tests/simulated_disk.h"
#include "tests/temporary_directory.h"

namespace hxtest {

// The store of the simulated disks.
constexpr std::u32string_view kCrashStore = U"/s";
constexpr const char* kCrashFile = "/s";
constexpr const char* kCrashJournal = "/s-journal";

class CrashSession {
 public:
  explicit CrashSession(const hxhost::HostOptions& options) : host(options) {
    hx::hxmodent(host.handle());
    module = hx::hxcrate();
  }
  ~CrashSession() { module->destroy(module); }
  CrashSession(const CrashSession&) = delete;
  CrashSession& operator=(const CrashSession&) = delete;

  // A store file, or a store in `parent`. Null with the reason in `status`.
  hx::Store* open(std::u32string_view path, uint32_t flags, hx::Store* parent = nullptr) {
    const hxhost::OpenRequest request(terms);
    hx::Store* store = module->openStore(module, parent, path.data(),
                                         static_cast<int32_t>(path.size()), flags, &status);
    if (parent != nullptr) return store;
    refusal = request.failure();
    if (request.file() != nullptr) file = request.file();
    return store;
  }
  void close(hx::Store* store) { store->closeStore(store); }

  // Appends to an item of the store, or of nested stores ("a/b"), which are created as needed.
  void append(hx::Store* store, std::string_view path, const std::string& bytes) {
    constexpr uint32_t kFlags = hx::kUpdate | hx::kCreate;
    const std::u32string name(path.begin(), std::find(path.begin(), path.end(), '/'));
    if (name.size() < path.size()) {
      hx::Store* nested = open(name, kFlags, store);
      append(nested, path.substr(name.size() + 1), bytes);
      return close(nested);
    }
    hx::ItemHandle* item = openItem(store, name, kFlags);
    if (item == nullptr) return;
    item->item->write(item, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
    item->item->close(item);
  }

  // One of the updates that make the simulated store: 0 creates it, 1 fills it, 2 adds and nests,
  // 3 appends. Pages of 512 bytes, and items enough for a file of several blocks of the journal.
  // False when the store does not open.
  bool update(size_t step) {
    static const std::vector<std::pair<const char*, unsigned>> kAppended[] = {
        {{"first", 100}, {"empty", 0}, {"nested/inner", 600}},
        {{"large", 9000}, {"last", 300}},
        {{"added", 30}, {"nested/deeper/innermost", 520}},
        {{"first", 700}, {"last", 50}}};
    hx::Store* store = open(kCrashStore, hx::kUpdate | hx::kCreate);
    if (store == nullptr) return false;
    store->setPageSize(store, 512);
    for (const auto& [path, count] : kAppended[step])
      append(store, path, makeBytes(count, count));
    close(store);
    return true;
  }

  // Everything in the tree, names and bytes, whatever the order of the members; a member that can't
  // be read whole is an "!".
  std::string describe(hx::Store* store) {
    std::set<std::string> members;
    std::u32string last;
    char32_t name[64];
    int32_t length = 0;
    int32_t kind = 0;
    while (store->getNextMember(store, last.data(), static_cast<int32_t>(last.size()), name,
                                &length, &kind) == 0) {
      last.assign(name, static_cast<size_t>(length));
      const std::string narrow(last.begin(), last.end());
      members.insert(kind == hx::kStoreKind ? narrow + "{" + look(last, hx::kRead, store) + "}"
                                            : narrow + bytesIn(store, last));
    }
    return std::accumulate(members.begin(), members.end(), std::string());
  }

  // Opens, describes and closes the store. "absent" when there is none, "status n" when it does not
  // open.
  std::string look(std::u32string_view path, uint32_t flags = hx::kRead,
                   hx::Store* parent = nullptr) {
    hx::Store* store = open(path, flags, parent);
    if (store == nullptr && status == hx::kNotFound) return "absent";
    const std::string text = status == 0 ? describe(store) : "status " + std::to_string(status);
    if (store != nullptr) close(store);
    return text;
  }

  hxhost::LinuxHost host;
  hxhost::OpenTerms terms;
  hx::ExtensionInstance* module = nullptr;
  int32_t status = 0;
  std::optional<hxhost::FileFailure> refusal;  // what failed in the last open of a file
  std::shared_ptr<hxhost::FileOutcome> file;   // that was opened last

 private:
  hx::ItemHandle* openItem(hx::Store* store, std::u32string_view name, uint32_t flags) {
    return module->openItem(module, store, name.data(), static_cast<int32_t>(name.size()), flags,
                            &status);
  }

  std::string bytesIn(hx::Store* store, std::u32string_view name) {
    hx::ItemHandle* item = openItem(store, name, hx::kRead);
    if (item == nullptr) return "!";
    std::string bytes(static_cast<size_t>(item->item->size), '\0');
    const uint32_t got =
        bytes.empty() ? 0
                      : item->item->read(item, bytes.data(), item->item->size, nullptr, &status);
    item->item->close(item);
    return got == bytes.size() ? "=" + bytes + ";" : "!";
  }
};

// A host's hxfio, without the module.
class CrashFiles {
 public:
  explicit CrashFiles(const hxhost::HostOptions& options) : host(options) {}
  ~CrashFiles() { io_->head.destroy(io_); }
  CrashFiles(const CrashFiles&) = delete;
  CrashFiles& operator=(const CrashFiles&) = delete;

  hx::FileHandle* open(std::u32string_view path, int32_t mode) const {
    hx::OpenParameters parameters{};
    parameters.accessMode = mode;
    return io_->open(io_, path.data(), std::ssize(path), &parameters, 0, 0, "hxfio", nullptr, 0);
  }

  hx::FileIo* io() const { return io_; }

  hxhost::LinuxHost host;

 private:
  hx::FileIo* io_ =
      static_cast<hx::FileIo*>(host.handle()->loadExtension(host.handle(), U"hxfio", 5, 0));
};

// A host over that disk, which outlives it.
inline hxhost::HostOptions hostOver(SimulatedDisk& disk, int64_t cacheBytes = 65536) {
  return {cacheBytes, {&disk, [](hxhost::FileOps*) {}}};
}

// The disk after the updates before `step`.
inline DiskImage diskBefore(size_t step) {
  SimulatedDisk disk;
  for (size_t i = 0; i < step; ++i)
    CrashSession(hostOver(disk)).update(i);
  return disk.live();
}

// What the module finds on that disk; the opening may change it.
inline std::string lookAt(SimulatedDisk& disk, uint32_t flags = hx::kRead) {
  return CrashSession(hostOver(disk)).look(kCrashStore, flags);
}

inline std::string lookAt(const DiskImage& image) {
  SimulatedDisk disk(image);
  return lookAt(disk);
}

}  // namespace hxtest
