// What unpacking must keep to, whatever the store file holds.
#pragma once

#include <cstdint>
#include <span>

namespace hxtest {

// Unpacks `image` as a store file into a fresh directory with links in it, and throws
// std::logic_error unless that ends with a documented exit code, within its quotas, and has touched
// nothing but that directory.
void expectContainedUnpack(std::span<const std::uint8_t> image);

}  // namespace hxtest
