// A directory that goes with the test, and what tests do with the files in it.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>

namespace hxtest {

class TemporaryDirectory {
 public:
  // In the directory `wanted`, if that is there.
  explicit TemporaryDirectory(const std::filesystem::path& wanted = "") {
    namespace fs = std::filesystem;
    const fs::path where = fs::is_directory(wanted) ? wanted : fs::temp_directory_path();
    std::string name = (where / "hxtest-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = std::filesystem::canonical(name);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  std::string operator/(const std::string& name) const { return (path_ / name).string(); }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

// Everything below a directory by its path: a file's bytes, "/" for a directory, "->" and where it
// leads for a link. Nothing when there is no such directory.
inline std::map<std::string, std::string> readTree(const std::filesystem::path& root) {
  std::map<std::string, std::string> tree;
  std::error_code absent;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root, absent)) {
    std::string& bytes = tree[std::filesystem::relative(entry.path(), root).string()];
    bytes = entry.is_symlink()     ? "->" + std::filesystem::read_symlink(entry.path()).string()
            : entry.is_directory() ? "/"
                                   : readFile(entry.path());
  }
  return tree;
}

// `length` bytes without a short period, the same for the same `seed`.
inline std::string makeBytes(std::size_t length, unsigned seed = 1) {
  std::string bytes(length, '\0');
  unsigned state = seed * 2654435761u + 1;
  for (char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace hxtest
