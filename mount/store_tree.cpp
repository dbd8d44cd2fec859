#include "mount/store_tree.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <utility>

#include "hxcrate/inspect.hpp"
#include "mount/mount_log.h"

namespace mounted {

namespace {

// A member's place in its file stays when the store grows, and serves as its inode number, with the
// number of the store above it. What lies nowhere yet gets one that no file is long enough for.
constexpr std::uint64_t kRootInode = 1;
constexpr std::uint64_t kNowhere = std::uint64_t{1} << 47;
constexpr int kSourceShift = 48;

constexpr std::int64_t kNanoseconds = 1'000'000'000;
constexpr std::size_t kLongestName = 255;  // bytes, of what the kernel can show

constexpr mode_t kFolderMode = S_IFDIR | 0555;
constexpr mode_t kFileMode = S_IFREG | 0444;
constexpr std::int64_t kBlock = 512;        // bytes, what st_blocks counts
constexpr std::size_t kCompared = 1 << 17;  // bytes at once

// Closed where none can be read, which is said in the log where there is one.
hxcrate::View openManifest(const hxcrate::Store& store, const std::string& name) {
  try {
    if (store.exists(tool::kManifestName)) return store.view(tool::kManifestName);
  } catch (const hxcrate::Error& error) {
    say(name + ": " + error.reason());
  }
  return {};
}

bool isShowable(std::string_view name) {
  return name != "." && name != ".." && name.find('/') == name.npos && name.find('\0') == name.npos;
}

std::string join(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.empty()) path += '/';
  return path.append(name);
}

// What lies behind a URL is this user's, and of now.
struct stat inspect(const std::string& path) {
  struct stat file {};
  if (hxcrate::isUrl(path)) {
    file.st_mtim.tv_sec = ::time(nullptr);
    file.st_uid = ::geteuid();
    file.st_gid = ::getegid();
    file.st_size = hxcrate::InspectedFile(path).length();
  } else if (::stat(path.c_str(), &file) != 0) {
    throw std::system_error(errno, std::generic_category(), path);
  }
  return file;
}

}  // namespace

StoreTree::StoreTree(const std::vector<Source>& sources, std::chrono::seconds lockWait) {
  hxcrate::Session session({.lockWait = lockWait});
  const bool isOneStore = sources.front().name.empty();
  nodes_.add(kRoot, "", kRootInode, 0);
  if (!isOneStore) folders_.push_back({{}, 0, kRoot, 1, static_cast<NodeId>(sources.size())});
  for (const Source& source : sources)
    addStore(session, source);
  for (std::size_t i = isOneStore ? 0 : 1; i < folders_.size(); ++i)
    fill(i);
  nodes_.index();
}

void StoreTree::readManifests() {
  try {
    std::vector<ManifestIndex> manifests;
    for (Origin& origin : origins_)
      manifests.emplace_back(std::exchange(origin.manifest, {}), origin.manifestName);
    applyManifests(manifests);
  } catch (const std::exception& error) {
    say(std::string("not all modes, times and links are shown: ") + error.what());
  }
  ::malloc_trim(0);  // or the program keeps 1,500 bytes a member of what only the reading took
}

void StoreTree::applyManifests(const std::vector<ManifestIndex>& manifests) {
  const NodeId members = nodes_.size();
  for (Folder& folder : folders_)
    if (folder.store.isOpen()) applyManifest(folder, manifests[folder.source]);
  if (nodes_.size() > members) nodes_.index();
  for (std::uint32_t i = 0; i < manifests.size(); ++i)
    joinHardLinks(i, manifests[i]);
}

void StoreTree::addStore(hxcrate::Session& session, const Source& source) {
  hxcrate::Store store = session.open(source.file, hxcrate::Mode::read, {.acceptDamaged = true});
  const std::error_code damage = store.damage();
  const std::string shown = hxcrate::showPath(source.file);
  if (damage) say(shown + ": " + damage.message() + ": what can be read of it is shown");
  const struct stat file = inspect(source.file);
  const std::int64_t modified = file.st_mtim.tv_sec * kNanoseconds + file.st_mtim.tv_nsec;
  const auto number = static_cast<std::uint32_t>(origins_.size());
  const std::string manifestName = shown + ": " + std::string(tool::kManifestName);
  origins_.push_back({{modified, kFileMode, file.st_uid, file.st_gid},
                      file.st_size,
                      store.pageSize(),
                      source.inside,
                      manifestName,
                      openManifest(store, manifestName)});
  if (!source.inside.empty()) store = store.openStore(source.inside);
  NodeId node = kRoot;
  if (!source.name.empty()) {
    const std::uint64_t inode = kNowhere | std::uint64_t{number} << kSourceShift;
    node = nodes_.add(kRoot, source.name, inode, static_cast<std::uint32_t>(folders_.size()));
  }
  folders_.push_back({std::move(store), number, node});
}

void StoreTree::fill(std::size_t folder) {
  const NodeId first = nodes_.size();
  leftOut_ += folders_[folder].store.countHidden();
  for (const hxcrate::Member& member : folders_[folder].store.members())
    addMember(folder, member);
  folders_[folder].first = first;
  folders_[folder].count = nodes_.size() - first;
}

void StoreTree::addMember(std::size_t folder, const hxcrate::Member& member) {
  if (!isShowable(member.name)) {
    ++leftOut_;
    return;
  }
  const std::uint32_t source = folders_[folder].source;
  const bool isStore = member.kind == hxcrate::MemberKind::store;
  const auto place = static_cast<std::uint64_t>(member.place);
  const std::uint64_t inode =
      (place != 0 ? place : kNowhere + nodes_.size()) | std::uint64_t{source} << kSourceShift;
  const std::uint32_t number = isStore ? static_cast<std::uint32_t>(folders_.size()) : kNone;
  const NodeId node = nodes_.add(folders_[folder].node, member.name, inode, number);
  if (isStore) folders_.push_back({folders_[folder].store.openStore(member.name), source, node});
}

void StoreTree::applyManifest(Folder& folder, const ManifestIndex& manifest) {
  if (manifest.isEmpty()) return;
  const Origin& origin = origins_[folder.source];
  const std::string path = folder.store.place();
  setAttributes(folder.node, manifest.find(path, true), origin);
  for (NodeId id = folder.first; id < folder.first + folder.count; ++id) {
    if (isFolder(id)) continue;
    setAttributes(id, manifest.find(join(path, nodes_.nameOf(id)), false), origin);
  }
  folder.firstLink = nodes_.size();
  const auto [first, last] = manifest.linksIn(path);
  for (auto link = first; link != last; ++link) {
    const auto& [whole, told] = *link->second;
    addLink(folder, std::string_view(whole).substr(path.empty() ? 0 : path.size() + 1), told);
  }
  folder.links = nodes_.size() - folder.firstLink;
}

// One that the manifest alone has.
void StoreTree::addLink(const Folder& folder, std::string_view name,
                        const tool::MemberAttributes& told) {
  const Origin& origin = origins_[folder.source];
  if (!isShowable(name) || name.empty() || name.size() > kLongestName) {
    say(origin.manifestName + ": a link is left out that no folder can show");
  } else if (name.size() > hxcrate::kNameCapacity || !folder.store.exists(name)) {
    const std::uint64_t inode = (kNowhere + nodes_.size()) | std::uint64_t{folder.source}
                                                                 << kSourceShift;
    setAttributes(nodes_.add(folder.node, name, inode, kNone), &told, origin);
  }
}

void StoreTree::setAttributes(NodeId id, const tool::MemberAttributes* told, const Origin& origin) {
  if (told == nullptr) return;
  Attributes usual = origin.usual;
  if (isFolder(id)) usual.mode = kFolderMode;
  nodes_[id].attributes = attributes_.add(*told, usual);
}

// Files that a manifest calls one and the same, as far as they are: items may have grown since.
void StoreTree::joinHardLinks(std::uint32_t source, const ManifestIndex& manifest) {
  for (const auto& [path, told] : manifest.members()) {
    if (told.type != tool::MemberAttributes::Type::hardLink) continue;
    const NodeId link = findPath(source, path);
    const NodeId first = findPath(source, told.target);
    if (link == kNoNode || first == kNoNode || link == first) continue;
    if (nodes_[link].attributes != kNone && nodes_[first].attributes != kNone) {
      joinHardLink(link, first);
    }
  }
}

void StoreTree::joinHardLink(NodeId link, NodeId first) {
  Attributes& one = attributes_[nodes_[first].attributes];
  Attributes& other = attributes_[nodes_[link].attributes];
  if (!S_ISREG(one.mode) || !S_ISREG(other.mode) || one.first != kNoNode) return;
  std::error_code ignored;
  hxcrate::captureError(ignored, [&] {
    if (!haveEqualBytes(link, first)) return;
    other.first = first;
    ++one.links;
  });
}

// A program that copies takes the bytes of one for those of both.
bool StoreTree::haveEqualBytes(NodeId one, NodeId other) {
  const std::int64_t size = sizeOf(one);
  std::vector<std::byte> bytes(kCompared), others(kCompared);
  bool isEqual = size == sizeOf(other);
  for (std::int64_t at = 0; isEqual && at < size; at += std::ssize(bytes)) {
    const std::size_t count = viewOf(one)->view.readAt(at, bytes);
    isEqual = count > 0 && viewOf(other)->view.readAt(at, others) == count &&
              std::equal(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count),
                         others.begin());
  }
  return isEqual;
}

// Of a path in the whole store, if that part of it is mounted; kNoNode: there is none.
NodeId StoreTree::findPath(std::uint32_t source, std::string_view path) const {
  const std::string& inside = origins_[source].inside;
  if (!inside.empty()) {
    if (!path.starts_with(inside) || !path.substr(inside.size()).starts_with('/')) return kNoNode;
    path.remove_prefix(inside.size() + 1);
  }
  NodeId id = folders_.front().store.isOpen() ? kRoot : source + 1;
  while (!path.empty() && id != kNoNode) {
    const std::size_t end = std::min(path.find('/'), path.size());
    id = nodes_.find(id, path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return id;
}

struct statvfs StoreTree::totals() const {
  struct statvfs totals {};
  totals.f_bsize = totals.f_frsize = static_cast<unsigned long>(origins_.front().pageSize);
  for (const Origin& origin : origins_)
    totals.f_blocks += static_cast<fsblkcnt_t>(origin.bytes) / totals.f_frsize;
  totals.f_files = nodes_.size();
  totals.f_namemax = kLongestName;
  totals.f_flag = ST_RDONLY;
  return totals;
}

Attributes StoreTree::attributesOf(NodeId id) const {
  if (nodes_[id].attributes != kNone) return attributes_[nodes_[id].attributes];
  Attributes usual = origins_[folderOf(isFolder(id) ? id : nodes_[id].parent).source].usual;
  if (isFolder(id)) usual.mode = kFolderMode;
  return usual;
}

struct stat StoreTree::describe(NodeId id) const {
  const Attributes attributes = attributesOf(id);
  const NodeId first = attributes.first != kNoNode ? attributes.first : id;
  struct stat status {};
  status.st_ino = nodes_[first].inode;
  status.st_mode = attributes.mode;
  status.st_nlink = attributesOf(first).links;  // a folder's subfolders are not counted
  status.st_uid = attributes.user;
  status.st_gid = attributes.group;
  std::int64_t seconds = attributes.modified / kNanoseconds;
  if (attributes.modified % kNanoseconds < 0) --seconds;
  status.st_mtim = {seconds, attributes.modified - seconds * kNanoseconds};
  status.st_atim = status.st_ctim = status.st_mtim;
  return status;
}

struct stat StoreTree::describeWhole(NodeId id) {
  struct stat status = describe(id);
  if (S_ISREG(status.st_mode)) status.st_size = sizeOf(id);
  if (const std::string* target = linkTargetOf(id)) status.st_size = std::ssize(*target);
  status.st_blocks = (status.st_size + kBlock - 1) / kBlock;
  return status;
}

const std::string* StoreTree::linkTargetOf(NodeId id) const {
  if (nodes_[id].attributes == kNone) return nullptr;
  const Attributes& attributes = attributes_[nodes_[id].attributes];
  return S_ISLNK(attributes.mode) ? &attributes_.targetOf(attributes) : nullptr;
}

std::string StoreTree::checksumOf(NodeId id) {
  if (nodes_[id].attributes == kNone) return "";
  const Attributes& attributes = attributes_[nodes_[id].attributes];
  const auto* checksum = S_ISREG(attributes.mode) ? attributes_.checksumOf(attributes) : nullptr;
  return checksum != nullptr && checksum->size == sizeOf(id) ? tool::toHex(checksum->digest) : "";
}

hxcrate::MemberStatus StoreTree::statusOf(NodeId id) const {
  return holderOf(id).stat(nodes_.nameOf(id));
}

std::int64_t StoreTree::placeOf(NodeId id) const {
  const std::uint64_t place = nodes_[id].inode & ((std::uint64_t{1} << kSourceShift) - 1);
  return place < kNowhere ? static_cast<std::int64_t>(place) : 0;
}

std::int64_t StoreTree::sizeOf(NodeId id) {
  const std::atomic_ref<std::int64_t> known(nodes_[id].size);
  std::int64_t size = known.load(std::memory_order_relaxed);
  if (size != kSizeUnknown) return size;
  size = statusOf(id).size;
  known.store(size, std::memory_order_relaxed);
  return size;
}

std::size_t StoreTree::read(NodeId id, std::int64_t offset, std::span<std::byte> buffer) {
  const std::int64_t left = std::max<std::int64_t>(sizeOf(id) - offset, 0);
  buffer = buffer.first(std::min(buffer.size(), static_cast<std::size_t>(left)));
  if (offset == 0 && std::ssize(buffer) == left) {
    return holderOf(id).get(nodes_.nameOf(id), buffer);
  }
  const std::shared_ptr<OpenView> opened = viewOf(id);
  std::size_t done = 0;
  while (done < buffer.size())
    done += opened->view.readAt(offset + static_cast<std::int64_t>(done), buffer.subspan(done));
  return done;
}

// That of another item makes room: whoever reads it still keeps it until then.
std::shared_ptr<StoreTree::OpenView> StoreTree::viewOf(NodeId id) {
  std::atomic<std::shared_ptr<OpenView>>& kept = views_[id % kKeptViews];
  std::shared_ptr<OpenView> opened = kept.load();
  if (opened != nullptr && opened->id == id) return opened;
  opened = std::make_shared<OpenView>(OpenView{id, holderOf(id).view(nodes_.nameOf(id))});
  kept.store(opened);
  return opened;
}

bool StoreTree::isFirstComplaint(NodeId id) {
  return !std::atomic_ref(nodes_[id].isTold).exchange(true);
}

}  // namespace mounted
