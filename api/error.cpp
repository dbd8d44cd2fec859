#include "hxcrate/error.hpp"

#include <cerrno>
#include <optional>
#include <utility>

#include "records/status.h"

namespace hxcrate {

namespace {

// A status of the module is told as the code of its number.
constexpr bool isTold(hx::Status status, Errc code) {
  return static_cast<Errc>(status) == code;
}
static_assert(isTold(hx::kNotFound, Errc::notFound) && isTold(hx::kExists, Errc::exists));
static_assert(isTold(hx::kNoMemory, Errc::noMemory) && isTold(hx::kNotLocked, Errc::notLocked));
static_assert(isTold(hx::kNoStore, Errc::noStore) && isTold(hx::kEndOfItem, Errc::endOfItem));
static_assert(isTold(hx::kItemInUse, Errc::itemInUse));
static_assert(isTold(hx::kFileNotOpen, Errc::fileNotOpen));
static_assert(isTold(hx::kOtherEncoding, Errc::otherEncoding));
static_assert(isTold(hx::kStoreInUse, Errc::storeInUse));
static_assert(isTold(hx::kContradiction, Errc::contradiction));
static_assert(isTold(hx::kNameTooLong, Errc::nameTooLong));
static_assert(isTold(hx::kUnreadable, Errc::damaged));
static_assert(isTold(hx::kPageSizeFixed, Errc::pageSizeFixed));

struct Meaning {
  Errc code;
  const char* sentence;
  std::errc condition;  // no errc: the code stands for itself
};

constexpr std::errc kNoCondition{};

constexpr Meaning kMeanings[] = {
    {Errc::notFound, "not found", std::errc::no_such_file_or_directory},
    {Errc::exists, "exists already", std::errc::file_exists},
    {Errc::noMemory, "out of memory", std::errc::not_enough_memory},
    {Errc::notLocked, "the lock was not taken", std::errc::resource_unavailable_try_again},
    {Errc::noStore, "items live only inside a store", std::errc::invalid_argument},
    {Errc::endOfItem, "end of the item", kNoCondition},
    {Errc::itemInUse, "the item is in use", std::errc::device_or_resource_busy},
    {Errc::fileNotOpen, "the store's file does not open", std::errc::io_error},
    {Errc::otherEncoding, "written in another encoding, it can only be read",
     std::errc::not_supported},
    {Errc::storeInUse, "the store is in use", std::errc::device_or_resource_busy},
    {Errc::contradiction, "can't be written to", std::errc::operation_not_permitted},
    {Errc::nameTooLong, "a name is too long", std::errc::filename_too_long},
    {Errc::damaged, "the store's data are damaged", kNoCondition},
    {Errc::pageSizeFixed, "the page size is fixed already", std::errc::invalid_argument},
    {Errc::badName, "the name can't be kept", std::errc::invalid_argument},
    {Errc::readOnly, "the store is open for reading only", std::errc::operation_not_permitted},
    {Errc::itemFull, "an item ends at 2147483647 bytes", std::errc::file_too_large},
    {Errc::noModule, "the module can't be loaded", kNoCondition},
    {Errc::fileFailed, "the file service failed", std::errc::io_error},
    {Errc::notAStore, "not a store", kNoCondition},
    {Errc::badPageSize, "a page has at least one byte", std::errc::invalid_argument},
    {Errc::closed, "closed already", std::errc::bad_file_descriptor},
    {Errc::membersOpen, "members of the store are still open", std::errc::device_or_resource_busy},
    {Errc::noBlob, "only a whole store that was created in memory becomes a blob",
     std::errc::invalid_argument},
    {Errc::cutElement, "the item ends within an element", kNoCondition},
    {Errc::unknownEncoding, "not an encoding that is known here", std::errc::not_supported},
    {Errc::abandoned, "the update was abandoned", std::errc::operation_canceled},
    {Errc::isAStore, "is a store", std::errc::is_a_directory},
    {Errc::isAnItem, "is an item", std::errc::not_a_directory},
};

const Meaning* findMeaning(Errc code) {
  for (const Meaning& meaning : kMeanings) {
    if (meaning.code == code) return &meaning;
  }
  return nullptr;
}

// A value of the category is an Errc, or an errno with an Errc in its low 8 bits.
constexpr int kErrcBits = 8;
constexpr int kMostErrc = 127;

int valueOf(Errc code, int systemError) {
  return systemError << kErrcBits | (static_cast<int>(code) & 0xff);
}

int systemErrorOf(int value) {
  return value > kMostErrc ? value >> kErrcBits : 0;
}

Errc errcOfValue(int value) {
  return static_cast<Errc>(value > kMostErrc ? static_cast<std::int8_t>(value) : value);
}

class Category final : public std::error_category {
 public:
  const char* name() const noexcept override { return "hxcrate"; }

  std::string message(int value) const override {
    const Meaning* meaning = findMeaning(errcOfValue(value));
    if (meaning == nullptr) return "unknown status " + std::to_string(value);
    const int error = systemErrorOf(value);
    if (error == 0) return meaning->sentence;
    return std::string(meaning->sentence) + " (" + std::system_category().message(error) + ")";
  }

  std::error_condition default_error_condition(int value) const noexcept override {
    if (const int error = systemErrorOf(value); error != 0) {
      return std::system_category().default_error_condition(error);
    }
    const Meaning* meaning = findMeaning(errcOfValue(value));
    if (meaning == nullptr || meaning->condition == kNoCondition) return {value, *this};
    return std::make_error_condition(meaning->condition);
  }
};

// By its number where the system's words would mislead: its category knows no condition for it.
std::string explain(const FileFailure& failure) {
  if (!failure.detail.empty()) return failure.detail;
  const int number = failure.reason.value();
  if (number == ESTALE) return "the -journal file beside it does not belong to it";
  if (number == EPERM && failure.operation == "roll back") {
    return "the -journal file beside it is another user's";
  }
  return failure.reason.message();
}

std::string describe(const FileFailure& failure) {
  std::string text = failure.operation;
  if (failure.offset >= 0) text += " at byte " + std::to_string(failure.offset);
  text += ": " + explain(failure);
  if (!failure.holder.empty()) text = failure.holder;
  if (failure.waited.count() > 0) {
    text += ", waited " + std::to_string(failure.waited.count()) + " ms";
  }
  if (failure.rolledBack) text += "; the store is as it was";
  if (failure.happened) text += "; the update is in the file, but a power cut may undo it";
  return text;
}

constexpr std::size_t kLongestName = 1024;  // bytes of a path in what()

// One line, whatever a name holds.
void appendEscaped(std::string& line, std::string_view text) {
  if (text.size() > kLongestName) {
    line += "...";
    text.remove_prefix(text.size() - kLongestName);
  }
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= ' ' && byte != 0x7f) {
      line += c;
      continue;
    }
    line += '\\';
    for (const int shift : {6, 3, 0})
      line += static_cast<char>('0' + (byte >> shift & 7));
  }
}

}  // namespace

const std::error_category& category() noexcept {
  static const Category instance;
  return instance;
}

std::error_code make_error_code(Errc code) noexcept {
  return {static_cast<int>(code), category()};
}

Errc errcOf(const std::error_code& code) noexcept {
  return errcOfValue(code.value());
}

struct Error::Details {
  std::string store;
  std::string member;
  std::string reason;
  std::optional<FileFailure> failure;
  std::string what;

  Details(Errc code, std::string storePath, std::string memberPath, std::string_view detail,
          std::optional<FileFailure> fileFailure)
      : store(std::move(storePath)),
        member(std::move(memberPath)),
        reason(make_error_code(code).message()),
        failure(std::move(fileFailure)) {
    if (!detail.empty()) reason.append(" (").append(detail).append(")");
    for (const std::string& part : {store, member}) {
      appendEscaped(what, part);
      if (!part.empty()) what += ": ";
    }
    appendEscaped(what, reason);
  }
};

Error::Error(std::error_code code, std::shared_ptr<const Details> details)
    : std::system_error(code), details_(std::move(details)) {}

Error::Error(Errc code, std::string store, std::string member, std::string_view detail)
    : Error(make_error_code(code),
            std::make_shared<const Details>(code, std::move(store), std::move(member), detail,
                                            std::nullopt)) {}

Error::Error(Errc code, std::string store, std::string member, const FileFailure& failure)
    : Error({valueOf(code, failure.reason.value()), category()},
            std::make_shared<const Details>(code, std::move(store), std::move(member),
                                            describe(failure), failure)) {}

const char* Error::what() const noexcept {
  return details_->what.c_str();
}

const std::string& Error::store() const noexcept {
  return details_->store;
}

const std::string& Error::member() const noexcept {
  return details_->member;
}

const std::string& Error::reason() const noexcept {
  return details_->reason;
}

const FileFailure* Error::fileFailure() const noexcept {
  return details_->failure ? &*details_->failure : nullptr;
}

}  // namespace hxcrate
