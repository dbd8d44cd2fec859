#include "remote_files.h"

#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "file/format.h"
#include "host/linux/path_codec.h"
#include "hxcrate/inspect.hpp"
#include "module_library.h"
#include "records/status.h"

namespace hxcrate {

namespace {

using hxremote::RemoteFile;

FileFailure translate(const hxremote::Failure& failure, const char* operation,
                      const std::string& path) {
  FileFailure told{operation, path, failure.offset,
                   std::error_code(failure.error, std::system_category())};
  told.detail = failure.reason;
  return told;
}

[[noreturn]] void refuse(const std::string& url, const std::string& why) {
  throw Error(Errc::fileNotOpen, showPath(url), "", why);
}

void* loadLibrary(const std::string& url) {
  static std::mutex mutex;
  static void* library = nullptr;
  const std::lock_guard guard(mutex);
  if (library == nullptr) {
    library = dlopen(locateBesideSelf(HX_REMOTE_FILE).c_str(), RTLD_NOW | RTLD_LOCAL);
  }
  if (library != nullptr) return library;
  const char* reason = dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps one a thread
  refuse(url, "URLs are for " HX_REMOTE_FILE ", of the package hxcrate-remote: " +
                  std::string(reason != nullptr ? reason : "it can't be loaded"));
}

// For work on `url`.
template <typename Function>
Function* loadFunction(const char* name, const std::string& url) {
  void* symbol = dlsym(loadLibrary(url), name);
  if (symbol == nullptr) refuse(url, HX_REMOTE_FILE " is not the one of this version");
  return reinterpret_cast<Function*>(symbol);
}

std::int64_t native(std::int64_t field, bool isTurned) {
  const auto bits = static_cast<std::uint64_t>(field);
  return isTurned ? static_cast<std::int64_t>(__builtin_bswap64(bits)) : field;
}

template <typename Record>
bool readRecord(RemoteFile& file, std::int64_t offset, Record& record) {
  return file.read(offset, &record, sizeof(record)) == sizeof(record);
}

// With one record for each ENTRY, where that is not much, else with the first one.
std::int64_t endWithRecords(std::int64_t start, std::int64_t records) {
  const std::int64_t more = (records - start) / hx::kEntrySize * hx::kChunkSize;
  return records + (more <= (1 << 20) ? more : hx::kChunkSize);
}

// Behind the directory that begins at `start`: the first record of an item's page, where that lies
// behind the entries, else the file's end, where a writer puts the directory.
std::int64_t guessDirectoryEnd(RemoteFile& file, std::int64_t start, bool isTurned) {
  constexpr int kMostSteps = 256;
  constexpr std::int64_t kFront = 65536;  // which is here anyway
  std::int64_t link = -start;
  for (int i = 0; i < kMostSteps && !hx::endsChain(link); ++i) {
    const std::int64_t at = hx::targetOf(link);
    hx::Entry entry{};
    if (at > kFront || !readRecord(file, at, entry)) break;
    const std::int64_t first = native(entry.firstLink, isTurned);
    const std::int64_t next = native(entry.next, isTurned);
    // In a blob each lies behind its own item's entry.
    const std::int64_t nearest = at + (hx::endsChain(next) ? 1 : 2) * hx::kEntrySize;
    const bool isApart = first >= nearest && first < file.length();
    if (hx::leadsToItem(link)) return isApart ? endWithRecords(start, first) : file.length();
    link = hx::endsChain(first) ? next : first;
  }
  return file.length();
}

void expectDirectory(RemoteFile& file) {
  hx::Header header{};
  if (!readRecord(file, 0, header)) return;
  for (const bool isTurned : {false, true}) {
    const std::int64_t start = native(header.directoryOffset, isTurned);
    if (start < hx::kHeaderSize || start > file.length() - hx::kEntrySize) continue;
    return file.expectDirectory(start, guessDirectoryEnd(file, start, isTurned));
  }
}

struct OpenFile {
  std::shared_ptr<RemoteFile> file;
  std::shared_ptr<const void> use;  // shared by the stores of it that are open
};

// What was opened, by URL: so that all see one version of a file that has stores open.
class OpenFiles {
 public:
  void setOptions(const RemoteOptions& options) {
    const std::lock_guard guard(mutex_);
    options_ = options;
  }

  std::chrono::milliseconds patience() {
    const std::lock_guard guard(mutex_);
    return options_.patience;
  }

  std::shared_ptr<RemoteFile> share(const std::string& url) {
    const std::lock_guard guard(mutex_);
    return files_[url].file.lock();
  }

  // Only a file that somebody has a store of.
  OpenFile shareOpen(const std::string& url) {
    const std::lock_guard guard(mutex_);
    const Known& known = files_[url];
    OpenFile shared{known.file.lock(), known.use.lock()};
    return shared.use != nullptr ? shared : OpenFile{};
  }

  std::shared_ptr<RemoteFile> open(const std::string& url,
                                   std::shared_ptr<hxremote::TransferMeter> meter) {
    const auto open = loadFunction<hxremote::OpenFunction>(hxremote::kOpenFunctionName, url);
    hxremote::Failure failure;
    std::shared_ptr<RemoteFile> file(open(url, options(std::move(meter)), failure));
    if (file == nullptr) {
      const Errc code = failure.error == ENOENT ? Errc::notFound : Errc::fileNotOpen;
      throw Error(code, showPath(url), "", translate(failure, "open", showPath(url)));
    }
    expectDirectory(*file);
    const std::lock_guard guard(mutex_);
    std::erase_if(files_, [](const auto& entry) { return entry.second.file.expired(); });
    files_[url] = {file, {}};
    last_ = file;
    return file;
  }

  // Whoever keeps the result has a store of the file.
  std::shared_ptr<const void> use(const std::string& url) {
    const std::lock_guard guard(mutex_);
    auto use = std::make_shared<int>();
    files_[url].use = use;
    return use;
  }

 private:
  struct Known {
    std::weak_ptr<RemoteFile> file;
    std::weak_ptr<const void> use;
  };

  hxremote::Options options(std::shared_ptr<hxremote::TransferMeter> meter) {
    const std::lock_guard guard(mutex_);
    return {options_.useCache, options_.maxBytes, options_.cacheBytes,
            options_.patience, std::move(meter),  options_.goesOn};
  }

  std::mutex mutex_;
  RemoteOptions options_;
  std::unordered_map<std::string, Known> files_;
  std::shared_ptr<RemoteFile> last_;  // stays: it is often looked at once more
};

OpenFiles& openFiles() {
  static OpenFiles files;
  return files;
}

// Where the records of each item's pages begin.
std::vector<std::int64_t> findRecords(const hx::Store* root) {
  std::vector<std::int64_t> records;
  std::vector<const hx::Store*> stores{root};
  while (!stores.empty()) {
    const hx::Store* store = stores.back();
    stores.pop_back();
    for (const hx::Member* member : store->members.buckets) {
      for (; member != nullptr; member = member->next) {
        if (member->kind == hx::kStoreKind) {
          stores.push_back(reinterpret_cast<const hx::Store*>(member));
        } else {
          const auto* item = reinterpret_cast<const hx::ItemMember*>(member);
          records.push_back(static_cast<std::int64_t>(item->firstChunkOffset));
        }
      }
    }
  }
  std::ranges::sort(records);
  return records;
}

// Where the pages of each item begin, which are mostly read on to the next such place. They lie
// behind their records but in a file for reading, where all records lie behind the directory and
// the n-th record's page is the n-th.
std::vector<std::int64_t> findRuns(RemoteFile& file, const hx::Store* root) {
  std::vector<std::int64_t> runs = findRecords(root);
  const std::size_t items = runs.size();
  hx::DataChunk first{};
  const bool isForReading = items > 0 && runs.front() >= root->directoryEnd;
  if (isForReading && readRecord(file, runs.front(), first)) {
    const bool isTurned =
        !std::ranges::equal(root->encodingId.bytes, root->extension->encodingId.bytes);
    const std::int64_t pages = native(first.dataOffset, isTurned);
    for (std::size_t i = 0; i < items && pages > runs[items - 1]; ++i) {
      const std::int64_t page = (runs[i] - runs[0]) / hx::kChunkSize;
      if (page > (file.length() - pages) / root->pageSize) break;
      runs.push_back(pages + page * root->pageSize);
    }
  }
  runs.push_back(root->directoryOffset);
  return runs;
}

std::u32string nameOf(const RemoteFile& file) {
  const std::u32string name = hxhost::decodePath(file.shownUrl());
  return name.size() <= hx::HX_PATH_CAPACITY ? name : U"remote";
}

}  // namespace

void setRemoteOptions(const RemoteOptions& options) {
  openFiles().setOptions(options);
}

void sendObject(const std::string& url, std::span<const std::byte> bytes,
                const SendOptions& options) {
  const auto send = loadFunction<hxremote::SendFunction>(hxremote::kSendFunctionName, url);
  std::exception_ptr thrown;
  const auto goesOn = [&](std::int64_t sent) noexcept {
    try {
      if (options.onProgress) options.onProgress(sent);
    } catch (...) {
      thrown = std::current_exception();
    }
    return thrown == nullptr;
  };
  hxremote::Failure failure;
  const bool isSent = send(url, bytes, {options.replace, openFiles().patience(), goesOn}, failure);
  if (thrown) std::rethrow_exception(thrown);
  if (isSent) return;
  const std::string shown = showPath(url);
  if (failure.error == EEXIST) throw Error(Errc::exists, shown, "", failure.reason);
  if (failure.error == EROFS || failure.error == EINVAL) refuse(url, failure.reason);
  throw Error(Errc::fileFailed, shown, "", translate(failure, "send", shown));
}

bool isUrl(const std::string& path) {
  return path.starts_with("http://") || path.starts_with("https://") || path.starts_with("s3://");
}

std::string showPath(const std::string& path) {
  if (!isUrl(path)) return path;
  std::string shown = path.substr(0, path.find_first_of("?#"));
  const std::size_t host = shown.find("://") + 3;
  const std::size_t at = shown.substr(0, shown.find('/', host)).rfind('@');
  if (at != std::string::npos) shown.erase(host, at + 1 - host);
  return shown;
}

std::optional<FileFailure> takeFailureOf(RemoteFile& file) {
  const std::optional<hxremote::Failure> failure = file.takeFailure();
  return failure ? std::optional(translate(*failure, "read", file.shownUrl())) : std::nullopt;
}

std::shared_ptr<RemoteFile> openRemoteFile(const std::string& url) {
  std::shared_ptr<RemoteFile> file = openFiles().share(url);
  return file != nullptr ? file : openFiles().open(url, nullptr);
}

std::shared_ptr<Opening> openRemote(const std::shared_ptr<Engine>& session, const std::string& url,
                                    Mode mode) {
  if (mode != Mode::read) refuse(url, "what lies behind a URL is only read");
  auto [file, use] = openFiles().shareOpen(url);
  if (file == nullptr) {
    file = openFiles().open(url, session->transferMeter());
    use = openFiles().use(url);
  }
  const auto engine = std::make_shared<Engine>(session->options(), file);
  auto opening = std::make_shared<Opening>(engine, file->shownUrl(), false, std::move(use));
  const std::u32string name = nameOf(*file);
  std::int32_t status = hx::kOk;
  hx::ExtensionInstance* module = engine->module();
  OpenedRoot root(module->openStore(module, nullptr, name.data(),
                                    static_cast<std::int32_t>(name.size()), hx::kRead, &status));
  // What did not come is no damage.
  if (const auto failure = takeFailureOf(*file)) {
    throw Error(Errc::fileNotOpen, file->shownUrl(), "", *failure);
  }
  if (root == nullptr) {
    const auto code = static_cast<Errc>(status);
    const bool isNone = code == Errc::notFound || code == Errc::damaged;
    throw Error(isNone ? Errc::notAStore : code, file->shownUrl(), "");
  }
  file->expectRuns(findRuns(*file, root.get()));
  opening->take(std::move(root));
  return opening;
}

}  // namespace hxcrate
