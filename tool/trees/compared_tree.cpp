#include "compared_tree.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "directory.h"
#include "store_walk.h"
#include "tool/files/write_limits.h"
#include "tool/manifest/checksum_list.h"

namespace tool {

namespace {

using Kind = ComparedMember::Kind;

class StoreTree : public ComparedTree {
 public:
  explicit StoreTree(hxcrate::Store store) { stores_.push_back(std::move(store)); }

  void takeLinks(ExitCode& outcome) {
    manifest_ = readOwnManifest(store(), outcome);
    if (!manifest_) return;
    for (const auto& [path, member] : manifest_->members()) {
      if (member.type != MemberAttributes::Type::symbolicLink) continue;
      const std::size_t slash = path.rfind('/');
      const bool isInTop = slash == path.npos;
      links_[isInTop ? "" : path.substr(0, slash)][path.substr(isInTop ? 0 : slash + 1)] =
          member.target;
    }
  }

  std::vector<ComparedMember> list() override {
    std::vector<ComparedMember> members;
    // The path of each store would take as much memory as the square of the depth.
    const auto known = links_.empty() ? links_.end() : links_.find(store().place());
    auto links = known == links_.end() ? std::map<std::string, std::string>() : known->second;
    for (hxcrate::Member& member : listSorted(store())) {
      if (manifest_ && stores_.size() == 1 && member.name == kManifestName) continue;
      links.erase(member.name);
      const bool isStore = member.kind == hxcrate::MemberKind::store;
      members.push_back({std::move(member.name), isStore ? Kind::container : Kind::item});
    }
    for (const auto& [name, target] : links)
      members.push_back({name, Kind::link});
    std::ranges::sort(members, {}, &ComparedMember::name);
    return members;
  }
  std::string targetOf(const std::string& name) override { return links_[store().place()][name]; }
  void enter(const std::string& name) override {
    stores_.push_back(stores_.back().openStore(name));
  }
  void leave() override { stores_.pop_back(); }

  void open(const std::string& name) override {
    bytes_ += limit_.whileReading(store(), [&] {
      item_ = store().read(name);
      return item_.size();
    });
    limit_.require(store(), bytes_);
  }
  std::size_t read(std::span<std::byte> room) override {
    return limit_.whileReading(store(), [&] { return item_.read(room); });
  }

  const char* describe(Kind kind) const override {
    if (kind == Kind::link) return "a link";
    return kind == Kind::container ? "a store" : "an item";
  }

 private:
  const hxcrate::Store& store() const { return stores_.back(); }

  std::vector<hxcrate::Store> stores_;
  std::optional<Manifest> manifest_;
  // Targets by name, of the links in each store by its path.
  std::map<std::string, std::map<std::string, std::string>> links_;
  hxcrate::Reader item_;
  const OwnBytes limit_;
  std::int64_t bytes_ = 0;
};

class FolderTree : public ComparedTree {
 public:
  FolderTree(const std::string& path, ExitCode& outcome) : folder_(path), outcome_(outcome) {}

  std::vector<ComparedMember> list() override {
    std::optional<std::vector<std::string>> names = listNames(folder_.descriptor());
    if (!names) throw systemFailure(folder_.path(), "list");
    std::vector<ComparedMember> members;
    for (std::string& name : *names) {
      if (const auto kind = kindOf(name)) members.push_back({std::move(name), *kind});
    }
    return members;
  }
  void enter(const std::string& name) override {
    if (!folder_.enter(name)) throw systemFailure(folder_.pathTo(name), "open");
  }
  void leave() override { folder_.leave(); }
  std::string targetOf(const std::string& name) override {
    const auto target = readLink(folder_.descriptor(), name);
    if (!target) throw systemFailure(folder_.pathTo(name), "read");
    return *target;
  }

  void open(const std::string& name) override {
    path_ = folder_.pathTo(name);
    file_ = openBeneath(folder_.descriptor(), name, O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file_.isOpen()) throw systemFailure(path_, "open");
  }
  std::size_t read(std::span<std::byte> room) override {
    const ssize_t count = readSome(file_, room);
    if (count < 0) throw systemFailure(path_, "read");
    return static_cast<std::size_t>(count);
  }

  const char* describe(Kind kind) const override {
    if (kind == Kind::other || kind == Kind::link) return "no regular file";
    return kind == Kind::container ? "a folder" : "a file";
  }

 private:
  // Nothing of what has gone since it was listed, and of what is told of.
  std::optional<Kind> kindOf(const std::string& name) {
    const auto status = inspect(folder_.descriptor(), name);
    if (!status) {
      if (errno == ENOENT) return std::nullopt;
      const Failure failure = systemFailure(folder_.pathTo(name), "inspect");
      failure.print();
      outcome_ = worse(outcome_, failure.code());
      return std::nullopt;
    }
    if (S_ISDIR(status->st_mode)) return Kind::container;
    if (S_ISLNK(status->st_mode)) return Kind::link;
    return S_ISREG(status->st_mode) ? Kind::item : Kind::other;
  }

  DirectoryCursor folder_;
  ExitCode& outcome_;
  std::string path_;  // of the file
  Descriptor file_;
};

}  // namespace

bool isFolder(const std::string& path) {
  std::error_code unknown;
  return std::filesystem::is_directory(path, unknown);
}

std::unique_ptr<ComparedTree> openTree(hxcrate::Session& session, const std::string& path,
                                       bool withLinks, ExitCode& outcome) {
  if (isFolder(path)) return std::make_unique<FolderTree>(path, outcome);
  auto tree = std::make_unique<StoreTree>(openWhatThereIs(session, path, outcome));
  if (withLinks) tree->takeLinks(outcome);
  return tree;
}

}  // namespace tool
