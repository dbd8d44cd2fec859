// hxcrate._native: the C++ API for Python. The package hxcrate adds what is said in Python better.
#include <algorithm>
#include <chrono>
#include <optional>

#include "held_tree.h"
#include "python_text.h"
#include "raised_error.h"
#include "store_handle.h"
#include "view_handle.h"

namespace hxpython {

namespace {

using hxcrate::Mode;
using std::chrono::milliseconds;

// For so long an open waits before Python may handle a signal.
constexpr milliseconds kSlice{200};

Mode modeOf(std::string_view mode) {
  if (mode == "r") return Mode::read;
  if (mode == "r+") return Mode::update;
  if (mode == "a") return Mode::openOrCreate;
  if (mode == "x") return Mode::create;
  if (mode == "w") return Mode::replace;
  throw py::value_error("a mode is r, r+, a, x or w");
}

std::string nameOf(py::handle path) {
  return std::string(std::string_view(NameBytes(path.ptr())));
}

struct OpenRequest {
  Reopening file;
  std::string path;
  Mode mode;
  hxcrate::Durability durability;
  std::int32_t pageSize;
};

hxcrate::Store openOnce(const OpenRequest& request, milliseconds wait) {
  hxcrate::Session& session = sessionFor(request.durability);
  const hxcrate::OpenOptions options{request.pageSize, request.file.acceptsDamaged, wait};
  const GilRelease released;
  if (request.file.isMapped) return session.openMapped(request.path, options);
  return session.open(request.path, request.mode, options);
}

// Waits `wait` at most for a file that somebody else has open, for ever below 0.
hxcrate::Store openPatiently(const OpenRequest& request, milliseconds wait) {
  const auto began = std::chrono::steady_clock::now();
  while (true) {
    const auto waited =
        std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - began);
    const milliseconds left = wait.count() < 0 ? kSlice : std::max(wait - waited, milliseconds{0});
    try {
      return openOnce(request, std::min(left, kSlice));
    } catch (const hxcrate::Error& error) {
      if (error.errc() != hxcrate::Errc::storeInUse || left <= milliseconds{0}) throw;
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
}

py::object open(py::handle path, py::handle absolute, const std::string& mode,
                std::int32_t pageSize, bool isDurable, double wait, bool isMapped,
                bool acceptsDamaged) {
  if (isMapped && mode != "r") throw py::value_error("only a store for reading is mapped");
  const OpenRequest request{{nameOf(absolute), isMapped, acceptsDamaged},
                            nameOf(path),
                            modeOf(mode),
                            isDurable ? hxcrate::Durability::full : hxcrate::Durability::none,
                            pageSize};
  constexpr double kLongest = 1e9;  // seconds
  const auto patience = static_cast<std::int64_t>(std::min(wait, kLongest) * 1000);
  return wrapStore(openPatiently(request, milliseconds{wait < 0 ? -1 : patience}), request.file);
}

py::object openBlob(py::handle buffer, const std::string& name) {
  BufferBytes source(buffer, PyBUF_SIMPLE);
  hxcrate::Session& session = sessionFor(hxcrate::Durability::full);
  const auto bytes = source.bytes();
  hxcrate::Store store = [&] {
    const GilRelease released;
    return session.openBlob(std::span<const std::byte>(bytes), name);
  }();
  return wrapStore(std::move(store), {}, source.release());
}

py::object createInMemory(const std::string& name, std::int32_t pageSize) {
  return wrapStore(sessionFor(hxcrate::Durability::full).createInMemory(name, pageSize), {});
}

// Python's object.__new__ would make objects around memory that nobody has filled.
PyObject* refuseNew(PyTypeObject* type, PyObject*, PyObject*) {
  return PyErr_Format(PyExc_TypeError, "a %.100s comes from a store, or from hxcrate.open",
                      type->tp_name);
}

void refuseNewOfAll(const py::module_& module) {
  for (const auto& [name, value] : py::dict(module.attr("__dict__"))) {
    if (PyType_Check(value.ptr()) == 0) continue;
    auto* type = reinterpret_cast<PyTypeObject*>(value.ptr());
    if (PyType_IsSubtype(type, reinterpret_cast<PyTypeObject*>(PyExc_BaseException)) == 0)
      type->tp_new = refuseNew;
  }
}

}  // namespace

PYBIND11_MODULE(_native, module) {
  module.doc() = "The C++ API of hxcrate.";
  countForks();
  defineErrors(module);
  defineItems(module);
  defineStores(module);
  defineWritableStores(module);
  refuseNewOfAll(module);
  module.attr("__version__") = std::string(hxcrate::version());
  module.def("open", open);
  module.def(
      "open_blob", openBlob, py::arg("buffer"), py::arg("name") = "blob",
      "The store that a bytes-like object is: a blob's bytes or a store file's. They are read\n"
      "where they lie and kept there as long as the store or anything of it is in use.");
  module.def("create_in_memory", createInMemory, py::arg("name") = "memory",
             py::arg("page_size") = 0,
             "A new store without a file, for writing and for make_blob.");
}

}  // namespace hxpython
