#include "hxcrate/leftovers.hpp"

#include "host/linux/unfinished_file.h"

namespace hxcrate {

std::string makeUnfinishedName() {
  return hxhost::makeUnfinishedName();
}

bool lockUnfinished(int file) noexcept {
  return hxhost::lockUnfinished(file);
}

void removeLeftovers(int directory) noexcept {
  hxhost::removeLeftovers(directory);
}

}  // namespace hxcrate
