#include "host/http/web_cache.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/http/block_spool.h"

namespace hxremote {
namespace {

constexpr char kFirstLine[] = "hxcrate cache 1";
constexpr size_t kNameLength = 32;
constexpr int64_t kSecond = 1'000'000'000;

std::string fromEnvironment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody here sets any
  return value != nullptr ? value : "";
}

// Only absolute paths count.
std::string parentFolder() {
  std::string cache = fromEnvironment("XDG_CACHE_HOME");
  if (cache.starts_with("/")) return cache;
  const std::string home = fromEnvironment("HOME");
  return home.starts_with("/") ? home + "/.cache" : "";
}

bool isPrivate(int file, mode_t kind) {
  struct stat status {};
  if (::fstat(file, &status) != 0) return false;
  return (status.st_mode & S_IFMT) == kind && status.st_uid == ::geteuid() &&
         (status.st_mode & 077) == 0;
}

int openFolder() {
  const std::string parent = parentFolder();
  if (parent.empty()) return -1;
  ::mkdir(parent.c_str(), 0700);
  const std::string path = parent + "/hxcrate";
  ::mkdir(path.c_str(), 0700);
  const int folder = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (folder < 0 || isPrivate(folder, S_IFDIR)) return folder;
  ::close(folder);
  return -1;
}

uint64_t hash(std::string_view text, uint64_t seed) {
  uint64_t value = 0xcbf29ce484222325 ^ seed;
  for (const char c : text)
    value = (value ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return value;
}

// The parts of a query that are a signature, another each time, make no other file.
std::string withoutSignature(const std::string& url) {
  const size_t question = url.find('?');
  if (question == std::string::npos || url.find("X-Amz-Signature=") == std::string::npos)
    return url;
  std::string kept = url.substr(0, question);
  for (size_t at = question + 1; at < url.size();) {
    const size_t end = std::min(url.find('&', at), url.size());
    const std::string part = url.substr(at, end - at);
    if (!part.starts_with("X-Amz-")) kept += "&" + part;
    at = end + 1;
  }
  return kept;
}

// Two URLs may get one name: then one's file takes the place of the other's, unless they differ in
// nothing but user, password or query.
std::string nameOf(const WebAddress& address) {
  const std::string key =
      address.user + "\n" + address.password + "\n" + withoutSignature(address.url);
  std::string name(kNameLength, '0');
  constexpr std::string_view kDigits = "0123456789abcdef";
  for (size_t i = 0; i < kNameLength; ++i) {
    const uint64_t half = hash(key, i < kNameLength / 2 ? 0 : 0x5bd1e995);
    name[i] = kDigits[half >> (i % 16 * 4) & 15];
  }
  return name;
}

bool isName(std::string_view name) {
  return name.size() == kNameLength &&
         name.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::string frontOf(const WebAddress& address, const Identity& identity) {
  return std::string(kFirstLine) + "\n" + address.shown + "\n" + identity.etag + "\n" +
         identity.modified + "\n" + std::to_string(identity.length) + "\n";
}

std::optional<Identity> parseFront(std::string_view front, const WebAddress& address) {
  std::array<std::string, 5> lines;
  for (std::string& line : lines) {
    const size_t end = front.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    line = front.substr(0, end);
    front.remove_prefix(end + 1);
  }
  if (lines[0] != kFirstLine || lines[1] != address.shown) return std::nullopt;
  Identity identity{lines[2], lines[3], -1};
  std::from_chars(lines[4].data(), lines[4].data() + lines[4].size(), identity.length);
  if (identity.length < 0 || !identity.isTold()) return std::nullopt;
  return identity;
}

std::optional<Identity> readFront(int file, const WebAddress& address) {
  std::string front(BlockSpool::kFrontSize, '\0');
  const ssize_t count = ::pread(file, front.data(), front.size(), 0);
  return count > 0 ? parseFront({front.data(), static_cast<size_t>(count)}, address) : std::nullopt;
}

}  // namespace

WebCache::WebCache(int64_t mostBytes) : mostBytes_(mostBytes), folder_(openFolder()) {}

WebCache::~WebCache() {
  if (folder_ >= 0) ::close(folder_);
}

std::optional<CachedFile> WebCache::find(const WebAddress& address) const {
  if (!isOpen()) return std::nullopt;
  const int flags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const int file = ::openat(folder_, nameOf(address).c_str(), flags);
  if (file < 0) return std::nullopt;
  const auto identity = isPrivate(file, S_IFREG) ? readFront(file, address) : std::nullopt;
  if (identity) {
    ::futimens(file, nullptr);  // the longest unused goes first
    return CachedFile{file, *identity};
  }
  ::close(file);
  return std::nullopt;
}

// It gets its name when it is told whose it is: whoever finds it finds that.
int WebCache::make(const WebAddress& address, const Identity& identity) const {
  const std::string front = frontOf(address, identity);
  if (!isOpen() || front.size() > static_cast<size_t>(BlockSpool::kFrontSize)) return -1;
  removeOldest();
  const std::string name = nameOf(address);
  const std::string first = name + "." + std::to_string(::getpid());
  ::unlinkat(folder_, first.c_str(), 0);
  const int file = ::openat(folder_, first.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) return -1;
  const bool isTold =
      ::pwrite(file, front.data(), front.size(), 0) == static_cast<ssize_t>(front.size());
  if (isTold && ::renameat(folder_, first.c_str(), folder_, name.c_str()) == 0) return file;
  ::unlinkat(folder_, first.c_str(), 0);
  ::close(file);
  return -1;
}

// Whoever has one open goes on with it. What a process that died left half made goes as well.
void WebCache::removeOldest() const {
  struct Kept {
    std::string name;
    int64_t lastUse;
    int64_t bytes;
  };
  std::vector<Kept> files;
  if (!isOpen()) return;
  const int copy = ::openat(folder_, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR* folder = copy >= 0 ? ::fdopendir(copy) : nullptr;
  if (folder == nullptr) return;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody else has this one
  while (const dirent* entry = ::readdir(folder)) {
    struct stat status {};
    if (!isName(std::string_view(entry->d_name).substr(0, kNameLength))) continue;
    if (::fstatat(folder_, entry->d_name, &status, AT_SYMLINK_NOFOLLOW) != 0) continue;
    files.push_back({entry->d_name, status.st_mtim.tv_sec * kSecond + status.st_mtim.tv_nsec,
                     status.st_blocks * 512});
  }
  ::closedir(folder);
  std::ranges::sort(files, std::greater{}, &Kept::lastUse);
  int64_t sum = 0;
  for (const Kept& file : files) {
    sum += file.bytes;
    if (sum > mostBytes_) ::unlinkat(folder_, file.name.c_str(), 0);
  }
}

int makeNamelessFile() {
  for (const std::string& folder : {fromEnvironment("TMPDIR"), std::string("/var/tmp")}) {
    if (!folder.starts_with("/")) continue;
    const int file = ::open(folder.c_str(), O_RDWR | O_TMPFILE | O_CLOEXEC, 0600);
    if (file >= 0) return file;
  }
  return ::memfd_create("hxcrate", MFD_CLOEXEC);
}

}  // namespace hxremote
