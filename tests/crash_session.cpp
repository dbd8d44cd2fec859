#include "tests/crash_session.h"

#include <algorithm>
#include <numeric>
#include <set>

namespace hxtest {

CrashSession::CrashSession(const hxhost::HostOptions& options) : host(options) {
  hx::hxmodent(host.handle());
  module = hx::hxcrate();
}

hx::Store* CrashSession::open(std::u32string_view path, uint32_t flags, hx::Store* parent) {
  return module->openStore(module, parent, path.data(), static_cast<int32_t>(path.size()), flags,
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
  const auto length = static_cast<int32_t>(name.size());
  hx::ItemHandle* item = module->openItem(module, store, name.data(), length, kFlags, &status);
  if (item == nullptr) return;
  item->item->write(item, bytes.data(), static_cast<int32_t>(bytes.size()), &status);
  item->item->close(item);
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
  hx::ItemHandle* item = module->openItem(module, store, name.data(),
                                          static_cast<int32_t>(name.size()), hx::kRead, &status);
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

}  // namespace hxtest
