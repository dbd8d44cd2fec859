#include "planted_journal.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "store_walk.h"
#include "tool/report/report.h"

namespace tool {

namespace {

constexpr std::string_view kSuffix = "-journal";
constexpr std::string_view kIdentity = "hxmok1/";  // what the encodings of all stores begin with

using Beginning = std::array<std::byte, kIdentity.size()>;

bool isStore(const Beginning& bytes) {
  return std::ranges::equal(bytes, std::as_bytes(std::span(kIdentity)));
}

bool isStoreOnDisk(const Descriptor& directory, const std::string& name) {
  Beginning bytes{};
  const auto status = inspect(directory, name);
  if (!status || !S_ISREG(status->st_mode)) return false;
  const Descriptor file = openBeneath(directory, name, O_RDONLY | O_NONBLOCK);
  return file.isOpen() && readAt(file, 0, bytes) == bytes.size() && isStore(bytes);
}

bool isStoreInItem(const hxcrate::Store& container, const std::string& name) {
  Beginning bytes{};
  auto item = openIfThere([&] { return container.read(name); });
  return item && item->read(bytes) == bytes.size() && isStore(bytes);
}

// The store whose journal `name` would be; empty: none's.
std::string storeOfJournal(const std::string& name) {
  return name.ends_with(kSuffix) ? name.substr(0, name.size() - kSuffix.size()) : "";
}

}  // namespace

bool isPlantedJournal(const hxcrate::Store& container, const std::string& name,
                      const Descriptor& directory) {
  const std::string store = storeOfJournal(name);
  return !store.empty() && (isStoreOnDisk(directory, store) || isStoreInItem(container, store));
}

void refuseJournalName(const Descriptor& directory, const std::string& name,
                       const std::string& path) {
  const std::string store = storeOfJournal(name);
  if (store.empty() || !isStoreOnDisk(directory, store)) return;
  throw Failure(ExitCode::notOpenable, path, "",
                "would be taken for the journal of the store " + store + " beside it");
}

}  // namespace tool
