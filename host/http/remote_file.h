// What libhxremote.so gives to whoever loads it: files that lie behind a URL, for reading, and a
// way to make objects.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "host/file_io.h"

namespace hxremote {

// Counts for several files.
struct TransferMeter {
  std::atomic<int64_t> requests{0};
  std::atomic<int64_t> bytes{0};
  std::atomic<int64_t> nanoseconds{0};
};

struct Options {
  bool usesCache = true;   // the folder of the user's cache; else bytes are kept with the file
  int64_t mostBytes = -1;  // received for one file; below zero: any number
  int64_t cacheBytes = int64_t{1} << 30;      // of the whole cache
  std::chrono::milliseconds patience{30000};  // with a server that sends nothing
  std::shared_ptr<TransferMeter> meter;       // null: none
  // Asked a few times a second while somebody waits, by whichever thread. False: nobody wants it.
  std::function<bool()> goesOn = [] { return true; };
};

// `error` is an errno that comes near it: ENOENT, EACCES, ETIMEDOUT, ESTALE for a file that was
// changed, EFBIG for more bytes than wanted, else EIO. No credentials stand in the reason.
struct Failure {
  int error = 0;
  std::string reason;
  int64_t offset = -1;  // -1 where none is meant
};

struct Transfers {
  int64_t requests = 0;
  int64_t bytes = 0;                 // received, without heads
  std::chrono::nanoseconds time{0};  // for which somebody waited
};

// A file as it was when it was opened: when the server's is another one since, reading fails. What
// was read once is kept on disk, at most as long as the cache has room. Safe for several threads.
class RemoteFile {
 public:
  virtual ~RemoteFile() = default;

  virtual int64_t length() const = 0;

  // The number of bytes delivered: fewer than asked for at the end of the file or before a failure,
  // which takeFailure tells.
  virtual int64_t read(int64_t offset, void* to, int64_t count) noexcept = 0;

  // What is read from `from` on, before `to`, will probably be read on up to there. Holds until
  // expectRuns.
  virtual void expectDirectory(int64_t from, int64_t to) = 0;

  // Where something begins that is read in one piece, up to the next of these places.
  virtual void expectRuns(std::vector<int64_t> starts) = 0;

  // A file service that opens this file for reading, whatever path it is asked for. Its `destroy`
  // does nothing; it and its handles are gone with this object.
  virtual hx::FileIo* files() = 0;

  // The last failure, which is forgotten with that.
  virtual std::optional<Failure> takeFailure() = 0;

  virtual Transfers transfers() const = 0;

  // The URL without what is nobody's business: user, password, query.
  virtual const std::string& shownUrl() const = 0;
};

// Null, with the reason in `failure`, when it can't be opened. Throws std::bad_alloc.
using OpenFunction = RemoteFile*(const std::string& url, const Options& options, Failure& failure);

struct SendOptions {
  bool replaces = false;                      // an object that is there already
  std::chrono::milliseconds patience{30000};  // with a server that nothing comes from or goes to
  // Told now and then how many bytes are sent. False: this is to end.
  std::function<bool(int64_t)> goesOn = [](int64_t) { return true; };
};

// Makes the bytes the object `url`, s3://bucket/key. False, with the reason in `failure`, when
// there is no such object now, or the one that was before: EEXIST, ECANCELED, or as for a file.
// Throws std::bad_alloc.
using SendFunction = bool(const std::string& url, std::span<const std::byte> bytes,
                          const SendOptions& options, Failure& failure);

// The names of the functions that the library exports.
inline constexpr char kOpenFunctionName[] = "hxremoteOpen";
inline constexpr char kSendFunctionName[] = "hxremoteSend";

}  // namespace hxremote
