// A session: one instance of the item store together with the host that serves it.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "hxcrate/blob.hpp"
#include "hxcrate/error.hpp"
#include "hxcrate/file_path.hpp"
#include "hxcrate/remote.hpp"
#include "hxcrate/rewrite.hpp"
#include "hxcrate/store.hpp"

namespace hxcrate {

class Engine;

// What the update of a store file is safe against. Whatever fails, the next open finds the store as
// it was before the update or as it was after.
enum class Durability {
  full,  // the death of the process and of the machine; a close waits for the disk
  none,  // the death of the process alone
};

// Bytes of a page of new stores, unless told otherwise. With it 100,000 items of 100 bytes take a
// quarter of the room that they take with 4096, and three fifths of the time; an item of 256 MiB
// takes a seventh longer to write and two thirds longer to read. For items of that kind name 65536
// or more.
constexpr std::int32_t kNewPageSize = 1024;

struct SessionOptions {
  Durability durability = Durability::full;
  // How long opening waits for a file that somebody else has open, in this session too; below zero:
  // for ever. Who waits to update comes before readers that ask later.
  std::chrono::milliseconds lockWait{0};
  // Bytes of a page, for new stores whose own options name none; 0: kNewPageSize.
  std::int32_t pageSize = 0;
  // Memory for the blocks of each open file, 256 bytes to 64 MiB; what lies outside is taken for
  // the nearer of them. More of it means fewer and larger transfers.
  std::int64_t cacheBytesPerFile = std::int64_t{2} << 20;
  // So many closed store files are kept in memory, each for as long as nobody changes the file, so
  // that the next open need not read it; the longest unused goes first.
  std::size_t cachedStores = 16;
  // Told of what a destructor could not throw. May be called by any thread that drops the last
  // opening of a store; what it throws is dropped.
  std::function<void(const Error&)> onUnreportedError = {};
};

enum class Mode {
  read,          // an existing store file, for reading
  update,        // an existing one, for writing as well
  openOrCreate,  // an existing one, or a new one where there is no file or an empty one
  create,        // a new one; throws exists when there is a file of any kind
  replace,       // a new one; an existing file is removed first and is gone whatever follows
};

struct OpenOptions {
  std::int32_t pageSize = 0;   // bytes, for a store that is made now; 0: the session's
  bool acceptDamaged = false;  // open for reading what is left of a damaged directory
  std::optional<std::chrono::milliseconds> lockWait = {};  // nothing: the session's
};

// What the module and the blobs that it made hold of the host's memory.
struct MemoryUse {
  std::uint64_t bytes;
  std::uint64_t blocks;
  std::uint64_t peakBytes;  // the most since the session began
};

// Stores stay usable after their session is gone. Movable; what was moved from is closed. Several
// threads may use one session. A store file is open for one update or for any number of readers, in
// a session as among processes, whatever path it was asked for by; threads share one Store. The
// close of the store that was opened for update is the commit.
class [[nodiscard]] Session {
 public:
  // Throws noModule when libhxcrate.so can't be loaded, badPageSize below 0.
  explicit Session(SessionOptions options = {});
  Session(Session&&) noexcept = default;
  Session& operator=(Session&&) noexcept = default;

  // The store file `path`, whose bytes may be any but NUL, or, for reading, the one behind a URL.
  Store open(const FilePath& path, Mode mode = Mode::read, OpenOptions options = {});
  // The same without exceptions, as all that takes a std::error_code: with an error, what it
  // returns is not open. The code carries the system's number where it refused something.
  Store open(const FilePath& path, Mode mode, std::error_code& error,
             OpenOptions options = {}) noexcept {
    return captureError(error, [&] { return open(path, mode, options); });
  }
  Store open(const FilePath& path, std::error_code& error, OpenOptions options = {}) noexcept {
    return open(path, Mode::read, error, options);
  }

  // Writes the store file `path` anew, members in the order of their names and without unused
  // space, and without those that the options leave out, or under new names. Nobody else has it
  // open meanwhile; the new file, which has the owner, group and rights of the old one, takes its
  // place in one step when it is complete and on disk; other hard links of the file keep the old
  // one. What a process left beside it that was killed in here goes. Whatever is thrown, be it by a
  // callback, the file is as it was, unless FileFailure::happened. Needs room for both. Throws
  // otherEncoding for a file of another byte order, exists where two members get one name, damaged
  // for members that no listing shows.
  void rewrite(const FilePath& path, const RewriteOptions& options = {});
  void rewrite(const FilePath& path, std::error_code& error, const RewriteOptions& options = {}) {
    captureError(error, [&] { rewrite(path, options); });
  }

  // A new store in `file`, an empty regular file that is open for reading and writing and needs no
  // name. Nothing is looked at or made at `path`, which is for errors and names the store in its
  // file. There is no journal beside it: what fails leaves any bytes in the file. The descriptor
  // stays the caller's, who keeps it open until the store and all that was opened in it is closed.
  Store createIn(int file, const FilePath& path, OpenOptions options = {});

  // Drops what is kept in memory of the closed store file `path`, if anything is.
  void forget(const FilePath& path);

  // A new store that lives in memory, for writing and for Store::makeBlob; it is gone when it is
  // closed. What follows the last "/", ":" or "\" of `name`, at most 64 bytes, goes into its
  // blobs, as that of a file's path into the file; names need not be unique. A `pageSize` of 0 is
  // the session's.
  Store createInMemory(const std::string& name, std::int32_t pageSize = 0);

  // The store that `bytes` are, a blob's or a store file's, for reading; `name` is for errors. No
  // page is copied: the bytes stay the caller's, who keeps them where and as they are until the
  // store and all that was opened in it is closed. Throws damaged when not all of the directory can
  // be read, notAStore when there are fewer than 40 bytes.
  Store openBlob(std::span<const std::byte> bytes, const std::string& name);
  // Shares the bytes with the blob, which may go.
  Store openBlob(const Blob& blob, const std::string& name);
  Store openBlob(std::span<const std::byte> bytes, const std::string& name,
                 std::error_code& error) noexcept {
    return captureError(error, [&] { return openBlob(bytes, name); });
  }
  // Of a buffer that would be gone at once.
  template <typename Buffer>
  requires(!std::is_lvalue_reference_v<Buffer> && std::ranges::contiguous_range<Buffer> &&
           !std::ranges::borrowed_range<Buffer>) Store
      openBlob(Buffer&& bytes, const std::string& name)
  = delete;

  // The same for the regular file `path`, which stays mapped as long as the store or anything that
  // was opened in it. It is locked against updates as by any reader. Should somebody cut it shorter
  // regardless of that, the next read behind its end kills the program (SIGBUS): use `open` where
  // that can happen.
  Store openMapped(const FilePath& path, OpenOptions options = {});
  Store openMapped(const FilePath& path, std::error_code& error,
                   OpenOptions options = {}) noexcept {
    return captureError(error, [&] { return openMapped(path, options); });
  }

  MemoryUse memoryUse() const;

  // All requests so far for what this session opened behind URLs.
  Transfers transfers() const;

 private:
  friend class Engine;
  explicit Session(std::shared_ptr<Engine> engine) noexcept : engine_(std::move(engine)) {}

  const std::shared_ptr<Engine>& engine() const;
  Store createIn(int file, const FilePath& path, OpenOptions options, Durability durability) const;
  std::int32_t choosePageSize(std::int32_t wanted, const std::string& store) const;

  std::shared_ptr<Engine> engine_;
};

// "1.0.3"
std::string_view version() noexcept;

}  // namespace hxcrate
