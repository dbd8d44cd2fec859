// The world: one instance of the module on a fake host, with the handles and stores that scripts
// have open in it. Its verbs (module_verbs.cpp) act on it as a script says (module_script.h); its
// model (module_model.h) knows what every store must hold; after each statement the records in
// memory are checked (module_check.cpp). All tests of the module, the fault matrix and the fuzzer
// of operations run on it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "item/item_view.h"
#include "module/entry.h"
#include "records/records.h"
#include "records/status.h"
#include "tests/fake_host.h"
#include "tests/module_image.h"
#include "tests/module_model.h"
#include "tests/module_script.h"

namespace hx::fake {

using Handles = std::map<std::string, ItemHandle*>;

class World {
 public:
  // An instance on a host that has these files, whose contents are not known.
  explicit World(const Disk& disk = {}, bool knowsEncodings = true);
  // Closes what is open, deletes every store and expects an empty pool.
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Every statement must show what is written. Not strictly: any outcome that is documented will
  // do, and what can't be begun is left out.
  void run(const Script& script, bool strictly = true);
  void run(const std::string& script, const char* file = __builtin_FILE(),
           int line = __builtin_LINE());
  void tryToRun(const std::string& script, const char* file = __builtin_FILE(),
                int line = __builtin_LINE());
  // Ends all failures and opens.
  void closeAll();
  // Does so and compares every file, as this instance and as a new one sees it, with what was
  // written to it last.
  void settle(bool comparesTrees = true);

  // Calls that no model learns of; `flags` as in scripts.
  Store* openStore(Store* parent, std::u32string_view name, const std::string& flags);
  ItemHandle* openItem(Store* store, const std::u32string& name, const std::string& flags);
  Store* openBlob(const void* blob, uint64_t size, const std::u32string& name,
                  const std::string& flags = "R");

  Store* find(const std::string& path) const;
  ItemHandle* handle(const std::string& name) const;
  Bytes& image(const std::string& name);    // of a file or a blob
  Sizes contents(const std::string& path);  // everything in a store, read

  FakeHost host;
  ExtensionInstance* instance = nullptr;
  Model model = {host};
  Handles handles;
  std::map<std::string, Store*> blobStores;
  std::map<std::string, Bytes> blobs;

  // What the last statement came to.
  int32_t status = kOk;
  int64_t number = 0;
  Words names;
  std::optional<int32_t> firstOutcome;  // the status of the statement in which a call failed first
  bool isStrict = true;

 private:
  using Verbs = std::map<std::string, void (*)(World&, const Words&)>;
  static const Verbs kVerbs;
  void step(const Statement& statement);
  bool isAsWritten(const Statement& statement) const;
};

// A view in the words of the tests. Closed at the end, however often the lock fails.
class View {
 public:
  View(World& w, Store* store, const std::u32string& name)
      : world_(w),
        view_(w.instance->openView(w.instance, store, name.data(),
                                   static_cast<int32_t>(name.size()), &status)) {}
  ~View() {
    while (view_ != nullptr && view_->close(view_) != 0)
      EXPECT_GT(world_.host.fired, 0);
  }
  View(const View&) = delete;

  bool isOpen() const { return view_ != nullptr; }
  Bytes read(int64_t offset, size_t length) {
    Bytes bytes(length);
    const int32_t count =
        view_->readAt(view_, offset, bytes.data(), static_cast<int32_t>(length), &status);
    bytes.resize(static_cast<size_t>(std::max(count, 0)));
    return bytes;
  }

  int32_t status = kOk;

 private:
  World& world_;
  ItemView* view_;
};

// A statement that could not be begun has this for its status.
constexpr int32_t kSkipped = 1;

// The members of a table in the order of their chains.
std::vector<Member*> chained(const MemberTable& table);
template <typename Record>
std::string nameIn(const Record* named) {
  return {named->name, named->name + named->nameLength};
}
bool isBlobName(const std::string& name);
std::u32string widen(std::string word);
uint32_t flagsOf(const std::string& letters);
bool isForeign(const Store* store);

// Complains where the records of a tree contradict each other or the handles that are open.
void checkTree(const Store* root, const Handles& handles);
void checkIndex(const MemberTable& table, const MemberIndex& index);

}  // namespace hx::fake
