// One instance of the module on a fake host, told what to do by scripts, with a model beside it
// that knows what every store must hold. All tests of the module, the fault matrix and the fuzzer
// of operations run on it.
//
// A script is statements with ";" between them. Stores and items are named by a reference: "x" is
// the store at the path x (a capital letter names a blob), "x:n/a" the path n/a inside it, "x:n:a"
// the path a inside its nested store n, ":x/a" the path x/a inside no store. "c*63" stands for 63
// times c. Flags are letters: Read, Update, Create, rePlace, eXclusive, No file, "-" for none.
//
//   open REF FLAGS      its number: the openCount that comes of it
//   item H REF FLAGS    opens an item with the handle H; number: the item's openCount
//   write H N, read H N, convert H N    number: the bytes taken or delivered
//   shut H              number: the lock's answer
//   put REF N, get REF  create or extend an item, read all of one; number: bytes
//   close REF, delete REF, page REF N (sets the page size)
//   list REF NAME...    the names in this order, with "/" behind a store's; or any; number: of them
//   tree REF            everything in a store, compared with the model
//   blob REF B, load B FLAGS            make a blob of a store; open a store from a blob
//   copy TO FROM, foreign TO FROM       between files and blobs; foreign: as the other machine's
//   size PATH, pages H  number: the file's length, -1 without a file; pages of an item in memory
//   grow PATH N         N bytes more at a file's end, or fewer
//   set PATH FIELD N    a field of a record in a file, named as in setNamedField
//   mark, count CALL [LENGTH]           calls of the host since the mark, by name and length
//   fail KIND N [M | *] the host's Nth call fails, and the Mth, or all after it; heal: no more
//   refuse N, deliver N what the host answers to removing; how many bytes it reads at most
//   restart             a new instance
//
// Each statement succeeds, reads or writes all it is told to, and has the number that follows it as
// "=N"; with "!N" it ends with the status -N. An item's bytes follow from its name and their place,
// so every byte read is compared, whatever else happens.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "module/entry.h"
#include "records/records.h"
#include "records/status.h"
#include "tests/fake_host.h"
#include "tests/module_image.h"

namespace hx::fake {

using Words = std::vector<std::string>;
using Sizes = std::map<std::string, int32_t>;  // of items by their paths; "n/." is a store
using Handles = std::map<std::string, ItemHandle*>;

template <typename Record>
std::string narrow(const Record* named) {
  return {named->name, named->name + named->nameLength};
}

// The members of a table in the order of their chains.
std::vector<Member*> chained(const MemberTable& table);
// The path of a nested store, with "/" behind it, or of an item inside its tree.
std::string pathOf(const Store* store);
std::string pathOf(const ItemMember* item);
bool isBlobName(const std::string& name);
uint32_t flagsOf(const std::string& letters);
std::u32string widen(std::string word);

class World {
 public:
  // An instance on a host that has these files, whose contents are not known.
  explicit World(const Disk& disk = {}, bool knowsEncodings = true);
  // Closes what is open, deletes every store and expects an empty pool.
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Every outcome as the script says; not strict: any that is documented, and what can't be begun
  // is left out.
  void run(const std::string& script, bool isStrict = true);
  void tryToRun(const std::string& script) { run(script, false); }
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

  Store* find(const std::string& ref);
  ItemHandle* handle(const std::string& name) const;
  Bytes& image(const std::string& name);  // of a file or a blob
  bool hasHandles() const { return !handles_.empty(); }

  FakeHost host;
  ExtensionInstance* instance = nullptr;
  int32_t status = kOk;
  int64_t number = 0;
  std::optional<int32_t> firstOutcome;  // the status of the statement in which a call failed first

 private:
  using Verb = void(const Words&);  // the function of a statement
  static const std::map<std::string, Verb World::*> kVerbs;
  Verb openStore, closeStore, deleteStore, makeBlob, loadBlob, copy, grow;
  Verb openItem, write, read, shut, useWhole, list, tree, ask, arrange;
  void step(const std::string& statement, bool isStrict);
  void skip() { status = 1; }
  bool isQuiet(const std::string& name);
  bool isDoubtful(const std::string& path);
  void noteOpening(const std::string& path, uint32_t flags, bool existed, bool succeeded);
  bool forgetDropped(const std::string& ref, const Store* store);
  Sizes contents(const std::string& ref);  // reads everything

  bool isStrict_ = true;
  Handles handles_;
  std::map<std::string, Store*> blobStores_;
  std::map<std::string, Bytes> blobs_;
  std::map<std::string, Sizes> now_;    // of every store that is cached or open
  std::map<std::string, Sizes> saved_;  // of every file and blob
  std::set<std::string> unknown_;       // files with contents that the model does not know
  std::set<std::string> stale_;         // whose file is not as the tree in memory says
};

// Complains where the records of a tree contradict each other or the handles that are open.
void checkTree(const Store* root, const Handles& handles);
void checkIndex(const MemberTable& table, const MemberIndex& index);

}  // namespace hx::fake
