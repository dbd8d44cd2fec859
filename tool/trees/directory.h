// Directories and files by descriptor, so that no link and no renaming leads astray.
#pragma once

#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace tool {

// Owns a file descriptor.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor();

  bool isOpen() const { return number_ >= 0; }
  int number() const { return number_; }
  // Leads to what is open, whatever its name is.
  std::string asPath() const { return "/proc/self/fd/" + std::to_string(number_); }
  // False, with errno set, when the system kept a write's failure until now.
  bool close();

 private:
  int number_ = -1;
};

// What a call of the system returns that no signal interrupted.
template <typename Call>
auto repeatInterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

// Bytes read, 0 at the end only; negative with errno set.
ssize_t readSome(const Descriptor& file, std::span<std::byte> buffer);
// False with errno set.
bool writeAll(const Descriptor& file, std::span<const std::byte> bytes);

// The same at a place in the file. Fewer bytes are read where the file ends or can't be read.
std::size_t readAt(const Descriptor& file, std::int64_t offset, std::span<std::byte> buffer);
bool writeAt(const Descriptor& file, std::int64_t offset, std::span<const std::byte> bytes);

// Puts a file's bytes, or a directory's names, on disk. False with errno set.
bool sync(const Descriptor& file);

// The entry `name` of an open directory; not open, with errno set, when it can't be. The kernel
// itself refuses a name that leads out of the directory or through a link.
Descriptor openBeneath(const Descriptor& directory, const std::string& name, int flags,
                       mode_t mode = 0);

// The status of an entry itself, of no link's target. Null with errno set.
std::optional<struct stat> inspect(const Descriptor& directory, const std::string& name);
// Where a link leads. Null with errno set.
std::optional<std::string> readLink(const Descriptor& directory, const std::string& name);
bool isSameFile(const struct stat& a, const struct stat& b);

// Whether a file in a directory can be called so.
bool isFileName(const std::string& name);

// The names in an open directory but "." and "..", sorted by their bytes. Null with errno set.
std::optional<std::vector<std::string>> listNames(const Descriptor& directory);

// The directory `path`, which may be reached through links. Throws a Failure.
Descriptor openDirectory(const std::string& path);

// Where a file is or is to be.
struct FilePlace {
  Descriptor directory;
  std::string name;
};

// Throws a Failure for a URL: nothing is made or written there.
void requireFilePath(const std::string& path);

// Of the file `path`, whatever it is. Throws a Failure when that can't be the path of a file, or
// its directory can't be opened.
FilePlace locateFile(const std::string& path);

// Gives `from` the name `to`, both in open directories. An existing `to` is replaced or else
// refused with EEXIST, in one step. False with errno set.
bool moveFile(const Descriptor& fromDirectory, const std::string& from,
              const Descriptor& toDirectory, const std::string& to, bool replace);

// A place in a tree of directories, entered and left one component at a time. Links are never
// followed, and one descriptor is open whatever the depth: the way up is "..", which has to be the
// directory that was left.
class DirectoryCursor {
 public:
  // At the directory `path`, which may be reached through links. Throws Failure.
  explicit DirectoryCursor(const std::string& path);

  const Descriptor& descriptor() const { return current_; }
  // Where an entry of the current directory lies, for messages.
  std::string pathTo(const std::string& name) const;
  std::string path() const { return path_.empty() ? "." : path_; }

  // False with errno set, and nothing changed, when that is no directory or can't be opened.
  bool enter(const std::string& name);
  // Throws Failure when the directory was moved meanwhile.
  void leave();

 private:
  struct Step {
    struct stat left;        // the directory that was left for this one
    std::size_t pathLength;  // of its path
  };

  Descriptor current_;
  std::string path_;  // empty for "."
  std::vector<Step> steps_;
};

}  // namespace tool
