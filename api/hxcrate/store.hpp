// Stores: containers of items and of further stores.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <ranges>
#include <string>
#include <string_view>
#include <system_error>

#include "hxcrate/blob.hpp"
#include "hxcrate/error.hpp"
#include "hxcrate/item.hpp"
#include "hxcrate/listing.hpp"
#include "hxcrate/view.hpp"

namespace hx {
struct ItemMember;
struct Member;
struct Store;
}  // namespace hx

namespace hxcrate {

class MemberCursor;

constexpr std::size_t kNameCapacity = 64;      // bytes of a member's name
constexpr std::int32_t kUsualPageSize = 4096;  // bytes, of a store file that tells of none

struct Member {
  std::string name;  // bytes, as they were given
  MemberKind kind;
  std::int64_t place;  // of its first record in the file or blob; 0: it has none yet
};

bool showNext(MemberCursor& cursor, Member& member);  // false at the end

// The members that a store had when begin() was called, each once, in the order of its table. A
// range and a view of C++20 that can be gone through any number of times. It holds what it needs of
// the store, whose file therefore stays open; a whole store throws membersOpen at its close as long
// as a range of it or an iterator lives. Several threads may use one, each with iterators of its
// own.
class [[nodiscard]] MemberRange : public std::ranges::view_base {
 public:
  using Iterator = ShownIterator<Member, MemberCursor>;

  Iterator begin() const;
  std::default_sentinel_t end() const noexcept { return {}; }

 private:
  friend class Store;
  MemberRange(std::shared_ptr<Opening> opening, hx::Store* store)
      : opening_(std::move(opening)), store_(store) {}

  std::shared_ptr<Opening> opening_;
  hx::Store* store_;
};

// Whether a path's missing stores are made on the way.
enum class Parents { mustExist, create };

// An open store: a store file, a store in memory or a blob as a whole, or a store nested in one.
// Paths name members by their components with "/" between them; each component is 1 to 64 bytes
// without a NUL. Any other path is badName, and nothing of it is made. Movable; what was moved from
// is closed. Several threads may use one Store, but for its close, commit, abandon, its moves and
// makeBlob; each may open whatever it likes in it.
class [[nodiscard]] Store {
 public:
  Store() noexcept = default;  // closed
  Store(Store&& other) noexcept;
  Store& operator=(Store&& other) noexcept;  // closes what was open
  // Closes as close() does; of the store that was opened for update, while an exception unwinds
  // that came after the opening, as abandon() does. A failure goes to the session's
  // onUnreportedError: call close() to be told.
  ~Store();

  // An existing nested store; a new one (throws exists); either. All throw isAnItem when an item
  // has its name or that of a store on the way, also the new one.
  Store openStore(std::string_view path) const;
  Store createStore(std::string_view path, Parents parents = Parents::mustExist);
  Store openOrCreateStore(std::string_view path, Parents parents = Parents::mustExist);

  // An existing item from its start; a new item (throws exists); the end of an old or new one. All
  // throw isAStore when a store has its name, isAnItem when an item has that of a store on the way.
  Reader read(std::string_view path) const;
  Writer create(std::string_view path, Parents parents = Parents::mustExist);
  Writer append(std::string_view path, Parents parents = Parents::mustExist);

  // The same without exceptions: with an error, what they return is not open.
  Store openStore(std::string_view path, std::error_code& error) const noexcept {
    return captureError(error, [&] { return openStore(path); });
  }
  Store createStore(std::string_view path, std::error_code& error,
                    Parents parents = Parents::mustExist) noexcept {
    return captureError(error, [&] { return createStore(path, parents); });
  }
  Store openOrCreateStore(std::string_view path, std::error_code& error,
                          Parents parents = Parents::mustExist) noexcept {
    return captureError(error, [&] { return openOrCreateStore(path, parents); });
  }
  Reader read(std::string_view path, std::error_code& error) const noexcept {
    return captureError(error, [&] { return read(path); });
  }
  Writer create(std::string_view path, std::error_code& error,
                Parents parents = Parents::mustExist) noexcept {
    return captureError(error, [&] { return create(path, parents); });
  }
  Writer append(std::string_view path, std::error_code& error,
                Parents parents = Parents::mustExist) noexcept {
    return captureError(error, [&] { return append(path, parents); });
  }

  // An existing item for reading at any place, by several threads.
  View view(std::string_view path) const;
  View view(std::string_view path, std::error_code& error) const noexcept {
    return captureError(error, [&] { return view(path); });
  }

  // All bytes of an item, at once: the fast way for small ones, which are not opened. Into a buffer
  // as many as fit, and returns how many those were.
  std::vector<std::byte> get(std::string_view path) const;
  std::string getText(std::string_view path) const;
  std::size_t get(std::string_view path, std::span<std::byte> buffer) const;
  std::vector<std::byte> get(std::string_view path, std::error_code& error) const noexcept {
    return captureError(error, [&] { return get(path); });
  }
  std::string getText(std::string_view path, std::error_code& error) const noexcept {
    return captureError(error, [&] { return getText(path); });
  }
  std::size_t get(std::string_view path, std::span<std::byte> buffer,
                  std::error_code& error) const noexcept {
    return captureError(error, [&] { return get(path, buffer); });
  }

  // Whether there is such a member, of either kind; and what it is, or throws notFound.
  bool exists(std::string_view path) const;
  MemberStatus stat(std::string_view path) const;

  // What lies in the nested store `path`, or in this one if that is empty.
  Listing list(std::string_view path = {}, ListOptions options = {}) const;
  Listing list(std::string_view path, std::error_code& error,
               ListOptions options = {}) const noexcept {
    return captureError(error, [&] { return list(path, options); });
  }

  MemberRange members() const;
  // How many more it has that no listing shows: those without a name, and of several of one name
  // all but the newest. Only damage makes the former.
  std::int64_t countHidden() const;

  // All of a store that was created in memory, as one buffer. The store stays as it is and may grow
  // further; it may have members open, but no other thread uses it meanwhile. Throws noBlob for any
  // other store, and noMemory.
  Blob makeBlob();

  // Of the file, as given; the name of a store without one. Valid until the store is closed.
  const std::string& path() const&;
  const std::string& path() const&& = delete;
  // The path inside it; empty: all of it, or closed.
  std::string place() const;
  std::int32_t pageSize() const;  // of the file, bytes
  bool isWritable() const;
  // Whether what was opened by its path lies in the file that the descriptor is of, which may be
  // one for the path alone: a path may lead to another file each time. False without a file, and of
  // one that is mapped.
  bool isIn(int file) const;
  // Of that file, in bytes, when it was opened; nothing where there is none for `isIn`.
  std::optional<std::int64_t> openedLength() const;
  // Bytes of the file that were read so far, records included, by all who share its opening. Far
  // more than the file has: its items share chains of pages.
  std::int64_t bytesRead() const;
  bool isOpen() const noexcept { return store_ != nullptr; }

  // Why the directory was read only in part; no error when it is whole. Such a store opens with
  // OpenOptions::acceptDamaged alone.
  std::error_code damage() const;

  // Closes; does nothing when closed. The close of the store that was opened for update is the
  // commit: it throws fileFailed when that did not succeed, and the store counts as closed then.
  // Throws membersOpen, and stays open, while members opened through it are.
  void close();
  void close(std::error_code& error) noexcept {
    captureError(error, [&] { close(); });
  }

  // Makes durable what was written to the file so far, and the update goes on: nobody gets in
  // between, and what is open in it stays so. Throws membersOpen, and changes nothing, while an
  // item is open for writing; readOnly. After fileFailed the file is as it was after the commit
  // before, unless the error says that the update is in it (FileFailure::happened); this is closed,
  // and whatever is done through other members throws that too. Nothing is to be done for a store
  // in memory.
  void commit();
  void commit(std::error_code& error) noexcept {
    captureError(error, [&] { commit(); });
  }

  // Closes, and gives up the update of the file since its last commit, also with members open:
  // whatever is done through them fails with `abandoned` from now on. With the last of them the
  // file is closed and what it was. The same as close() for what is open for reading. Throws
  // fileFailed when the file could not be made what it was.
  void abandon();
  void abandon(std::error_code& error) noexcept {
    captureError(error, [&] { abandon(); });
  }

 private:
  friend class Session;
  Store(std::shared_ptr<Opening> opening, hx::Store* store) noexcept;

  Store openNested(std::string_view path, std::uint32_t flags, Parents parents) const;
  template <typename Use>
  auto useMember(std::string_view path, Use use) const;
  hx::Member* findMember(std::string_view path) const;
  hx::ItemMember* findItem(std::string_view path) const;
  [[noreturn]] void failItem(std::int32_t status, hx::Store* holder, std::string_view path) const;
  std::size_t readAtOnce(std::string_view path, std::span<std::byte> buffer, View& rest) const;
  template <typename Handle>
  Handle openItem(std::string_view path, std::uint32_t flags, Parents parents) const;
  void requireSound(const hx::Store& start, std::uint32_t flags) const;
  void requireWritable() const;
  hx::Store* store() const;  // throws closed
  void release() noexcept;

  std::shared_ptr<Opening> opening_;
  hx::Store* store_ = nullptr;
};

}  // namespace hxcrate
