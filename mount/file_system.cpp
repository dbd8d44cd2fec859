#include "mount/file_system.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <string>
#include <vector>

#include "mount/mount_log.h"

namespace mounted {

namespace {

constexpr double kForEver = 1e9;  // seconds

FileSystem& systemOf(fuse_req_t request) {
  return *static_cast<FileSystem*>(fuse_req_userdata(request));
}

// The kernel's numbers begin with that of the root, 1.
NodeId nodeOf(fuse_ino_t number) {
  return static_cast<NodeId>(number - FUSE_ROOT_ID);
}

void complainOf(StoreTree& tree, NodeId id, const hxcrate::Error& error) {
  if (!tree.isFirstComplaint(id)) return;
  say(std::string(error.what()) + ", in what begins at byte " + std::to_string(tree.placeOf(id)) +
      " of the file");
}

// Does what answers the request about a node; what it throws is the answer.
template <typename Answer>
void answer(fuse_req_t request, NodeId id, Answer give) {
  FileSystem& system = systemOf(request);
  system.noteUse();
  try {
    give(system.tree());
  } catch (const hxcrate::Error& error) {
    complainOf(system.tree(), id, error);
    fuse_reply_err(request, error.errc() == hxcrate::Errc::noMemory ? ENOMEM : EIO);
  } catch (const std::bad_alloc&) {
    fuse_reply_err(request, ENOMEM);
  }
}

fuse_entry_param entryOf(StoreTree& tree, NodeId id) {
  fuse_entry_param entry{};
  entry.ino = id + FUSE_ROOT_ID;
  entry.attr = tree.describeWhole(id);
  entry.attr_timeout = entry.entry_timeout = kForEver;
  return entry;
}

void initialize(void* data, fuse_conn_info* connection) {
  auto& system = *static_cast<FileSystem*>(data);
  system.opensAlone = (connection->capable & FUSE_CAP_NO_OPEN_SUPPORT) != 0;
  system.opensFoldersAlone = (connection->capable & FUSE_CAP_NO_OPENDIR_SUPPORT) != 0;
  connection->want &= ~unsigned{FUSE_CAP_AUTO_INVAL_DATA};
  connection->want |= connection->capable & (FUSE_CAP_CACHE_SYMLINKS | FUSE_CAP_ASYNC_READ);
}

void lookUp(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const NodeId id = systemOf(request).tree().nodes().find(nodeOf(parent), name);
  if (id != kNoNode) systemOf(request).noteLookUp();
  answer(request, id, [&](StoreTree& tree) {
    fuse_entry_param entry{};
    entry.entry_timeout = kForEver;  // also of what is not there
    if (id != kNoNode) entry = entryOf(tree, id);
    fuse_reply_entry(request, &entry);
  });
}

void getAttributes(fuse_req_t request, fuse_ino_t number, fuse_file_info*) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    const struct stat status = tree.describeWhole(nodeOf(number));
    fuse_reply_attr(request, &status, kForEver);
  });
}

// Keeps its memory from one request of a thread to the next.
std::span<char> bufferOf(std::size_t size) {
  thread_local std::vector<char> buffer;
  if (buffer.size() < size) buffer.resize(size);
  return std::span(buffer).first(size);
}

// The first of these is the last where the kernel goes on by itself.
void replyOpen(fuse_req_t request, fuse_file_info* file, bool opensAlone) {
  systemOf(request).noteUse();
  if (opensAlone) {
    fuse_reply_err(request, ENOSYS);
  } else {
    fuse_reply_open(request, file);
  }
}

void openFile(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
  file->keep_cache = 1;
  replyOpen(request, file, systemOf(request).opensAlone);
}

void readFile(fuse_req_t request, fuse_ino_t number, std::size_t size, off_t offset,
              fuse_file_info*) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    const std::span<char> buffer = bufferOf(size);
    const std::size_t count = tree.read(nodeOf(number), offset, std::as_writable_bytes(buffer));
    fuse_reply_buf(request, buffer.data(), count);
  });
}

// One reply's worth of a folder. Its entries are numbered: 0 is ".", 1 "..", and 2 its first
// member. The kernel makes a file of every name that comes with attributes, which takes it 2 us,
// and can't know whether anybody wants them. So they come with the first few names, and with others
// as FileSystem::foresee() says.
class FolderReply {
 public:
  FolderReply(fuse_req_t request, StoreTree& tree, std::size_t size, bool isPlus)
      : request_(request), tree_(tree), room_(bufferOf(size)), isPlus_(isPlus) {}

  void send(NodeId folder, off_t from) {
    const Folder& members = tree_.folderOf(folder);
    const off_t end = static_cast<off_t>(members.size()) + 2;
    for (off_t i = from; i < end; ++i) {
      const bool fits = i == 0   ? add(".", folder, i)
                        : i == 1 ? add("..", tree_.nodes()[folder].parent, i)
                                 : addMember(members[static_cast<NodeId>(i - 2)], i);
      if (!fits) break;
    }
    fuse_reply_buf(request_, room_.data(), used_);
  }

 private:
  static constexpr off_t kFew = 8;

  // Only kind and number count of them: the kernel knows the rest.
  bool add(const char* name, NodeId id, off_t i) {
    fuse_entry_param entry{};
    entry.attr = tree_.describe(id);
    return append(name, entry, i);
  }

  bool addMember(NodeId id, off_t i) {
    fuse_entry_param entry{};
    entry.attr = tree_.describe(id);
    try {
      if (isPlus_ && (i < kFew || systemOf(request_).foresee())) entry = entryOf(tree_, id);
    } catch (const hxcrate::Error&) {
      // Whoever asks for it alone is told.
    }
    return append(tree_.nodes().nameOf(id).data(), entry, i);
  }

  bool append(const char* name, const fuse_entry_param& entry, off_t i) {
    const std::span<char> rest = room_.subspan(used_);
    const std::size_t count =
        isPlus_ ? fuse_add_direntry_plus(request_, rest.data(), rest.size(), name, &entry, i + 1)
                : fuse_add_direntry(request_, rest.data(), rest.size(), name, &entry.attr, i + 1);
    if (count > rest.size()) return false;
    used_ += count;
    return true;
  }

  fuse_req_t request_;
  StoreTree& tree_;
  std::span<char> room_;
  std::size_t used_ = 0;
  bool isPlus_;
};

void openFolder(fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
  file->keep_cache = file->cache_readdir = 1;
  replyOpen(request, file, systemOf(request).opensFoldersAlone);
}

void readFolder(fuse_req_t request, fuse_ino_t number, std::size_t size, off_t offset,
                fuse_file_info*) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    FolderReply(request, tree, size, false).send(nodeOf(number), offset);
  });
}

void readFolderPlus(fuse_req_t request, fuse_ino_t number, std::size_t size, off_t offset,
                    fuse_file_info*) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    FolderReply(request, tree, size, true).send(nodeOf(number), offset);
  });
}

void getTotals(fuse_req_t request, fuse_ino_t number) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    const struct statvfs totals = tree.totals();
    fuse_reply_statfs(request, &totals);
  });
}

// A size of 0 asks for that of the answer.
void replyBytes(fuse_req_t request, std::string_view bytes, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, bytes.size());
  } else if (bytes.size() > size) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, bytes.data(), bytes.size());
  }
}

constexpr std::string_view kOffset = "user.hxcrate.offset";
constexpr std::string_view kPages = "user.hxcrate.pages";
constexpr std::string_view kChecksum = "user.hxcrate.sha256";

// Empty: it has none of that name.
std::string extendedOf(StoreTree& tree, NodeId id, std::string_view name) {
  if (tree.isFolder(id) || tree.linkTargetOf(id) != nullptr) return "";
  if (name == kOffset) return std::to_string(tree.statusOf(id).place);
  if (name == kPages) return std::to_string(tree.statusOf(id).pages);
  return name == kChecksum ? tree.checksumOf(id) : "";
}

void getExtended(fuse_req_t request, fuse_ino_t number, const char* name, std::size_t size) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    const std::string value = extendedOf(tree, nodeOf(number), name);
    if (value.empty()) {
      // Of kinds that nothing here has, `ls -l` asks no further file then.
      fuse_reply_err(request, std::string_view(name).starts_with("user.") ? ENODATA : EOPNOTSUPP);
    } else {
      replyBytes(request, value, size);
    }
  });
}

void listExtended(fuse_req_t request, fuse_ino_t number, std::size_t size) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    std::string names;
    for (const std::string_view name : {kOffset, kPages, kChecksum})
      if (!extendedOf(tree, nodeOf(number), name).empty()) names.append(name).push_back('\0');
    replyBytes(request, names, size);
  });
}

void readLink(fuse_req_t request, fuse_ino_t number) {
  answer(request, nodeOf(number), [&](StoreTree& tree) {
    fuse_reply_readlink(request, tree.linkTargetOf(nodeOf(number))->c_str());
  });
}

fuse_lowlevel_ops listOperations() {
  fuse_lowlevel_ops operations{};
  operations.init = initialize;
  operations.lookup = lookUp;
  operations.getattr = getAttributes;
  operations.readlink = readLink;
  operations.open = openFile;
  operations.read = readFile;
  operations.opendir = openFolder;
  operations.readdir = readFolder;
  operations.readdirplus = readFolderPlus;
  operations.statfs = getTotals;
  operations.getxattr = getExtended;
  operations.listxattr = listExtended;
  return operations;
}

}  // namespace

const fuse_lowlevel_ops& FileSystem::operations() {
  static const fuse_lowlevel_ops operations = listOperations();
  return operations;
}

void FileSystem::noteLookUp() {
  constexpr int kWorth = 16;
  constexpr int kMost = 100'000;
  if (foreseen_.load(std::memory_order_relaxed) < kMost) {
    foreseen_.fetch_add(kWorth, std::memory_order_relaxed);
  }
}

bool FileSystem::foresee() {
  return foreseen_.load(std::memory_order_relaxed) > 0 &&
         foreseen_.fetch_sub(1, std::memory_order_relaxed) > 0;
}

void FileSystem::noteUse() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  lastUse_.store(std::chrono::duration_cast<std::chrono::seconds>(now).count(),
                 std::memory_order_relaxed);
}

}  // namespace mounted
