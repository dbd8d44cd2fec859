#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <optional>

#include "hxcrate/crate.hpp"
#include "hxcrate/hxcrate.h"

struct hxcrate_store {
  hxcrate::Session session;
  hxcrate::Store store;
};

namespace hxcrate {

namespace {

constexpr bool isTold(int code, Errc errc) {
  return static_cast<Errc>(code) == errc;
}
static_assert(isTold(HXCRATE_NOT_FOUND, Errc::notFound) && isTold(HXCRATE_EXISTS, Errc::exists));
static_assert(isTold(HXCRATE_NO_MEMORY, Errc::noMemory) && isTold(HXCRATE_CLOSED, Errc::closed));
static_assert(isTold(HXCRATE_FILE_NOT_OPEN, Errc::fileNotOpen));
static_assert(isTold(HXCRATE_IN_USE, Errc::storeInUse) && isTold(HXCRATE_DAMAGED, Errc::damaged));
static_assert(isTold(HXCRATE_BAD_NAME, Errc::badName) && isTold(HXCRATE_READ_ONLY, Errc::readOnly));
static_assert(isTold(HXCRATE_ITEM_FULL, Errc::itemFull));
static_assert(isTold(HXCRATE_FILE_FAILED, Errc::fileFailed));
static_assert(isTold(HXCRATE_NOT_A_STORE, Errc::notAStore));
static_assert(isTold(HXCRATE_IS_A_STORE, Errc::isAStore));
static_assert(isTold(HXCRATE_IS_AN_ITEM, Errc::isAnItem));

thread_local std::optional<Error> lastError;  // nothing: there was no memory for it

// No exception leaves the library.
template <typename Call>
int codeOf(const Call& call) noexcept {
  try {
    call();
    return HXCRATE_OK;
  } catch (const Error& error) {
    lastError = error;
    return static_cast<int>(error.errc());
  } catch (...) {
    lastError.reset();
    return HXCRATE_NO_MEMORY;
  }
}

Store& storeOf(hxcrate_store* opened) {
  if (opened == nullptr) throw Error(Errc::closed, "", "");
  return opened->store;
}

const Store& storeOf(const hxcrate_store* opened) {
  return storeOf(const_cast<hxcrate_store*>(opened));
}

// What a program in C may pass by mistake is refused before it is used.
void require(bool isRight, const char* why) {
  if (!isRight) throw Error(Errc::badName, "", "", why);
}

const char* pathFrom(const char* path) {
  require(path != nullptr, "the path is a null pointer");
  return path;
}

Mode modeOf(hxcrate_mode mode) {
  require(mode >= HXCRATE_READ && mode <= HXCRATE_OPEN_OR_CREATE, "there is no such mode");
  if (mode == HXCRATE_READ) return Mode::read;
  return mode == HXCRATE_UPDATE ? Mode::update : Mode::openOrCreate;
}

// For free().
void* copyOf(std::span<const std::byte> bytes) {
  void* copy = std::malloc(bytes.size() + 1);
  if (copy == nullptr) throw std::bad_alloc();
  std::memcpy(copy, bytes.data(), bytes.size());
  static_cast<char*>(copy)[bytes.size()] = '\0';
  return copy;
}

int write(hxcrate_store* store, const char* path, const void* bytes, std::size_t size,
          Writer (Store::*open)(std::string_view, Parents)) {
  return codeOf([&] {
    Store& opened = storeOf(store);
    require(bytes != nullptr || size == 0, "the bytes are a null pointer");
    Writer writer = (opened.*open)(pathFrom(path), Parents::create);
    writer.write(std::span(static_cast<const std::byte*>(bytes), size));
    writer.close();
  });
}

}  // namespace

}  // namespace hxcrate

using namespace hxcrate;

int hxcrate_open(const char* path, hxcrate_mode mode, int64_t wait_milliseconds,
                 hxcrate_store** store) {
  *store = nullptr;
  return codeOf([&] {
    auto opened = std::make_unique<hxcrate_store>();
    const std::chrono::milliseconds wait(wait_milliseconds);
    opened->store = opened->session.open(pathFrom(path), modeOf(mode), {.lockWait = wait});
    *store = opened.release();
  });
}

int hxcrate_put(hxcrate_store* store, const char* path, const void* bytes, size_t size) {
  return write(store, path, bytes, size, &Store::create);
}

int hxcrate_append(hxcrate_store* store, const char* path, const void* bytes, size_t size) {
  return write(store, path, bytes, size, &Store::append);
}

int hxcrate_get(const hxcrate_store* store, const char* path, void** bytes, size_t* size) {
  *bytes = nullptr;
  *size = 0;
  return codeOf([&] {
    const std::vector<std::byte> all = storeOf(store).get(pathFrom(path));
    *bytes = copyOf(all);
    *size = all.size();
  });
}

int hxcrate_list(const hxcrate_store* store, const char* path,
                 int (*visit)(void* context, const hxcrate_member* member), void* context) {
  return codeOf([&] {
    const ListOptions options{.isSorted = true, .hasSizes = true};
    for (const ListedMember& found : storeOf(store).list(pathFrom(path), options)) {
      const bool isStore = found.kind == MemberKind::store;
      const hxcrate_member member = {found.path.c_str(), isStore, isStore ? 0 : found.size};
      if (visit(context, &member) != 0) return;
    }
  });
}

int hxcrate_commit(hxcrate_store* store) {
  return codeOf([&] { storeOf(store).commit(); });
}

int hxcrate_close(hxcrate_store* store) {
  const std::unique_ptr<hxcrate_store> owned(store);
  return owned == nullptr ? 0 : codeOf([&] { owned->store.close(); });
}

int hxcrate_abandon(hxcrate_store* store) {
  const std::unique_ptr<hxcrate_store> owned(store);
  return owned == nullptr ? 0 : codeOf([&] { owned->store.abandon(); });
}

const char* hxcrate_error_text() {
  return lastError ? lastError->what() : "out of memory";
}

int hxcrate_system_error() {
  const FileFailure* failure = lastError ? lastError->fileFailure() : nullptr;
  return failure != nullptr ? failure->reason.value() : 0;
}
