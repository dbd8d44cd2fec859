// Writing to stores: what makes them mutable mappings, as far as the format goes.
#include "python_text.h"
#include "store_handle.h"
#include "view_handle.h"

namespace hxpython {

namespace {

using hxcrate::Errc;
using hxcrate::Parents;

// What is there already is that, of whichever kind it is.
[[noreturn]] void refuse(const hxcrate::Store& store, std::string_view path,
                         const hxcrate::Error& error) {
  const bool isOther = error.errc() == Errc::isAStore || error.errc() == Errc::isAnItem;
  if (isOther && store.exists(path))
    throw hxcrate::Error(Errc::exists, error.store(), error.member());
  throw error;
}

hxcrate::Writer createItem(hxcrate::Store& store, std::string_view path) {
  try {
    return store.create(path, Parents::create);
  } catch (const hxcrate::Error& error) {
    refuse(store, path, error);
  }
}

hxcrate::Store createStore(hxcrate::Store& store, std::string_view path) {
  try {
    return store.createStore(path, Parents::create);
  } catch (const hxcrate::Error& error) {
    refuse(store, path, error);
  }
}

// Refuses what would be too long before an item is made for it.
void put(const WritableHandle& self, std::string_view path, std::span<const std::byte> bytes) {
  self.tree().share([&] {
    if (bytes.size() > static_cast<std::size_t>(hxcrate::kItemCapacity)) {
      throw hxcrate::Error(Errc::itemFull, self.store().path(), std::string(path));
    }
    hxcrate::Writer writer = createItem(self.store(), path);
    writer.write(bytes);
    writer.close();
  });
}

std::size_t append(const WritableHandle& self, py::handle path, py::handle data) {
  const NameBytes place(path.ptr());
  const BufferBytes source(data, PyBUF_SIMPLE);
  self.tree().share([&] {
    hxcrate::Writer writer = self.store().append(place, Parents::create);
    writer.write(source.bytes());
    writer.close();
  });
  return source.bytes().size();
}

std::shared_ptr<WriterHandle> openWriter(const WritableHandle& self, py::handle path, bool isNew) {
  const NameBytes place(path.ptr());
  return self.tree().share([&] {
    hxcrate::Writer writer =
        isNew ? createItem(self.store(), place) : self.store().append(place, Parents::create);
    return std::make_shared<WriterHandle>(self.sharedTree(), std::move(writer));
  });
}

std::shared_ptr<WritableHandle> makeStore(const WritableHandle& self, std::string_view path,
                                          bool mayExist) {
  return self.tree().share([&] {
    hxcrate::Store made = mayExist ? self.store().openOrCreateStore(path, Parents::create)
                                   : createStore(self.store(), path);
    return std::make_shared<WritableHandle>(self.sharedTree(), std::move(made));
  });
}

// Bytes become an item, a mapping a store with all that is in it.
void assign(const WritableHandle& self, py::handle path, py::handle value) {
  const NameBytes place(path.ptr());
  if (PyObject_CheckBuffer(value.ptr())) {
    return put(self, place, BufferBytes(value, PyBUF_SIMPLE).bytes());
  }
  if (!py::hasattr(value, "items")) {
    throw py::type_error("a member is a bytes-like object or a mapping, not " +
                         std::string(Py_TYPE(value.ptr())->tp_name));
  }
  const auto made = makeStore(self, place, false);
  for (const py::handle pair : value.attr("items")()) {
    assign(*made, pair[py::int_(0)], pair[py::int_(1)]);
  }
}

[[noreturn]] void refuseRemoval(const WritableHandle&, py::handle) {
  PyErr_SetString(py::module_::import("io").attr("UnsupportedOperation").ptr(),
                  "nothing is ever removed from a store");
  throw py::error_already_set();
}

}  // namespace

void defineWritableStores(py::module_& module) {
  py::class_<WritableHandle, StoreHandle, std::shared_ptr<WritableHandle>>(
      module, "WritableStore", py::is_final(),
      "A store that is open for update. What is written is there for all when it is closed.")
      .def("__setitem__", assign, "Makes an item of bytes, or a store of a mapping.")
      .def("__delitem__", refuseRemoval)
      .def("append", append, py::arg("path"), py::arg("data"),
           "Writes behind an item, which is made if need be; returns how many bytes that were.")
      .def("writer", openWriter, py::arg("path"), py::kw_only(), py::arg("exclusive") = false,
           "The end of an item, for writing piece by piece; `exclusive`: of a new one alone.")
      .def(
          "create_store",
          [](const WritableHandle& self, py::handle path, bool mayExist) {
            return makeStore(self, NameBytes(path.ptr()), mayExist);
          },
          py::arg("path"), py::kw_only(), py::arg("exist_ok") = false,
          "A new nested store, with those that lead to it.")
      .def(
          "commit",
          [](const WritableHandle& self) { self.tree().alone([&] { self.store().commit(); }); },
          "Makes durable what was written so far; the update goes on.")
      .def(
          "abandon", [](const WritableHandle& self) { self.tree().undo(); },
          "Closes the whole store and undoes what was written since the last commit.")
      .def(
          "make_blob",
          [](const WritableHandle& self) {
            return self.tree().alone([&] { return self.store().makeBlob(); });
          },
          "All of a store that was created in memory, as one buffer.");
}

}  // namespace hxpython
