#include "hxcrate/store.hpp"

#include <atomic>
#include <utility>

#include "file/format.h"
#include "hxcrate/error.hpp"
#include "hxcrate/session.hpp"
#include "member_cursor.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

static_assert(kNameCapacity == hx::kStoredNameLength);
static_assert(kUsualPageSize == hx::kDefaultPageSize);

namespace {

// One more opening of a nested store, given back at the end.
class Step {
 public:
  explicit Step(hx::Store* store) : store_(store) {}
  ~Step() { enter(nullptr); }
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;

  void enter(hx::Store* next) {
    hx::Store* left = std::exchange(store_, next);
    if (left != nullptr) left->closeStore(left);
  }
  bool isOpen() const { return store_ != nullptr; }

 private:
  hx::Store* store_;
};

// Opens member paths below a store, one component at a time: the module would refuse a component of
// 64 bytes that has something behind it.
class MemberOpener {
 public:
  // Throws badName before anything is opened or made.
  MemberOpener(Opening& opening, hx::Store* start, std::string_view path)
      : opening_(opening), start_(start), path_(path) {
    const std::string fault = findPathFault(path);
    if (!fault.empty()) throw Error(Errc::badName, opening.path(), place(), fault);
  }

  hx::Store* openStore(std::uint32_t flags, Parents parents) const {
    Step container(nullptr);
    return step(walk(container, parents), lastName(), flags);
  }

  hx::ItemHandle* openItem(std::uint32_t flags, Parents parents) const {
    Step container(nullptr);
    hx::Store* store = walk(container, parents);
    std::int32_t status = hx::kOk;
    hx::ItemHandle* handle = tryItem(store, lastName(), flags, status);
    if (handle != nullptr) return handle;
    const bool isOther = status == hx::kNotFound || status == hx::kExists;
    fail(isOther && isStore(store, lastName()) ? Errc::isAStore : static_cast<Errc>(status));
  }

 private:
  // The store that holds the last component; `container` holds it open.
  hx::Store* walk(Step& container, Parents parents) const {
    const std::uint32_t flags =
        parents == Parents::create ? hx::kUpdate | hx::kCreate : std::uint32_t{hx::kRead};
    hx::Store* store = start_;
    std::string_view rest = path_;
    for (std::size_t end = rest.find('/'); end != rest.npos; end = rest.find('/')) {
      store = step(store, rest.substr(0, end), flags);
      container.enter(store);
      rest.remove_prefix(end + 1);
    }
    return store;
  }

  std::string_view lastName() const { return path_.substr(path_.rfind('/') + 1); }

  hx::Store* step(hx::Store* store, std::string_view component, std::uint32_t flags) const {
    std::int32_t status = hx::kOk;
    if (hx::Store* next = tryStore(store, component, flags, status)) return next;
    const bool isOther = status == hx::kNotFound || status == hx::kExists;
    fail(isOther && isItem(store, component) ? Errc::isAnItem : static_cast<Errc>(status));
  }

  hx::Store* tryStore(hx::Store* store, std::string_view component, std::uint32_t flags,
                      std::int32_t& status) const {
    const WideName name(component);
    return opening_.module()->openStore(opening_.module(), store, name.characters(), name.length(),
                                        flags, &status);
  }

  hx::ItemHandle* tryItem(hx::Store* store, std::string_view component, std::uint32_t flags,
                          std::int32_t& status) const {
    const WideName name(component);
    return opening_.module()->openItem(opening_.module(), store, name.characters(), name.length(),
                                       flags, &status);
  }

  bool isStore(hx::Store* store, std::string_view component) const {
    std::int32_t status = hx::kOk;
    return Step(tryStore(store, component, hx::kRead, status)).isOpen();
  }

  // An exclusive open finds a member of either kind, and opens none.
  bool isItem(hx::Store* store, std::string_view component) const {
    if (isStore(store, component)) return false;
    std::int32_t status = hx::kOk;
    tryItem(store, component, hx::kExclusive, status);
    return status == hx::kExists;
  }

  std::string place() const { return join(pathOf(*start_), path_); }

  [[noreturn]] void fail(Errc code) const {
    opening_.fail(static_cast<std::int32_t>(code), place());
  }

  Opening& opening_;
  hx::Store* start_;
  std::string_view path_;
};

// Counts a writer that is about to be, until it is.
class WriterCount {
 public:
  explicit WriterCount(std::atomic<int>& count) : count_(&count) { ++*count_; }
  ~WriterCount() {
    if (count_ != nullptr) --*count_;
  }
  WriterCount(const WriterCount&) = delete;
  WriterCount& operator=(const WriterCount&) = delete;

  void keep() { count_ = nullptr; }

 private:
  std::atomic<int>* count_;
};

}  // namespace

MemberRange::Iterator MemberRange::begin() const {
  if (opening_ == nullptr) throw Error(Errc::closed, "", "");
  return Iterator(std::make_shared<MemberCursor>(opening_, store_));
}

Store::Store(std::shared_ptr<Opening> opening, hx::Store* store) noexcept
    : opening_(std::move(opening)), store_(store) {}

Store::Store(Store&& other) noexcept
    : opening_(std::move(other.opening_)), store_(std::exchange(other.store_, nullptr)) {}

Store& Store::operator=(Store&& other) noexcept {
  Store taken(std::move(other));
  std::swap(opening_, taken.opening_);
  std::swap(store_, taken.store_);
  return *this;
}

Store::~Store() {
  const bool isUpdate = store_ != nullptr && hx::isRoot(store_) && opening_->writable();
  if (isUpdate && opening_->isUnwinding()) {
    opening_->engine().reportFailureOf(opening_->path(), [this] { opening_->abandon(); });
  }
  release();
}

void Store::release() noexcept {
  if (store_ != nullptr && !hx::isRoot(store_)) store_->closeStore(store_);
  store_ = nullptr;
  opening_.reset();
}

void Store::close() {
  if (store_ == nullptr) return;
  if (hx::isRoot(store_)) {
    if (opening_.use_count() > 1) throw Error(Errc::membersOpen, path(), "");
    const std::shared_ptr<Opening> opening = std::move(opening_);
    store_ = nullptr;
    opening->close();
    return;
  }
  release();
}

// A store that was lost is closed before it is told, so that the failure says what became of it.
void Store::commit() {
  requireWritable();
  const hx::Store& place = *store();
  const std::shared_ptr<Opening> opening = opening_;
  try {
    opening->requireKept(place);
    opening->commit(pathOf(place));
  } catch (const Error& error) {
    if (error.errc() != Errc::fileFailed) throw;
    release();
    if (opening.use_count() == 1) opening->close();
    opening->markTold();
    throw;
  }
}

void Store::abandon() {
  if (store_ == nullptr) return;
  const std::shared_ptr<Opening> opening = opening_;
  if (opening->writable()) opening->abandon();
  release();
  if (opening.use_count() == 1) opening->close();
}

Store Store::openStore(std::string_view path) const {
  return openNested(path, hx::kRead, Parents::mustExist);
}

Store Store::createStore(std::string_view path, Parents parents) {
  requireWritable();
  return openNested(path, hx::kUpdate | hx::kCreate | hx::kExclusive, parents);
}

Store Store::openOrCreateStore(std::string_view path, Parents parents) {
  requireWritable();
  return openNested(path, hx::kUpdate | hx::kCreate, parents);
}

Store Store::openNested(std::string_view path, std::uint32_t flags, Parents parents) const {
  hx::Store* start = store();
  requireSound(*start, flags);
  return {opening_, MemberOpener(*opening_, start, path).openStore(flags, parents)};
}

template <typename Handle>
Handle Store::openItem(std::string_view path, std::uint32_t flags, Parents parents) const {
  hx::Store* start = store();
  requireSound(*start, flags);
  if ((flags & hx::kUpdate) == 0) {
    return {opening_, MemberOpener(*opening_, start, path).openItem(flags, parents)};
  }
  WriterCount count(opening_->writers());
  Handle handle(opening_, MemberOpener(*opening_, start, path).openItem(flags, parents));
  count.keep();
  return handle;
}

// Behind a URL the records that an opening goes through are fetched with what will be read. Where
// small pages lie anywhere, to read each takes far longer than to open the item and to find that
// its records are damaged, which many items may share.
Reader Store::read(std::string_view path) const {
  const hx::Store& start = *store();
  const bool isRemote = opening_->engine().remoteFile() != nullptr;
  if (!opening_->isReadFile() || isRemote || pageSize() < kNewPageSize) {
    return openItem<Reader>(path, hx::kRead, Parents::mustExist);
  }
  requireSound(start, hx::kRead);
  return {opening_, findItem(path)};
}

Writer Store::create(std::string_view path, Parents parents) {
  requireWritable();
  return openItem<Writer>(path, hx::kUpdate | hx::kCreate | hx::kExclusive, parents);
}

Writer Store::append(std::string_view path, Parents parents) {
  requireWritable();
  return openItem<Writer>(path, hx::kUpdate | hx::kCreate, parents);
}

MemberRange Store::members() const {
  const hx::Store* start = store();
  opening_->requireKept(*start);
  return {opening_, store_};
}

Blob Store::makeBlob() {
  hx::Store* source = store();
  if (!hx::isRoot(source) || !opening_->isInMemory()) throw Error(Errc::noBlob, path(), place());
  std::shared_ptr<hx::Pool> pool = Engine::makePool(opening_->sharedEngine());
  std::uint64_t size = 0;
  const void* start = source->createBlobFromStore(source, &size, pool.get());
  if (start == nullptr) opening_->fail(hx::kNoMemory, place());
  return {std::move(pool), {static_cast<const std::byte*>(start), size}};
}

const std::string& Store::path() const& {
  store();
  return opening_->path();
}

std::string Store::place() const {
  return store_ != nullptr ? pathOf(*store_) : std::string();
}

std::int32_t Store::pageSize() const {
  const std::int32_t size = __atomic_load_n(&store()->root->pageSize, __ATOMIC_ACQUIRE);
  return size == 0 ? kUsualPageSize : size;
}

std::int64_t Store::bytesRead() const {
  store();
  return opening_->bytesRead();
}

std::optional<std::int64_t> Store::openedLength() const {
  store();
  return opening_->openedLength();
}

bool Store::isIn(int file) const {
  store();
  return opening_->isIn(file);
}

bool Store::isWritable() const {
  store();
  return opening_->writable();
}

std::error_code Store::damage() const {
  const std::int32_t status = store()->root->loadStatus;
  return status == hx::kOk ? std::error_code() : make_error_code(static_cast<Errc>(status));
}

// Who writes is told what the update was lost by.
void Store::requireSound(const hx::Store& start, std::uint32_t flags) const {
  (flags & hx::kUpdate) != 0 ? opening_->requireWhole(start) : opening_->requireKept(start);
}

void Store::requireWritable() const {
  if (!isWritable()) throw Error(Errc::readOnly, path(), place());
}

hx::Store* Store::store() const {
  if (store_ == nullptr) throw Error(Errc::closed, "", "");
  return store_;
}

}  // namespace hxcrate
