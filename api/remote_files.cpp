#include "remote_files.h"

#include <dlfcn.h>

#include <algorithm>
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

hxremote::OpenFunction* loadOpenFunction(const std::string& url) {
  static std::mutex mutex;
  static hxremote::OpenFunction* function = nullptr;
  const std::lock_guard guard(mutex);
  if (function != nullptr) return function;
  void* library = dlopen(locateBesideSelf(HX_REMOTE_FILE).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* reason = dlerror();  // NOLINT(concurrency-mt-unsafe): glibc keeps one a thread
    refuse(url, "URLs are read by " HX_REMOTE_FILE ", of the package hxcrate-remote: " +
                    std::string(reason != nullptr ? reason : "it can't be loaded"));
  }
  void* symbol = dlsym(library, hxremote::kOpenFunctionName);
  if (symbol == nullptr) refuse(url, HX_REMOTE_FILE " is not the one of this version");
  function = reinterpret_cast<hxremote::OpenFunction*>(symbol);
  return function;
}

// Where the top-level store's ENTRY lies, in either byte order; -1 when that is nowhere.
std::int64_t findDirectory(RemoteFile& file) {
  hx::Header header{};
  if (file.read(0, &header, hx::kHeaderSize) != hx::kHeaderSize) return -1;
  const auto turned = static_cast<std::int64_t>(
      __builtin_bswap64(static_cast<std::uint64_t>(header.directoryOffset)));
  for (const std::int64_t offset : {header.directoryOffset, turned}) {
    if (offset >= hx::kHeaderSize && offset <= file.length() - hx::kEntrySize) return offset;
  }
  return -1;
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
    hxremote::OpenFunction* function = loadOpenFunction(url);
    hxremote::Failure failure;
    std::shared_ptr<RemoteFile> file(function(url, options(std::move(meter)), failure));
    if (file == nullptr) {
      const Errc code = failure.error == ENOENT ? Errc::notFound : Errc::fileNotOpen;
      throw Error(code, showPath(url), "", translate(failure, "open", showPath(url)));
    }
    if (const std::int64_t directory = findDirectory(*file); directory >= 0) {
      file->expectTail(directory);
    }
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
    return {options_.useCache, options_.maxBytes, options_.cacheBytes, options_.patience,
            std::move(meter)};
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

// Where the pages of each item begin, which are mostly read on to the next such place.
std::vector<std::int64_t> findRuns(const hx::Store* root) {
  std::vector<std::int64_t> runs{root->directoryOffset};
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
          runs.push_back(static_cast<std::int64_t>(item->firstChunkOffset));
        }
      }
    }
  }
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
    throw Error(code == Errc::notFound ? Errc::notAStore : code, file->shownUrl(), "");
  }
  file->expectRuns(findRuns(root.get()));
  opening->take(std::move(root));
  return opening;
}

}  // namespace hxcrate
