#include "planted_journal.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "store_walk.h"

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

}  // namespace

bool isPlantedJournal(const hxcrate::Store& container, const std::string& name,
                      const Descriptor& directory) {
  if (!name.ends_with(kSuffix) || name.size() == kSuffix.size()) return false;
  const std::string store = name.substr(0, name.size() - kSuffix.size());
  return isStoreOnDisk(directory, store) || isStoreInItem(container, store);
}

}  // namespace tool
