#include "hxcrate/store.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "hxcrate/error.hpp"
#include "member_path.h"
#include "store/status.h"
#include "tree.h"

namespace hxcrate {

namespace {

// The module is not told how long the buffer is. No name in an instance of our own has more than
// 64 characters; the rest is margin.
constexpr std::int32_t kNameBuffer = 256;

std::string join(const std::string& place, std::string_view path) {
  return place.empty() ? std::string(path) : place + "/" + std::string(path);
}

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
  hx::Store* release() { return std::exchange(store_, nullptr); }

 private:
  hx::Store* store_;
};

// Opens member paths below a store, one component at a time: the module would refuse a component of
// 64 bytes that has something behind it.
class MemberOpener {
 public:
  MemberOpener(Tree& tree, hx::Store* start, const std::string& place, std::string_view path)
      : tree_(tree),
        start_(start),
        place_(join(place, path)),
        names_(splitMemberPath(tree.path(), path)) {}

  hx::Store* openStore(std::uint32_t flags, Parents parents) {
    Step container(nullptr);
    return step(walk(container, parents), names_.back(), flags);
  }

  hx::ItemHandle* openItem(std::uint32_t flags, Parents parents) {
    Step container(nullptr);
    hx::Store* store = walk(container, parents);
    const std::u32string name = widenName(names_.back());
    std::int32_t status = hx::kOk;
    hx::ItemHandle* handle = tree_.module()->openItem(
        tree_.module(), store, name.data(), static_cast<std::int32_t>(name.size()), flags, &status);
    if (handle == nullptr) tree_.fail(status, place_);
    return handle;
  }

 private:
  // The store that holds the last component; `container` holds it open.
  hx::Store* walk(Step& container, Parents parents) {
    const std::uint32_t flags =
        parents == Parents::create ? hx::kUpdate | hx::kCreate : std::uint32_t{hx::kRead};
    hx::Store* store = start_;
    for (std::size_t i = 0; i + 1 < names_.size(); ++i) {
      store = step(store, names_[i], flags);
      container.enter(store);
    }
    return store;
  }

  hx::Store* step(hx::Store* store, std::string_view component, std::uint32_t flags) {
    const std::u32string name = widenName(component);
    std::int32_t status = hx::kOk;
    hx::Store* next = tree_.module()->openStore(
        tree_.module(), store, name.data(), static_cast<std::int32_t>(name.size()), flags, &status);
    if (next == nullptr) tree_.fail(status, place_);
    return next;
  }

  Tree& tree_;
  hx::Store* start_;
  std::string place_;
  std::vector<std::string_view> names_;
};

}  // namespace

void MemberRange::Iterator::advance() {
  char32_t next[kNameBuffer];
  const std::u32string last = widenName(member_.name);
  std::int32_t length = 0;
  std::int32_t kind = 0;
  const std::int32_t status = range_->store_->getNextMember(
      range_->store_, last.data(), static_cast<std::int32_t>(last.size()), next, &length, &kind);
  if (status == hx::kNotFound) {
    range_ = nullptr;
    return;
  }
  if (status != hx::kOk) range_->tree_->fail(status, range_->place_);
  member_.name = narrowName(range_->tree_->path(), {next, static_cast<std::size_t>(length)});
  member_.kind = kind == hx::kStoreKind ? MemberKind::store : MemberKind::item;
}

Store::Store(std::shared_ptr<Tree> tree, hx::Store* store, std::string place)
    : tree_(std::move(tree)), store_(store), place_(std::move(place)) {}

Store::Store(Store&& other) noexcept
    : tree_(std::move(other.tree_)),
      store_(std::exchange(other.store_, nullptr)),
      place_(std::move(other.place_)) {}

// The old store goes with `other`.
Store& Store::operator=(Store&& other) noexcept {
  std::swap(tree_, other.tree_);
  std::swap(store_, other.store_);
  std::swap(place_, other.place_);
  return *this;
}

Store::~Store() {
  release();
}

void Store::release() noexcept {
  if (store_ != nullptr && !hx::isRoot(store_)) store_->closeStore(store_);
  store_ = nullptr;
  tree_.reset();
}

void Store::close() {
  if (store_ == nullptr) return;
  if (hx::isRoot(store_)) {
    if (tree_.use_count() > 1) throw Error(Errc::membersOpen, path(), "");
    const std::shared_ptr<Tree> tree = std::move(tree_);
    store_ = nullptr;
    tree->close();
    return;
  }
  release();
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
  std::string place = join(place_, path);
  hx::Store* opened = MemberOpener(*tree_, start, place_, path).openStore(flags, parents);
  return {tree_, opened, std::move(place)};
}

template <typename Handle>
Handle Store::openItem(std::string_view path, std::uint32_t flags, Parents parents) const {
  hx::Store* start = store();
  std::string place = join(place_, path);
  hx::ItemHandle* opened = MemberOpener(*tree_, start, place_, path).openItem(flags, parents);
  return {tree_, opened, std::move(place)};
}

Reader Store::read(std::string_view path) const {
  return openItem<Reader>(path, hx::kRead, Parents::mustExist);
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
  return {tree_, store(), place_};
}

Blob Store::makeBlob() {
  hx::Store* source = store();
  if (!hx::isRoot(source) || !tree_->isInMemory()) throw Error(Errc::noBlob, path(), place_);
  std::shared_ptr<hx::Pool> pool = Engine::makePool(tree_->sharedEngine());
  std::uint64_t size = 0;
  const void* start = source->createBlobFromStore(source, &size, pool.get());
  if (start == nullptr) tree_->fail(hx::kNoMemory, place_);
  return {std::move(pool), {static_cast<const std::byte*>(start), size}};
}

const std::string& Store::path() const {
  store();
  return tree_->path();
}

std::int32_t Store::pageSize() const {
  const std::int32_t size = __atomic_load_n(&store()->root->pageSize, __ATOMIC_ACQUIRE);
  return size == 0 ? 4096 : size;
}

bool Store::isWritable() const {
  store();
  return tree_->writable();
}

std::error_code Store::damage() const {
  const std::int32_t status = store()->root->loadStatus;
  return status == hx::kOk ? std::error_code() : make_error_code(static_cast<Errc>(status));
}

void Store::requireWritable() const {
  if (!isWritable()) throw Error(Errc::readOnly, path(), place_);
}

hx::Store* Store::store() const {
  if (store_ == nullptr) throw Error(Errc::closed, "", place_);
  return store_;
}

}  // namespace hxcrate
