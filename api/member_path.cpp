#include "member_path.h"

#include <algorithm>
#include <filesystem>
#include <vector>

#include "host/file_io.h"
#include "host/linux/path_codec.h"
#include "hxcrate/error.hpp"

namespace hxcrate {

namespace {

[[noreturn]] void refuse(const std::string& path, std::string_view why) {
  throw Error(Errc::badName, path, "", why);
}

std::string findNameFault(std::string_view name) {
  if (name.empty()) return "is empty";
  if (name.find('\0') != std::string_view::npos) return "holds a NUL byte";
  if (name.size() <= kNameCapacity) return "";
  return "has " + std::to_string(name.size()) + " bytes, at most " + std::to_string(kNameCapacity) +
         " fit";
}

std::string makeAbsolute(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path absolute = std::filesystem::absolute(path, failure);
  if (failure) throw Error(Errc::fileFailed, path, "", FileFailure{"open", path, -1, failure});
  return absolute.string();
}

}  // namespace

std::string findPathFault(std::string_view path) {
  const bool isSingle = path.find('/') == std::string_view::npos;
  for (int number = 1;; ++number) {
    const std::size_t end = std::min(path.find('/'), path.size());
    const std::string fault = findNameFault(path.substr(0, end));
    if (!fault.empty()) {
      return (isSingle ? "it " : "component " + std::to_string(number) + " ") + fault;
    }
    if (end == path.size()) return "";
    path.remove_prefix(end + 1);
  }
}

WideName::WideName(std::string_view name) noexcept
    : length_(static_cast<std::int32_t>(name.size())) {
  for (std::size_t i = 0; i < name.size(); ++i)
    characters_[i] = static_cast<unsigned char>(name[i]);
}

std::u32string widenName(std::string_view name) {
  std::u32string wide;
  wide.reserve(name.size());
  for (const char c : name)
    wide.push_back(static_cast<unsigned char>(c));
  return wide;
}

void narrowName(std::u32string_view name, std::string& bytes) {
  bytes.resize(name.size());
  for (std::size_t i = 0; i < name.size(); ++i)
    bytes[i] = static_cast<char>(name[i]);
}

std::string pathOf(const hx::Store& store) {
  std::vector<const hx::Store*> chain;
  for (const hx::Store* inner = &store; inner->parent != nullptr; inner = inner->parent)
    chain.push_back(inner);
  std::string path;
  std::string name;
  for (auto next = chain.rbegin(); next != chain.rend(); ++next) {
    narrowName(nameOf(**next), name);
    path.append(path.empty() ? "" : "/").append(name);
  }
  return path;
}

std::string pathOf(const hx::ItemMember& item) {
  std::string name;
  narrowName(nameOf(item), name);
  return join(pathOf(*item.parent), name);
}

std::string join(const std::string& place, std::string_view path) {
  return place.empty() ? std::string(path) : place + "/" + std::string(path);
}

std::u32string decodeFilePath(const std::string& path) {
  if (path.empty()) refuse(path, "the path is empty");
  if (const std::size_t nul = path.find('\0'); nul != std::string::npos) {
    refuse(path.substr(0, nul), "the path holds a NUL byte");
  }
  std::u32string decoded = hxhost::decodePath(makeAbsolute(path));
  if (decoded.size() > hx::HX_PATH_CAPACITY) {
    throw Error(Errc::nameTooLong, path, "", "the absolute path has over 1024 characters");
  }
  return decoded;
}

}  // namespace hxcrate
