// Stores as Python holds them: mappings of names to bytes and to further stores.
#pragma once

#include <pybind11/pybind11.h>

#include <hxcrate/crate.hpp>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "held_tree.h"

namespace hxpython {

namespace py = pybind11;

// A whole store, which its tree owns, or one nested in it.
class StoreHandle : public Handle {
 public:
  explicit StoreHandle(std::shared_ptr<HeldTree> tree)  // the whole of it
      : Handle(std::move(tree)), store_(&this->tree().store()) {
    enlist();
  }
  StoreHandle(std::shared_ptr<HeldTree> tree, hxcrate::Store nested)
      : Handle(std::move(tree)), nested_(std::move(nested)), store_(&nested_) {
    enlist();
  }
  ~StoreHandle() override {
    if (!retire()) leak(std::move(nested_));
  }

  bool isWhole() const { return store_ != &nested_; }
  // For calls that share the tree or have it alone.
  hxcrate::Store& store() const { return *store_; }

  // Closes a nested store, or all of a whole one and commits.
  void close();

 private:
  void shut() noexcept override;

  hxcrate::Store nested_;
  hxcrate::Store* const store_;
};

// One that can be written to, for isinstance.
class WritableHandle final : public StoreHandle {
  using StoreHandle::StoreHandle;
};

// The Python object of what was opened; a buffer that a blob was opened from goes with the store.
py::object wrapStore(hxcrate::Store store, Reopening reopening, Py_buffer buffer = {});

void defineStores(py::module_& module);
void defineWritableStores(py::module_& module);

}  // namespace hxpython
