#include "member_path.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "host/file_io.h"
#include "host/linux/path_codec.h"
#include "hxcrate/error.hpp"

namespace hxcrate {

namespace {

[[noreturn]] void refuse(const std::string& store, std::string_view path, std::string_view why) {
  throw Error(Errc::badName, store, std::string(path), why);
}

void checkName(const std::string& store, std::string_view path, std::string_view name) {
  if (name.empty()) refuse(store, path, "a component is empty");
  if (name.find('\0') != std::string_view::npos) refuse(store, path, "it holds a NUL byte");
  if (name.size() <= kNameCapacity) return;
  const std::string bytes = std::to_string(name.size());
  refuse(store, path, "a component has " + bytes + " bytes, at most 64 fit");
}

std::string makeAbsolute(const std::string& path) {
  std::error_code failure;
  const std::filesystem::path absolute = std::filesystem::absolute(path, failure);
  if (failure) throw Error(Errc::fileFailed, path, "", FileFailure{"open", path, -1, failure});
  return absolute.string();
}

}  // namespace

std::vector<std::string_view> splitMemberPath(const std::string& store, std::string_view path) {
  std::vector<std::string_view> names;
  std::size_t start = 0;
  while (true) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    names.push_back(path.substr(start, end - start));
    checkName(store, path, names.back());
    if (end == path.size()) return names;
    start = end + 1;
  }
}

std::u32string widenName(std::string_view name) {
  std::u32string wide;
  wide.reserve(name.size());
  for (const char c : name)
    wide.push_back(static_cast<unsigned char>(c));
  return wide;
}

std::string narrowName(const std::string& store, std::u32string_view name) {
  std::string bytes;
  bytes.reserve(name.size());
  for (const char32_t character : name) {
    if (character > 0xff) throw Error(Errc::damaged, store, bytes, "a name is not made of bytes");
    bytes.push_back(static_cast<char>(character));
  }
  return bytes;
}

std::u32string decodeFilePath(const std::string& path) {
  if (path.empty()) refuse(path, "", "the path is empty");
  if (const std::size_t nul = path.find('\0'); nul != std::string::npos) {
    refuse(path.substr(0, nul), "", "the path holds a NUL byte");
  }
  std::optional<std::u32string> decoded = hxhost::decodePath(makeAbsolute(path));
  if (!decoded) refuse(path, "", "the path is not UTF-8");
  if (decoded->size() > hx::HX_PATH_CAPACITY) {
    refuse(path, "", "the absolute path has over 1024 characters");
  }
  return *std::move(decoded);
}

}  // namespace hxcrate
