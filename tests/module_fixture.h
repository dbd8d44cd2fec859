// The words that the module's tests are told in: one instance on a fake host, with every open
// handle known, and the records in memory checked after every step.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "file/format.h"
#include "module/entry.h"
#include "store/records.h"
#include "store/status.h"
#include "tests/fake_host.h"
#include "tests/module_image.h"

namespace hx::fake {

constexpr uint32_t kMake = kUpdate | kCreate;

using Contents = std::map<Path, std::string>;

// `size` bytes that differ from page to page.
std::string pattern(int64_t size);

// The members of a table in the order of their chains.
std::vector<Member*> chained(const MemberTable& table);

class World {
 public:
  // An instance on a host that has these files.
  explicit World(const Disk& disk = {}, bool knowsEncodings = true);
  // Closes what is open, deletes every store and expects an empty pool.
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Each leaves its outcome in `status`. A null parent or handle does nothing.
  Store* open(std::u32string_view path, uint32_t flags);
  Store* openIn(Store* parent, std::u32string_view name, uint32_t flags);
  Store* openBlob(const Bytes& blob, uint32_t flags = kRead);
  ItemHandle* openItem(Store* store, std::u32string_view name, uint32_t flags);
  int32_t write(ItemHandle* handle, const std::string& bytes);
  std::string read(ItemHandle* handle, int32_t length, void* conversionArgument = nullptr);
  int32_t close(ItemHandle* handle);
  void close(Store* store);
  void closeAll();  // handles, then top-level stores to the last opener

  // Creates or extends an item, and how many bytes it took.
  int32_t put(Store* store, std::u32string_view name, const std::string& bytes);
  // The item's bytes, or "status -13" and the like.
  std::string get(Store* store, std::u32string_view name);
  // The names of a store's members in their order, each followed by a blank, or by "/".
  std::string list(Store* store);
  // Everything in a tree by its path; and in a store file as a new instance sees it.
  Contents contents(Store* store, const Path& prefix = U"");
  Contents reloaded(const Path& path) const;

  Store* cached(std::u32string_view path);  // the top-level store in the instance's table, or null
  int64_t blocks() const { return FakeHost::blocksIn(instance->pool); }
  void check();

  FakeHost host;
  ExtensionInstance* instance = nullptr;
  int32_t status = kOk;
  std::vector<ItemHandle*> handles;
  std::vector<Store*> blobStores;
};

class ModuleTest : public ::testing::Test, protected World {};

}  // namespace hx::fake
