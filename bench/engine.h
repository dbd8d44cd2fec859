// What the workloads ask of every engine that is measured. An engine that can't do something
// throws Unsupported with the reason, which becomes a footnote in place of a figure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace bench {

using Bytes = std::span<const std::byte>;

// Whether a commit waits for the disk.
enum class Sync { off, on };

// What a store is going to hold, for engines that are laid out by that.
enum class Shape {
  large,  // a few items of many MiB
  small,  // many items of 100 bytes, all at the top
  nested  // items of 100 bytes in stores in stores
};

class Unsupported : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void require(bool condition, const std::string& what) {
  if (!condition) throw std::runtime_error(what);
}

// A large item is written in calls of one piece each. Pieces differ, so that none can be taken for
// another; `at(i)` is valid as long as the object.
class Pieces {
 public:
  Pieces(std::size_t size, std::size_t count);
  Bytes at(std::size_t index) const;
  std::size_t size() const { return size_; }
  std::size_t count() const { return count_; }
  std::uint64_t totalBytes() const { return std::uint64_t{size_} * count_; }

 private:
  std::size_t size_;
  std::size_t count_;
  std::vector<std::byte> bytes_;
};

// What a walk saw.
struct Tally {
  std::uint64_t members = 0;
  std::uint64_t nameBytes = 0;  // of the members' own names, without those above them

  void count(std::string_view name) {
    ++members;
    nameBytes += name.size();
  }
  bool operator==(const Tally&) const = default;
};

// One update of a store. Dropped without commit() it leaves whatever it likes.
class Writing {
 public:
  virtual ~Writing() = default;
  virtual void put(std::string_view name, Bytes bytes) = 0;  // in the store entered last
  virtual void putPieces(std::string_view name, const Pieces& pieces);
  virtual void enter(std::string_view name);  // makes a nested store
  virtual void leave();
  virtual void commit() = 0;  // and closes what the update alone had open
};

// Shown every piece of an item as it is read; empty while the clock runs.
using Seen = std::function<void(Bytes)>;

// An item opened for reading at any place, by any number of threads.
class Anywhere {
 public:
  virtual ~Anywhere() = default;
  // Fills `out` as far as the item goes and returns how far that is.
  virtual std::size_t readAt(std::uint64_t offset, std::span<std::byte> out) const = 0;
};

// A store opened for reading.
class Reading {
 public:
  virtual ~Reading() = default;
  // Fills `out` as far as the item goes and returns how far that is.
  virtual std::size_t get(std::string_view name, std::span<std::byte> out);
  // Reads all of an item in calls of the buffer's size and returns its length.
  virtual std::uint64_t getPieces(std::string_view name, std::span<std::byte> buffer,
                                  const Seen& seen);
  virtual std::unique_ptr<Anywhere> openAnywhere(std::string_view name);
  virtual Tally enumerate();          // the members at the top
  virtual std::uint64_t listSizes();  // of the items at the top, by their names; the sum
  // All members of all stores; the items are read only to show them to `seen`, if there is one.
  virtual Tally walk(const Seen& seen);
};

// What a program keeps between two openings: the connection, the environment, the caches. A fresh
// one knows of no file.
class Session {
 public:
  virtual ~Session() = default;
  virtual std::unique_ptr<Writing> create(const std::string& path, Shape shape) = 0;
  virtual std::unique_ptr<Writing> update(const std::string& path);  // of Shape::small
  virtual std::unique_ptr<Reading> open(const std::string& path, Shape shape) = 0;
};

// A store as one buffer.
class Image {
 public:
  virtual ~Image() = default;
  virtual Bytes bytes() const = 0;
};

// A store that is made in memory.
class InMemory {
 public:
  virtual ~InMemory() = default;
  virtual void put(std::string_view name, Bytes bytes) = 0;
  virtual std::unique_ptr<Image> makeImage() = 0;
};

// The argument lists of the command that packs the tree `in` into `file` and of that which unpacks
// it into the present, empty directory `out`; both run in `in` and `out`.
struct Archiver {
  std::vector<std::string> pack;
  std::vector<std::string> unpack;
};

// What two threads that read at the same time need.
enum class Threads { shareSession, ownSession, none };

// How an engine is set; what it says goes into the report.
struct EngineInfo {
  std::string name;       // "sqlite"
  std::string workloads;  // the letters of those it takes part in
  std::string settings;   // one or two sentences
  std::string files;      // engines of equal `files` read what one of them made
  Threads threads = Threads::shareSession;
  std::size_t mostItems = 1000000;  // with more it would take minutes
};

class Engine {
 public:
  explicit Engine(EngineInfo info) : info_(std::move(info)) {}
  virtual ~Engine() = default;
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const EngineInfo& info() const { return info_; }
  bool takesPart(char workload) const {
    return info_.workloads.find(workload) != std::string::npos;
  }

  virtual std::unique_ptr<Session> openSession(Sync sync) = 0;
  virtual std::unique_ptr<InMemory> createInMemory();
  virtual std::unique_ptr<Reading> openImage(Bytes image);
  virtual Archiver archiver(const std::string& file, const std::string& in,
                            const std::string& out) const;

 private:
  EngineInfo info_;
};

}  // namespace bench
