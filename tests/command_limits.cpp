// Every command on damaged stores, with limits on what it takes.
#include <sys/resource.h>
#include <sys/stat.h>

#include <ctime>
#include <hxcrate/crate.hpp>

#include "host/linux/journal_format.h"
#include "tests/fuzzed.h"
#include "tests/module_image.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

using hx::fake::Bytes;

constexpr double kSeconds = HX_SANITIZED ? 10 : 2;  // of the processor's time, for a command
constexpr rlim_t kMemory = 64 << 20;                // bytes that a command may add to the process's
constexpr std::uintmax_t kWritten = 4 << 20;        // bytes in files, of all commands
constexpr std::size_t kMostFields = 60;

// What bytes choose, one after the other; 0 when there are no more.
class Choices {
 public:
  explicit Choices(std::span<const std::uint8_t> bytes) : bytes_(bytes) {}

  bool isOver() const { return bytes_.empty(); }
  std::size_t next() {
    if (bytes_.empty()) return 0;
    const std::size_t first = bytes_.front();
    bytes_ = bytes_.subspan(1);
    return first;
  }
  template <typename T, std::size_t N>
  const T& among(const T (&values)[N]) {
    return values[next() % N];
  }

 private:
  std::span<const std::uint8_t> bytes_;
};

// Up to 15 members, in stores down to any level.
Bytes makeSoundImage(Choices& choices) {
  constexpr std::int32_t kPageSizes[] = {16, 4096, 100, 1};
  constexpr const char* kNames[] = {"a", "..", "x.st", "]]>", "\x01\xff", "-journal", "lost+found"};
  const std::int32_t pageSize = choices.among(kPageSizes);
  hxcrate::Session session;
  hxcrate::Store top = session.createInMemory("x.st", pageSize);
  std::vector<hxcrate::Store> stores;
  for (std::size_t left = choices.next() % 16; left > 0; --left) {
    hxcrate::Store& store = stores.empty() ? top : stores.back();
    const std::size_t what = choices.next();
    const std::string name = choices.among(kNames) + std::string(left % 2, '~') +
                             (what >= 128 ? std::string(left, '.') : std::to_string(left));
    if (what % 4 == 0) {
      stores.push_back(store.createStore(name));
    } else if (what % 4 == 1 && !stores.empty()) {
      stores.pop_back();
    } else {
      store.create(name).write(makeBytes(choices.next() * static_cast<std::size_t>(pageSize) / 64));
    }
  }
  stores.clear();
  const hxcrate::Blob blob = top.makeBlob();
  const auto* begin = reinterpret_cast<const std::uint8_t*>(blob.bytes().data());
  return {begin, begin + blob.bytes().size()};
}

void damage(Bytes& image, Choices& choices) {
  const std::vector<hx::fake::StoredRecord> records = hx::fake::recordsOf(image);
  for (std::size_t i = 0; i < kMostFields && !choices.isOver(); ++i) {
    const std::size_t record = choices.next(), field = choices.next();
    damageField(image, records, record, field, choices.next());
  }
}

// Beside the file `path`, which it belongs to, and sound but for what is chosen.
std::string makeJournal(const std::string& path, std::size_t length, Choices& choices) {
  constexpr std::int64_t kLengths[] = {0, 1, 40, 4096, -1, INT64_MAX, INT64_MIN, INT64_MAX - 4095};
  struct stat status {};
  ::stat(path.c_str(), &status);
  hxhost::JournalHeader header{};
  header.magic = hxhost::kJournalMagic;
  header.version = hxhost::kJournalVersion;
  header.flags = static_cast<std::uint32_t>(choices.next() % 3);
  header.fileLength = static_cast<std::int64_t>(length);
  if (choices.next() % 2 == 1) header.fileLength = choices.among(kLengths);
  header.inode = choices.next() % 8 == 7 ? 1 : status.st_ino;
  header.checksum = checksumOf(header) + choices.next() / 255;
  std::string journal(reinterpret_cast<const char*>(&header), sizeof(header));
  for (std::size_t left = choices.next() % 4; left > 0; --left) {
    const std::string block = makeBytes(hxhost::kJournalBlockBytes);
    hxhost::JournalRecord record{choices.among(kLengths), hxhost::kJournalBlockBytes, 0};
    if (choices.next() % 2 == 1) record.length = choices.among(kLengths);
    if (record.length == hxhost::kJournalBlockBytes)
      record.checksum = checksumOf(record, block.data(), header.salt);
    journal.append(reinterpret_cast<const char*>(&record), sizeof(record)) += block;
  }
  return journal;
}

// Lets the process have so much more memory than it has. Sanitizers need more, and watch it
// themselves.
class MemoryLimit {
 public:
  MemoryLimit() {
    ::getrlimit(RLIMIT_DATA, &former_);
    std::ifstream pages("/proc/self/statm");
    rlim_t data = 0;
    for (int field = 0; field < 6; ++field)
      pages >> data;
    rlimit limited = former_;
    limited.rlim_cur = data * static_cast<rlim_t>(::getpagesize()) + kMemory;
    if (!HX_SANITIZED) ::setrlimit(RLIMIT_DATA, &limited);
  }
  ~MemoryLimit() { ::setrlimit(RLIMIT_DATA, &former_); }
  MemoryLimit(const MemoryLimit&) = delete;
  MemoryLimit& operator=(const MemoryLimit&) = delete;

 private:
  rlimit former_{};
};

int runBounded(const std::vector<std::string>& words) {
  const std::clock_t start = std::clock();
  const int code = [&] {
    const MemoryLimit limit;
    return runSilently(words);
  }();
  const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  // 2 is wrong usage, and nothing of the system's is missing here but memory: 3.
  if (code >= 0 && code <= 5 && code != 2 && code != 3 && seconds <= kSeconds) return code;
  throw std::logic_error(words[1] + ": exit code " + std::to_string(code) + " after " +
                         std::to_string(seconds) + " s");
}

std::uintmax_t bytesBelow(const std::filesystem::path& directory) {
  std::uintmax_t sum = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
    sum += entry.is_regular_file() && !entry.is_symlink() ? entry.file_size() : 0;
  return sum;
}

}  // namespace

void expectBoundedCommands(std::span<const std::uint8_t> bytes) {
  Choices choices(bytes);
  const bool hasJournal = choices.next() % 4 == 1;
  Bytes image = makeSoundImage(choices);
  const TemporaryDirectory directory("/dev/shm");
  const std::string sound = directory / "sound.st", store = directory / "x.st";
  writeFile(sound, {image.begin(), image.end()});
  writeFile(store, {});
  const std::string journal = hasJournal ? makeJournal(store, image.size(), choices) : "";
  damage(image, choices);
  std::ofstream(store, std::ios::binary) << std::string(image.begin(), image.end());
  if (hasJournal) writeFile(store + "-journal", journal);
  std::map<std::string, int> codes;  // what each ended with first
  for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
           {"check", store},
           {"check", "--quick", "--json", store},
           {"stat", store},
           {"map", store},
           {"map", "--json", store},
           {"map", "--svg", directory / "map.svg", store},
           {"salvage", store, directory / "saved.st"},
           {"ls", "-lR", store},
           {"ls", "--json", store},
           {"tree", store},
           {"cat", store, "a15", "..~14/a13"},
           {"sum", store},
           {"sum", "--check", store},
           {"export", store, directory / "x.tar"},
           {"diff", store, sound},
           {"unpack", store, directory / "out"},
           {"copy", store, directory / "copy.st"},
           {"copy", "--encoding", "hxmok1/be/utf-8", store, directory / "turned.st"},
           {"put", "-p", "--append", store, "a15/new", sound},
           {"put", "--append", store, "..~14", sound},
           {"mkstore", store, "made"},
           {"check", store}}) {
    std::vector<std::string> all = {"hxcrate"};
    all.insert(all.end(), words.begin(), words.end());
    codes.emplace(words[0], runBounded(all));
  }
  for (const char* other : {"salvage", "copy", "ls"}) {
    const bool isTrue = codes["check"] != 0 || codes[other] == 0;
    if (!isTrue) throw std::logic_error(std::string("check passes what fails ") + other);
  }
  const std::uintmax_t written = bytesBelow(directory.path());
  if (written > kWritten) throw std::logic_error(std::to_string(written) + " bytes were written");
}

}  // namespace hxtest
