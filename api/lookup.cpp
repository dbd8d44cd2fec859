// What a Store tells of its members and gives of them at once.
#include <algorithm>
#include <array>

#include "file/format.h"
#include "hxcrate/store.hpp"
#include "member_cursor.h"
#include "member_path.h"
#include "opening.h"
#include "records/status.h"

namespace hxcrate {

namespace {

// The longest item that is read in one step with its record: at most a page.
constexpr std::size_t kReadAtOnce = 4096;

MemberStatus describeStore(const hx::Store& store) {
  return {MemberKind::store, 0, 0, store.directoryOffset};
}

}  // namespace

// Calls `use`(the store that holds the last component, its name). Throws as an open of the path.
template <typename Use>
auto Store::useMember(std::string_view path, Use use) const {
  const hx::Store* start = store();
  opening_->requireKept(*start);
  const std::string fault = findPathFault(path);
  if (!fault.empty()) {
    throw Error(Errc::badName, opening_->path(), join(pathOf(*start), path), fault);
  }
  const std::size_t split = path.rfind('/');
  if (split == path.npos) return use(store(), WideName(path));
  const Store holder = openStore(path.substr(0, split));
  return use(holder.store(), WideName(path.substr(split + 1)));
}

// Throws why the item was not to be had.
void Store::failItem(std::int32_t status, hx::Store* holder, std::string_view path) const {
  const WideName name(path.substr(path.rfind('/') + 1));
  std::int32_t unused = hx::kOk;
  const bool isStore =
      status == hx::kNotFound &&
      opening_->module()->findMember(holder, name.characters(), name.length(), &unused) != nullptr;
  opening_->fail(isStore ? static_cast<int>(Errc::isAStore) : status, join(pathOf(*store()), path));
}

View Store::view(std::string_view path) const {
  return useMember(path, [&](hx::Store* holder, const WideName& name) -> View {
    std::int32_t status = hx::kOk;
    hx::ItemView* view = opening_->module()->openView(opening_->module(), holder, name.characters(),
                                                      name.length(), &status);
    if (view == nullptr) failItem(status, holder, path);
    return {opening_, view};
  });
}

// Null when there is none.
hx::Member* Store::findMember(std::string_view path) const {
  return useMember(path, [&](hx::Store* holder, const WideName& name) -> hx::Member* {
    std::int32_t status = hx::kOk;
    hx::Member* found =
        opening_->module()->findMember(holder, name.characters(), name.length(), &status);
    if (status == hx::kNotLocked) opening_->fail(status, join(pathOf(*store()), path));
    return found;
  });
}

hx::ItemMember* Store::findItem(std::string_view path) const {
  return useMember(path, [&](hx::Store* holder, const WideName& name) {
    std::int32_t status = hx::kOk;
    hx::Member* found =
        opening_->module()->findMember(holder, name.characters(), name.length(), &status);
    const bool isItem = found != nullptr && found->kind == hx::kItemKind;
    if (!isItem) failItem(status == hx::kOk ? hx::kNotFound : status, holder, path);
    return hx::asItem(found);
  });
}

bool Store::exists(std::string_view path) const {
  try {
    return findMember(path) != nullptr;
  } catch (const Error& error) {
    if (error.errc() != Errc::notFound && error.errc() != Errc::isAnItem) throw;
    return false;
  }
}

MemberStatus Store::stat(std::string_view path) const {
  hx::Member* found = findMember(path);
  if (found == nullptr) opening_->fail(hx::kNotFound, join(pathOf(*store()), path));
  if (found->kind == hx::kStoreKind) return describeStore(*hx::asStore(found));
  hx::ItemMember* item = hx::asItem(found);
  std::int32_t status = hx::kOk;
  const std::int64_t size = opening_->module()->sizeOfItem(item, &status);
  if (size < 0) opening_->fail(status, join(pathOf(*store()), path));
  return {MemberKind::item, size, (size + pageSize() - 1) / pageSize(),
          static_cast<std::int64_t>(item->firstChunkOffset)};
}

Listing Store::list(std::string_view path, ListOptions options) const {
  const hx::Store* start = store();
  opening_->requireKept(*start);
  if (path.empty()) return {opening_, store_, options};
  return {opening_, openStore(path).store(), options};
}

std::int64_t Store::countHidden() const {
  MemberCursor cursor(opening_, store());
  for (std::string name; cursor.next(name) != nullptr;) {
  }
  return cursor.hidden();
}

// An item that fits, or as much of one that does not and is opened as `rest`.
std::size_t Store::readAtOnce(std::string_view path, std::span<std::byte> buffer,
                              View& rest) const {
  std::int64_t size = -1;
  useMember(path, [&](hx::Store* holder, const WideName& name) {
    std::int32_t status = hx::kOk;
    opening_->module()->readItem(opening_->module(), holder, name.characters(), name.length(),
                                 buffer.data(), static_cast<std::int32_t>(buffer.size()), &size,
                                 &status);
    if (status != hx::kOk) failItem(status, holder, path);
  });
  if (size < 0) rest = view(path);
  return static_cast<std::size_t>(std::max<std::int64_t>(size, 0));
}

std::vector<std::byte> Store::get(std::string_view path) const {
  std::array<std::byte, kReadAtOnce> bytes;
  View rest;
  const std::size_t count = readAtOnce(path, bytes, rest);
  if (rest.isOpen()) return rest.readAll();
  return {bytes.begin(), bytes.begin() + count};
}

std::string Store::getText(std::string_view path) const {
  std::array<std::byte, kReadAtOnce> bytes;
  View rest;
  const std::size_t count = readAtOnce(path, bytes, rest);
  if (rest.isOpen()) return rest.readText();
  return {reinterpret_cast<const char*>(bytes.data()), count};
}

std::size_t Store::get(std::string_view path, std::span<std::byte> buffer) const {
  View rest;
  const std::size_t count =
      readAtOnce(path, buffer.first(std::min(buffer.size(), kReadAtOnce)), rest);
  if (!rest.isOpen()) return count;
  const auto wanted = std::min(buffer.size(), static_cast<std::size_t>(rest.size()));
  rest.fill(buffer.first(wanted));
  return wanted;
}

}  // namespace hxcrate
