// What can go wrong, as exceptions that carry a std::error_code and a sentence for people.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <system_error>
#include <type_traits>

#include "hxcrate/language.hpp"

namespace hxcrate {

// Negative codes come from the item store itself, positive ones from this API.
enum class Errc : std::int32_t {
  notFound = -1,
  exists = -2,
  noMemory = -3,
  notLocked = -4,
  noStore = -5,
  endOfItem = -6,
  itemInUse = -7,
  fileNotOpen = -8,
  otherEncoding = -9,
  storeInUse = -10,
  contradiction = -11,
  nameTooLong = -12,
  damaged = -13,
  pageSizeFixed = -14,

  badName = 1,           // a member name or a path that can't be kept as it is
  readOnly = 2,          // writing through a store that is open for reading
  itemFull = 3,          // an item ends at 2,147,483,647 bytes
  noModule = 4,          // libhxcrate.so is missing or not what it should be
  fileFailed = 5,        // the file service failed; Error::fileFailure() says where
  notAStore = 6,         // too few bytes, or they do not begin as those of a store
  badPageSize = 7,       // below 1
  closed = 8,            // the object was closed or moved from
  membersOpen = 9,       // a store closes after what was opened in it
  noBlob = 10,           // a blob is made of a whole store that was created in memory
  cutElement = 11,       // an array's item ends within an element
  unknownEncoding = 12,  // a store file, or what was asked for, of no known encoding
  abandoned = 13,        // the update that it belongs to was given up
  isAStore = 14,         // an item was asked for
  isAnItem = 15,         // a store was asked for
};

}  // namespace hxcrate

template <>
struct std::is_error_code_enum<hxcrate::Errc> : std::true_type {};

namespace hxcrate {

// The category of Errc. Its conditions compare equal to the std::errc of the same meaning where
// there is one (notFound to no_such_file_or_directory, and so on).
const std::error_category& category() noexcept;
std::error_code make_error_code(Errc code) noexcept;

// Where the system refused something, the code carries its errno as well: it compares equal to the
// Errc and to the std::errc of that number (fileFailed and no_space_on_device, say).
Errc errcOf(const std::error_code& code) noexcept;  // of a code of this category
inline bool operator==(const std::error_code& code, Errc errc) noexcept {
  return code.category() == category() && errcOf(code) == errc;
}

// One operation on a file that the system refused.
struct FileFailure {
  std::string operation;   // "open", "write", ...
  std::string path;        // of the file
  std::int64_t offset;     // where in the file; -1 when the operation has no place
  std::error_code reason;  // the system's
  // All of an update was undone because of it: the store file is as it was before.
  bool rolledBack = false;
  // The update is in the file in spite of it: but that may not be on disk, and a power cut undo it.
  bool happened = false;
  std::string holder = {};              // who has the file open, when that is this session
  std::chrono::milliseconds waited{0};  // for whoever has the file open
  std::string detail = {};  // says more than the system's words, of what is behind a URL
};

// Every failure of this API but running out of memory in the library itself (std::bad_alloc).
// what() is one line, "STORE: MEMBER: reason (detail)", with the parts that there are; control
// characters are octal escapes there, and names are cut to a line's length. Never changes; any
// number of threads may read one.
class Error : public std::system_error {
 public:
  Error(Errc code, std::string store, std::string member, std::string_view detail = {});
  Error(Errc code, std::string store, std::string member, const FileFailure& failure);

  const char* what() const noexcept override;
  Errc errc() const noexcept { return errcOf(code()); }
  const std::string& store() const noexcept;   // the store file's path as it was given
  const std::string& member() const noexcept;  // path inside the store; empty: the store itself
  // what() without the store and the member.
  const std::string& reason() const noexcept;
  // Set when the file service failed. Null otherwise; valid as long as the error.
  const FileFailure* fileFailure() const noexcept;

 private:
  struct Details;
  Error(std::error_code code, std::shared_ptr<const Details> details);
  std::shared_ptr<const Details> details_;  // shared: copying an exception must not throw
};

// What the overloads that take a std::error_code& are made of: they throw nothing, leave in `error`
// the code of what their twin would have thrown, or none, and return a value that stands for
// nothing then: an object that is not open, a count of 0. What the exception says besides its code
// is lost. What a callback of the caller's own throws, other than std::system_error and
// std::bad_alloc, goes through.
template <typename Call>
std::invoke_result_t<Call> captureError(std::error_code& error, const Call& call) {
  try {
    error.clear();
    return call();
  } catch (const std::system_error& thrown) {
    error = thrown.code();
  } catch (const std::bad_alloc&) {
    error = make_error_code(Errc::noMemory);
  }
  return std::invoke_result_t<Call>();
}

}  // namespace hxcrate
