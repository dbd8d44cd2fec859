// Plain system calls, a file for each item.
#include <dirent.h>
#include <sys/stat.h>

#include <filesystem>

#include "bench/engines/engines.h"
#include "bench/engines/file_descriptor.h"

namespace bench {

namespace {

class FilesWriting : public Writing {
 public:
  FilesWriting(std::string path, Sync sync) : path_(std::move(path)), sync_(sync) {}

  void put(std::string_view name, Bytes bytes) override {
    FileDescriptor(inside(name), O_WRONLY | O_CREAT | O_EXCL).write(bytes);
  }
  // One wait for all files: an fsync for each would be the far slower way.
  void commit() override {
    if (sync_ == Sync::off) return;
    const FileDescriptor top(path_, O_RDONLY | O_DIRECTORY);
    require(::syncfs(top.number()) == 0, "syncfs failed");
  }

 private:
  std::string inside(std::string_view name) const {
    std::string path = path_;
    return path.append("/").append(name);
  }

  std::string path_;
  Sync sync_;
};

// Calls `see` with the name of each entry.
template <typename See>
void eachEntry(const std::string& path, const See& see) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path.c_str()), ::closedir);
  require(directory != nullptr, "opendir failed");
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string_view name(entry->d_name);
    if (name != "." && name != "..") see(name);
  }
}

class FilesReading : public Reading {
 public:
  explicit FilesReading(std::string path) : path_(std::move(path)) {}

  std::size_t get(std::string_view name, std::span<std::byte> out) override {
    std::string path = path_;
    return FileDescriptor(path.append("/").append(name), O_RDONLY).read(out);
  }
  Tally enumerate() override {
    Tally tally;
    eachEntry(path_, [&](std::string_view name) { tally.count(name); });
    return tally;
  }

 private:
  std::string path_;
};

class FilesSession : public Session {
 public:
  explicit FilesSession(Sync sync) : sync_(sync) {}

  std::unique_ptr<Writing> create(const std::string& path, Shape) override {
    require(::mkdir(path.c_str(), 0777) == 0, "mkdir failed");
    return std::make_unique<FilesWriting>(path, sync_);
  }
  std::unique_ptr<Reading> open(const std::string& path, Shape) override {
    return std::make_unique<FilesReading>(path);
  }

 private:
  Sync sync_;
};

class PlainFiles : public Engine {
 public:
  PlainFiles()
      : Engine({"plain-files", "cdef",
                "A file for each item in one directory. Sync on: syncfs at the end.", "plain-files",
                Threads::ownSession, 100000}) {}
  std::unique_ptr<Session> openSession(Sync sync) override {
    return std::make_unique<FilesSession>(sync);
  }
};

}  // namespace

EnginePtr makePlainFiles() {
  return std::make_unique<PlainFiles>();
}

}  // namespace bench
