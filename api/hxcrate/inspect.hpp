// What a store file holds, byte by byte: a reader of the file format of its own, which shares
// nothing with the one that opens stores and believes no byte. It finds what is damaged, who owns
// which bytes and what can still be read, in either byte order, without recursion; it reads each
// record once and no more records than the file has room for, whatever the bytes.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hxcrate/error.hpp"
#include "hxcrate/file_path.hpp"
#include "hxcrate/remote.hpp"
#include "hxcrate/store.hpp"

namespace hxcrate {

// Bytes that are, or should be, a store file.
class ByteSource {
 public:
  virtual ~ByteSource() = default;

  virtual std::int64_t length() const = 0;
  // Fills `to` with the bytes at `offset` and returns how many those were: fewer than asked for
  // where the bytes end or the system does not give them.
  virtual std::size_t read(std::int64_t offset, std::span<std::byte> to) const = 0;
  // Where the first byte at or behind `offset` may lie that is not zero, or the length when all
  // are: what a file has holes for need not be read.
  virtual std::int64_t findData(std::int64_t offset) const { return offset; }
  // What errors call it.
  virtual const std::string& name() const = 0;
};

// Bytes in memory, which the caller keeps.
class ByteView final : public ByteSource {
 public:
  ByteView(std::span<const std::byte> bytes, std::string name)
      : bytes_(bytes), name_(std::move(name)) {}

  std::int64_t length() const override { return static_cast<std::int64_t>(bytes_.size()); }
  std::size_t read(std::int64_t offset, std::span<std::byte> to) const override;
  const std::string& name() const override { return name_; }

 private:
  std::span<const std::byte> bytes_;
  std::string name_;
};

// A regular file. It is locked as by any reader while this object lives, and an update that was cut
// off is undone before, so that nothing half done is looked at. Where the file service refuses that
// (the update can't be undone in a directory that is not writable, say) the file is looked at as it
// lies, and `caveat` says why. The file may be cut shorter or change meanwhile regardless of its
// lock: reads then give fewer or other bytes.
class InspectedFile final : public ByteSource {
 public:
  // Also of what lies behind a URL. Throws notFound, fileNotOpen, and storeInUse when somebody
  // still updates it after that wait.
  explicit InspectedFile(const FilePath& path, std::chrono::milliseconds lockWait = {});
  ~InspectedFile() override;

  std::int64_t length() const override;
  std::size_t read(std::int64_t offset, std::span<std::byte> to) const override;
  std::int64_t findData(std::int64_t offset) const override;
  const std::string& name() const override;
  // Why the file is not locked; empty when it is.
  const std::string& caveat() const;
  // Whether it is the file that the descriptor is of, which may be one for the path alone: a path
  // may lead to another file each time.
  bool isIn(int file) const;
  // What it took so far to read it behind a URL; nothing of a file of the disk.
  std::optional<Transfers> transfers() const;

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

enum class Severity {
  error,    // bytes are lost or wrong, or the next update would make them so; or it does not open
  warning,  // what no writer leaves behind, and no reader needs
  note,     // unusual, and nothing is wrong with it
};

// A rule of the format that does not hold.
struct Finding {
  Severity severity;
  std::int64_t offset;  // of the field or the bytes
  std::string place;    // path of the member; empty: the store as a whole
  std::string reason;   // what was found, and what was expected
};

// Who owns a byte.
enum class ByteKind {
  header,
  entry,        // the record of a member in the directory
  chunk,        // the record of a page
  data,         // an item's bytes
  slack,        // what a page has room for behind an item's end
  unreachable,  // nobody's
};
constexpr std::size_t kByteKinds = 6;
std::string_view nameOf(ByteKind kind);

constexpr std::size_t kNoMember = SIZE_MAX;

// Neighbouring bytes of one kind and one owner.
struct Extent {
  ByteKind kind;
  std::int64_t offset;
  std::int64_t length;
  std::size_t member;  // index; kNoMember for the header and what is unreachable
};

struct InspectedMember {
  std::string name;
  std::size_t container;     // index of its store; the first member's is itself
  std::int64_t entryOffset;  // -1: there is none, in and of "lost+found"
  std::int64_t firstLink;    // as stored
  std::int64_t size = 0;     // of an item, as far as it can be read; known after walkPages
  MemberKind kind;
  // False when something of it is lost: of an item its end, of a store members.
  bool isWhole = true;
};

struct PageWalkOptions {
  // Told of every byte once; the extents add up to the file. An item's bytes come in their order,
  // items in the order of the members.
  std::function<void(const Extent&)> onExtent = {};
  // Told of each item when its bytes are through.
  std::function<void(std::size_t member)> onItemEnd = {};
  // Look for bytes that are not zero behind the items' ends, and behind empty items.
  bool readSlack = false;
  // Search the unreachable bytes for members that no link leads to any more, and for pages of which
  // the member is gone. Each is an error. They become members of a further store "lost+found",
  // behind all others, or of each other; onExtent is told what they own as it is of others.
  bool adoptMembers = false;
};

// What is known better than a damaged header says it.
struct HeaderOverride {
  std::string encoding = {};  // identity; empty: the header's
  std::int32_t pageSize = 0;  // bytes; 0: the header's
};

// A store file as it is. One thread uses it; it outlives nothing of its source.
class Inspection {
 public:
  // Reads header and directory. `onFinding` is told of each broken rule, here and in walkPages, in
  // no order. Throws notAStore for fewer bytes than a header has, unknownEncoding.
  Inspection(const ByteSource& source, std::function<void(const Finding&)> onFinding,
             const HeaderOverride& header = {});
  ~Inspection();

  // Goes on to the items' pages. Once.
  void walkPages(const PageWalkOptions& options);

  // In the order of the directory, each store before its members; the first is the whole store.
  // None when there is no directory.
  const std::vector<InspectedMember>& members() const;
  // Path of a member inside the store, empty for the whole of it; cut in front when very long.
  std::string pathOf(std::size_t member) const;

  std::int32_t pageSize() const;  // bytes; 0: the header states none
  std::string encoding() const;   // its identity, such as "hxmok1/le/utf-8"
  std::size_t depth() const;      // of stores in stores; 1: no store is nested

 private:
  struct Parts;
  std::unique_ptr<Parts> parts_;
};

// The byte order of data in the encoding `identity`; nothing when it is not known here.
std::optional<bool> isBigEndian(std::string_view identity) noexcept;
// The identities that are known, for a message: "A and B".
std::string listEncodings();

// How many records of the directory show that it has lost members: they are all zero, are where no
// record can be, name another store or another neighbour than those from which a link leads to
// them, or are in no listing (Store::countHidden). Some ten times as fast as an Inspection, and
// blind to all else. Throws notAStore, unknownEncoding.
std::int64_t countDirectoryFaults(const ByteSource& source);

// Told of bytes and of where they belong; some of a place more than once, the last ones count.
using PutBytes = std::function<void(std::int64_t offset, std::span<const std::byte> bytes)>;

// Gives the store file `source` in the encoding `encodingId` to `put`: the records turned, items'
// bytes and all offsets as they are. Throws unknownEncoding, fileFailed when it can't be read, and
// damaged when a rule does not hold (severity error); then what was put is no store.
void transcode(const ByteSource& source, std::string_view encodingId, const PutBytes& put);

// The same with the pieces in another order, and without what is unreachable: all records lie in
// front, so that little of the file has to be read before any item can be. An empty `encodingId` is
// that of the source.
void arrangeForReading(const ByteSource& source, std::string_view encodingId, const PutBytes& put);

}  // namespace hxcrate
