// What is mounted: the members of one store, or of several, as files and folders.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "hxcrate/crate.hpp"
#include "mount/attribute_table.h"
#include "mount/manifest_index.h"
#include "mount/node_table.h"

namespace mounted {

// A store file, or the store `inside` it, under the name of a folder.
struct Source {
  std::string file;
  std::string inside;
  std::string name;  // empty: the root
};

// What lies side by side in a folder: the nodes from `first` on, and from `firstLink` on the links
// that a manifest alone has.
struct Folder {
  hxcrate::Store store;  // closed: the folder that several stores lie in
  std::uint32_t source;
  NodeId node;
  NodeId first = 0;
  NodeId count = 0;
  NodeId firstLink = 0;
  NodeId links = 0;

  NodeId size() const { return count + links; }
  NodeId operator[](NodeId i) const { return i < count ? first + i : firstLink + (i - count); }
};

// Any number of threads may ask it after readManifests() has returned.
class StoreTree {
 public:
  // Opens the stores, damaged ones too, and says in the log what they lack. Throws hxcrate::Error.
  explicit StoreTree(const std::vector<Source>& sources, std::chrono::seconds lockWait = {});
  // Once. It takes 5 us for a line, and so waits until somebody asks. Throws nothing: what can't be
  // read is said in the log.
  void readManifests();

  const NodeTable& nodes() const { return nodes_; }
  const Folder& folderOf(NodeId id) const { return folders_[nodes_[id].folder]; }
  bool isFolder(NodeId id) const { return nodes_[id].folder != kNone; }
  // Null: it is no symbolic link.
  const std::string* linkTargetOf(NodeId id) const;
  // Of its bytes, in hexadecimal; empty: nobody knows, or the file has grown since. Throws
  // hxcrate::Error.
  std::string checksumOf(NodeId id);
  std::int64_t leftOut() const { return leftOut_; }  // members that no folder can show
  struct statvfs totals() const;

  // All but the size, which needs the item's records.
  struct stat describe(NodeId id) const;
  // The same with it. Throws hxcrate::Error.
  struct stat describeWhole(NodeId id);
  hxcrate::MemberStatus statusOf(NodeId id) const;
  // In its store's file; 0: nowhere.
  std::int64_t placeOf(NodeId id) const;

  // Fills `buffer` with a file's bytes from `offset` on, all of it but at the file's end, and
  // returns how many those were. Throws hxcrate::Error.
  std::size_t read(NodeId id, std::int64_t offset, std::span<std::byte> buffer);

  // Whether nobody asked so before: then the damage goes into the log.
  bool isFirstComplaint(NodeId id);

 private:
  struct OpenView {
    NodeId id;
    hxcrate::View view;
  };
  // An item of one request is read without being opened. Views of larger ones are kept, for the
  // next request needs to know where the pages lie.
  static constexpr std::size_t kKeptViews = 1024;

  struct Origin {
    Attributes usual;  // of the members of which no manifest tells any
    std::int64_t bytes;
    std::int64_t pageSize;
    std::string inside;
    std::string manifestName;  // for the log
    hxcrate::View manifest;    // until it is read
  };

  void addStore(hxcrate::Session& session, const Source& source);
  void fill(std::size_t folder);
  void addMember(std::size_t folder, const hxcrate::Member& member);
  void applyManifests(const std::vector<ManifestIndex>& manifests);
  void applyManifest(Folder& folder, const ManifestIndex& manifest);
  void addLink(const Folder& folder, std::string_view name, const tool::MemberAttributes& told);
  void setAttributes(NodeId id, const tool::MemberAttributes* told, const Origin& origin);
  void joinHardLinks(std::uint32_t source, const ManifestIndex& manifest);
  void joinHardLink(NodeId link, NodeId first);
  bool haveEqualBytes(NodeId one, NodeId other);
  NodeId findPath(std::uint32_t source, std::string_view path) const;
  Attributes attributesOf(NodeId id) const;
  std::int64_t sizeOf(NodeId id);
  const hxcrate::Store& holderOf(NodeId id) const { return folderOf(nodes_[id].parent).store; }
  std::shared_ptr<OpenView> viewOf(NodeId id);

  NodeTable nodes_;
  AttributeTable attributes_;
  std::vector<Folder> folders_;
  std::vector<Origin> origins_;
  std::int64_t leftOut_ = 0;
  std::array<std::atomic<std::shared_ptr<OpenView>>, kKeptViews> views_;
};

}  // namespace mounted
