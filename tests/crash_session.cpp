#include "tests/crash_session.h"

#include <numeric>
#include <set>

#include "tests/temporary_directory.h"

namespace hxtest {

CrashSession::CrashSession(const hxhost::HostOptions& options) : host(options) {
  hx::hxmodent(host.handle());
  module = hx::hxcrate();
}

hx::Store* CrashSession::open(std::u32string_view path, uint32_t flags, hx::Store* parent) {
  return module->openStore(module, parent, path.data(), static_cast<int32_t>(path.size()), flags,
                           &status);
}

hx::ItemHandle* CrashSession::openItem(hx::Store* store, std::u32string_view name, uint32_t flags) {
  return module->openItem(module, store, name.data(), static_cast<int32_t>(name.size()), flags,
                          &status);
}

void CrashSession::append(hx::Store* store, std::string_view path, const std::string& bytes) {
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

// Pages of 512 bytes, and items enough for a file of several blocks of the journal.
bool CrashSession::update(size_t step) {
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

std::string CrashSession::describe(hx::Store* store) {
  std::set<std::string> members;
  std::u32string last;
  char32_t name[64];
  int32_t length = 0;
  int32_t kind = 0;
  while (store->getNextMember(store, last.data(), static_cast<int32_t>(last.size()), name, &length,
                              &kind) == 0) {
    last.assign(name, static_cast<size_t>(length));
    const std::string narrow(last.begin(), last.end());
    members.insert(kind == hx::kStoreKind ? narrow + "{" + look(last, hx::kRead, store) + "}"
                                          : narrow + bytesIn(store, last));
  }
  return std::accumulate(members.begin(), members.end(), std::string());
}

std::string CrashSession::bytesIn(hx::Store* store, std::u32string_view name) {
  hx::ItemHandle* item = openItem(store, name, hx::kRead);
  if (item == nullptr) return "!";
  std::string bytes(static_cast<size_t>(item->item->size), '\0');
  const uint32_t got =
      bytes.empty() ? 0 : item->item->read(item, bytes.data(), item->item->size, nullptr, &status);
  item->item->close(item);
  return got == bytes.size() ? "=" + bytes + ";" : "!";
}

std::string CrashSession::look(std::u32string_view path, uint32_t flags, hx::Store* parent) {
  hx::Store* store = open(path, flags, parent);
  if (store == nullptr && status == hx::kNotFound) return "absent";
  const std::string text = status == 0 ? describe(store) : "status " + std::to_string(status);
  if (store != nullptr) close(store);
  return text;
}

hxhost::HostOptions hostOver(SimulatedDisk& disk, int64_t cacheBytes) {
  return {cacheBytes, {&disk, [](hxhost::FileOps*) {}}};
}

DiskImage diskBefore(size_t step) {
  SimulatedDisk disk;
  for (size_t i = 0; i < step; ++i)
    CrashSession(hostOver(disk)).update(i);
  return disk.live();
}

std::string lookAt(SimulatedDisk& disk, uint32_t flags) {
  return CrashSession(hostOver(disk)).look(kCrashStore, flags);
}

std::string lookAt(const DiskImage& image) {
  SimulatedDisk disk(image);
  return lookAt(disk);
}

}  // namespace hxtest
