// Stores: containers of items and of further stores.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>

#include "hxcrate/blob.hpp"
#include "hxcrate/item.hpp"

namespace hx {
struct Store;
}

namespace hxcrate {

enum class MemberKind { store, item };

struct Member {
  std::string name;  // bytes, as they were given
  MemberKind kind;
};

// The members of a store, in the order of its table. An input range that asks the store for one
// member at a time: members made or gone meanwhile may be seen or missed. Outlived by its Store.
class MemberRange {
 public:
  class Iterator {
   public:
    using value_type = Member;
    using difference_type = std::ptrdiff_t;
    using iterator_concept = std::input_iterator_tag;

    explicit Iterator(const MemberRange* range) : range_(range) { advance(); }
    const Member& operator*() const { return member_; }
    const Member* operator->() const { return &member_; }
    Iterator& operator++() {
      advance();
      return *this;
    }
    void operator++(int) { advance(); }
    bool operator==(std::default_sentinel_t) const { return range_ == nullptr; }

   private:
    void advance();

    const MemberRange* range_;  // null at the end
    Member member_{};
  };

  MemberRange(std::shared_ptr<Tree> tree, hx::Store* store, std::string place)
      : tree_(std::move(tree)), store_(store), place_(std::move(place)) {}
  Iterator begin() const { return Iterator(this); }
  std::default_sentinel_t end() const { return {}; }

 private:
  std::shared_ptr<Tree> tree_;
  hx::Store* store_;
  std::string place_;
};

// Whether a path's missing stores are made on the way.
enum class Parents { mustExist, create };

// An open store: a store file, a store in memory or a blob as a whole, or a store nested in one.
// Paths name members by their components with "/" between them; each component is 1 to 64 bytes.
// Movable; what was moved from is closed. Several threads may use one Store, but for its close, its
// moves and makeBlob.
class Store {
 public:
  Store(std::shared_ptr<Tree> tree, hx::Store* store, std::string place);
  Store(Store&& other) noexcept;
  Store& operator=(Store&& other) noexcept;
  // Closes. A failure goes to the session's onUnreportedError: call close() to be told.
  ~Store();

  // An existing nested store; a new one (throws exists); either.
  Store openStore(std::string_view path) const;
  Store createStore(std::string_view path, Parents parents = Parents::mustExist);
  Store openOrCreateStore(std::string_view path, Parents parents = Parents::mustExist);

  // An existing item from its start; a new item (throws exists); the end of an old or new one.
  Reader read(std::string_view path) const;
  Writer create(std::string_view path, Parents parents = Parents::mustExist);
  Writer append(std::string_view path, Parents parents = Parents::mustExist);

  MemberRange members() const;

  // All of a store that was created in memory, as one buffer. The store stays as it is and may grow
  // further; it may have members open, but no other thread uses it meanwhile. Throws noBlob for any
  // other store, and noMemory.
  Blob makeBlob();

  const std::string& path() const;  // of the file, as given; the name of a store without one
  const std::string& place() const noexcept { return place_; }  // inside it; empty: all of it
  std::int32_t pageSize() const;                                // of the file, bytes
  bool isWritable() const;
  bool isOpen() const noexcept { return store_ != nullptr; }

  // Why the directory was read only in part; no error when it is whole. Such a store opens with
  // OpenOptions::acceptDamaged alone.
  std::error_code damage() const;

  // Closes; does nothing when closed. For a store file the last close of an update writes the
  // directory: a failure to do that is thrown here, and the store counts as closed. Throws
  // membersOpen, and stays open, while members opened through it are.
  void close();

 private:
  Store openNested(std::string_view path, std::uint32_t flags, Parents parents) const;
  template <typename Handle>
  Handle openItem(std::string_view path, std::uint32_t flags, Parents parents) const;
  void requireWritable() const;
  hx::Store* store() const;  // throws closed
  void release() noexcept;

  std::shared_ptr<Tree> tree_;
  hx::Store* store_;
  std::string place_;
};

}  // namespace hxcrate
