// An opened store with everything that was opened in it, as Python holds it.
#pragma once

#include <Python.h>

#include <hxcrate/crate.hpp>
#include <memory>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>

namespace hxpython {

// Other threads of Python run while one of these lives.
class GilRelease {
 public:
  GilRelease() : state_(PyEval_SaveThread()) {}
  ~GilRelease() { PyEval_RestoreThread(state_); }
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;

 private:
  PyThreadState* state_;
};

// How many forks lie between this process and the one that loaded the module. A child shares the
// locks and the positions of its parent's files: what was opened before is not for it.
unsigned forkCount() noexcept;
void countForks();  // from now on

// The one session of this process for files that are updated with that durability. With the GIL.
hxcrate::Session& sessionFor(hxcrate::Durability durability);

class HeldTree;

// What was opened in a tree, and is closed with it: a nested store, a view or a writer. Made while
// the tree is shared, so that no close comes between an opening and its handle; goes with the GIL.
class Handle {
 public:
  explicit Handle(std::shared_ptr<HeldTree> tree) : tree_(std::move(tree)) {}
  virtual ~Handle() = default;
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  HeldTree& tree() const { return *tree_; }
  const std::shared_ptr<HeldTree>& sharedTree() const { return tree_; }

 protected:
  // The last step of a constructor and the first of a destructor: the tree calls what is whole.
  void enlist();
  // Closes what it holds; false, and nothing is touched, when that belongs to the parent of a fork.
  bool retire() noexcept;

 private:
  friend class HeldTree;
  // Closes what it holds; the tree is locked and the GIL is not held.
  virtual void shut() noexcept = 0;
  virtual bool isWriting() const noexcept { return false; }

  std::shared_ptr<HeldTree> tree_;
};

// How a store is opened again: in another process, by a pickle.
struct Reopening {
  std::string path;  // absolute; empty: it can't be
  bool isMapped = false;
  bool acceptsDamaged = false;
};

// The GIL is let go before the tree's lock is taken and comes back after it was given back, so that
// nobody waits for one with the other in hand.
class HeldTree {
 public:
  // Keeps the buffer that a blob was opened from, if any, and whoever owns it.
  HeldTree(hxcrate::Store store, Reopening reopening, Py_buffer buffer);
  // Undoes the update of a file that was not closed, with a ResourceWarning. With the GIL.
  ~HeldTree();
  HeldTree(const HeldTree&) = delete;
  HeldTree& operator=(const HeldTree&) = delete;

  hxcrate::Store& store() { return store_; }
  bool isWritable() const { return isWritable_; }
  const Reopening& reopening() const { return reopening_; }
  bool isForeign() const noexcept { return forks_ != forkCount(); }

  // Runs `call` without the GIL, beside other such calls and never beside an `alone`.
  template <typename Call>
  auto share(const Call& call) {
    requireOwnProcess();
    const GilRelease released;
    const std::shared_lock lock(mutex_);
    return call();
  }
  template <typename Call>
  auto alone(const Call& call) {
    requireOwnProcess();
    const GilRelease released;
    const std::unique_lock lock(mutex_);
    return call();
  }

  // Closes the store and all that was opened in it. A commit throws membersOpen, and nothing is
  // closed, while an item is open for writing: bytes that a buffer of Python's holds back would be
  // lost.
  void close();
  void undo();

 private:
  friend class Handle;
  void requireOwnProcess() const;
  void shutHandles() noexcept;

  hxcrate::Store store_;
  const Reopening reopening_;
  const bool isWritable_;
  const bool isUpdate_;  // of a file
  const unsigned forks_ = forkCount();
  Py_buffer buffer_;
  std::shared_mutex mutex_;
  std::mutex handlesMutex_;
  std::set<Handle*> handles_;
};

// Forgets `object` without closing it: what belongs to the parent of a fork is the parent's to
// close.
template <typename Object>
void leak(Object&& object) {
  static_cast<void>(new std::decay_t<Object>(std::forward<Object>(object)));
}

}  // namespace hxpython
