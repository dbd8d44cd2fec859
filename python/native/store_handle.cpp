#include "store_handle.h"

#include <array>

#include "python_text.h"
#include "raised_error.h"
#include "view_handle.h"

namespace hxpython {

namespace {

using hxcrate::Errc;

// Items below this are read in one step, into a buffer that is one byte longer than the longest.
constexpr std::size_t kReadAtOnce = 4097;

// The handle of an object that Python hands to a slot: of a StoreHandle or of what derives from it
// alone. Asking pybind11 for it by its type would cost a get 40 ns of 1000.
StoreHandle& handleOf(PyObject* self) {
  void* handle = reinterpret_cast<py::detail::instance*>(self)->get_value_and_holder().value_ptr();
  return *static_cast<StoreHandle*>(handle);
}

std::shared_ptr<StoreHandle> newHandle(const StoreHandle& parent, hxcrate::Store nested) {
  const auto& tree = parent.sharedTree();
  if (tree->isWritable()) return std::make_shared<WritableHandle>(tree, std::move(nested));
  return std::make_shared<StoreHandle>(tree, std::move(nested));
}

std::shared_ptr<StoreHandle> openStore(const StoreHandle& self, std::string_view path) {
  return self.tree().share([&] { return newHandle(self, self.store().openStore(path)); });
}

std::shared_ptr<ViewHandle> openView(const StoreHandle& self, std::string_view path) {
  return self.tree().share(
      [&] { return std::make_shared<ViewHandle>(self.sharedTree(), self.store().view(path)); });
}

py::object newBytes(const std::byte* bytes, std::size_t count) {
  PyObject* made = PyBytes_FromStringAndSize(reinterpret_cast<const char*>(bytes),
                                             static_cast<Py_ssize_t>(count));
  if (made == nullptr) throw py::error_already_set();
  return py::reinterpret_steal<py::object>(made);
}

py::object readItem(const StoreHandle& self, std::string_view path) {
  std::array<std::byte, kReadAtOnce> bytes;
  const std::size_t count =
      self.tree().share([&] { return self.store().get(path, std::span(bytes)); });
  if (count < bytes.size()) return newBytes(bytes.data(), count);
  return openView(self, path)->read(-1, 0);
}

// An item's bytes or a nested store; null: there is no such member.
py::object find(const StoreHandle& self, std::string_view path) {
  try {
    return readItem(self, path);
  } catch (const hxcrate::Error& error) {
    if (isMissing(error)) return {};
    if (error.errc() != Errc::isAStore) throw;
  }
  return py::cast(openStore(self, path));
}

bool contains(const StoreHandle& self, std::string_view path) {
  try {
    return self.tree().share([&] { return self.store().exists(path); });
  } catch (const hxcrate::Error& error) {
    if (isMissing(error)) return false;
    throw;
  }
}

// store[path], path in store and store.get(path, default) come in without pybind11, whose calls
// take 200 ns longer.
PyObject* subscriptSlot(PyObject* self, PyObject* key) {
  try {
    const StoreHandle& store = handleOf(self);
    const NameBytes path(key);
    py::object found = find(store, path);
    if (!found) {
      const std::string file = store.tree().share([&] { return store.store().path(); });
      throw hxcrate::Error(Errc::notFound, file, std::string(std::string_view(path)));
    }
    return found.release().ptr();
  } catch (...) {
    raiseCurrent();
    return nullptr;
  }
}

int containsSlot(PyObject* self, PyObject* key) {
  try {
    return contains(handleOf(self), NameBytes(key)) ? 1 : 0;
  } catch (...) {
    raiseCurrent();
    return -1;
  }
}

PyObject* getMethod(PyObject* self, PyObject* const* arguments, Py_ssize_t count) {
  try {
    if (count < 1 || count > 2) throw py::type_error("get takes a path and a default");
    py::object found = find(handleOf(self), NameBytes(arguments[0]));
    if (found) return found.release().ptr();
    return Py_NewRef(count == 2 ? arguments[1] : Py_None);
  } catch (...) {
    raiseCurrent();
    return nullptr;
  }
}

Py_ssize_t lengthSlot(PyObject* self) {
  try {
    const StoreHandle& store = handleOf(self);
    return store.tree().share([&] {
      Py_ssize_t count = 0;
      for ([[maybe_unused]] const auto& member : store.store().members())
        ++count;
      return count;
    });
  } catch (...) {
    raiseCurrent();
    return -1;
  }
}

py::iterator iterate(const StoreHandle& self) {
  const auto names = self.tree().share([&] {
    std::vector<std::string> all;
    for (const hxcrate::Member& member : self.store().members())
      all.push_back(member.name);
    return all;
  });
  py::list list(names.size());
  for (std::size_t at = 0; at < names.size(); ++at)
    list[at] = toText(names[at]);
  return py::iter(list);
}

// A tuple with named fields, of steals.
template <typename... Fields>
py::object newRecord(PyTypeObject* type, Fields... fields) {
  auto record = py::reinterpret_steal<py::object>(PyStructSequence_New(type));
  if (!record) throw py::error_already_set();
  Py_ssize_t at = 0;
  (PyStructSequence_SetItem(record.ptr(), at++, py::object(std::move(fields)).release().ptr()),
   ...);
  return record;
}

PyTypeObject* memberType = nullptr;
PyTypeObject* statusType = nullptr;

py::list list(const StoreHandle& self, py::handle path, bool isRecursive, bool isSorted,
              bool hasSizes) {
  const NameBytes place(path.ptr());
  const auto members = self.tree().share([&] {
    std::vector<hxcrate::ListedMember> all;
    for (const auto& member : self.store().list(place, {isRecursive, isSorted, hasSizes})) {
      all.push_back(member);
    }
    return all;
  });
  py::list listed(members.size());
  for (std::size_t at = 0; at < members.size(); ++at) {
    const hxcrate::ListedMember& member = members[at];
    listed[at] =
        newRecord(memberType, toText(member.path),
                  py::bool_(member.kind == hxcrate::MemberKind::store), py::int_(member.size));
  }
  return listed;
}

py::object stat(const StoreHandle& self, py::handle path) {
  const NameBytes place(path.ptr());
  const auto status = self.tree().share([&] { return self.store().stat(place); });
  return newRecord(statusType, py::bool_(status.kind == hxcrate::MemberKind::store),
                   py::int_(status.size), py::int_(status.pages), py::int_(status.place));
}

std::size_t readInto(const StoreHandle& self, py::handle path, py::handle buffer) {
  const NameBytes place(path.ptr());
  const BufferBytes target(buffer, PyBUF_WRITABLE);
  return self.tree().share([&] { return self.store().get(place, target.bytes()); });
}

// The update is undone by what goes wrong in it, and by a commit that is refused.
void leave(StoreHandle& self, bool isFine) {
  if (!self.isWhole()) return self.close();
  if (!isFine) return self.tree().undo();
  try {
    self.close();
  } catch (const hxcrate::Error& error) {
    if (error.errc() == Errc::membersOpen) self.tree().undo();
    throw;
  }
}

void defineRecords(py::module_& module) {
  static PyStructSequence_Field memberFields[] = {
      {"path", "inside the store that was listed"},
      {"is_store", "whether it is a store"},
      {"size", "of an item, in bytes, where sizes were asked for; else -1"},
      {nullptr, nullptr}};
  static PyStructSequence_Field statusFields[] = {
      {"is_store", "whether it is a store"},
      {"size", "of an item, in bytes; else 0"},
      {"pages", "that hold them"},
      {"offset", "of its first record in the file; 0: it has none yet"},
      {nullptr, nullptr}};
  static PyStructSequence_Desc member{"hxcrate.Member", "A member that was listed.", memberFields,
                                      3};
  static PyStructSequence_Desc status{"hxcrate.Status", "What a member is.", statusFields, 4};
  memberType = PyStructSequence_NewType(&member);
  statusType = PyStructSequence_NewType(&status);
  if (memberType == nullptr || statusType == nullptr) throw py::error_already_set();
  module.attr("Member") = py::handle(reinterpret_cast<PyObject*>(memberType));
  module.attr("Status") = py::handle(reinterpret_cast<PyObject*>(statusType));
}

PyMethodDef getDefinition = {
    "get", reinterpret_cast<PyCFunction>(reinterpret_cast<void*>(getMethod)), METH_FASTCALL,
    "get($self, path, default=None, /)\n--\n\n"
    "The item's bytes or the nested store, or `default` without them."};

template <typename Type>
void defineGet(Type& type) {
  PyObject* method = PyDescr_NewMethod(reinterpret_cast<PyTypeObject*>(type.ptr()), &getDefinition);
  if (method == nullptr) throw py::error_already_set();
  type.attr("get") = py::reinterpret_steal<py::object>(method);
}

void fillSlots(PyHeapTypeObject* type) {
  type->as_mapping.mp_subscript = subscriptSlot;
  type->as_mapping.mp_length = lengthSlot;
  type->as_sequence.sq_contains = containsSlot;
}

using StoreClass = py::class_<StoreHandle, std::shared_ptr<StoreHandle>>;

void defineReading(StoreClass& type) {
  type.def("__iter__", iterate, "The names of its members, as they are now.")
      .def("list", list, py::arg("path") = "", py::kw_only(), py::arg("recursive") = true,
           py::arg("sorted") = false, py::arg("sizes") = false,
           "What lies in the store, or in the nested store `path`, as (path, is_store, size).")
      .def("stat", stat, py::arg("path"), "What a member is, without reading it.")
      .def("read_into", readInto, py::arg("path"), py::arg("buffer"),
           "Reads as much of an item as fits and returns how many bytes that were.")
      .def(
          "view",
          [](const StoreHandle& self, py::handle path) {
            return openView(self, NameBytes(path.ptr()));
          },
          py::arg("path"), "An item for reading at any place, by any number of threads.")
      .def(
          "open_store",
          [](const StoreHandle& self, py::handle path) {
            return openStore(self, NameBytes(path.ptr()));
          },
          py::arg("path"), "A nested store.");
}

void defineEnds(StoreClass& type) {
  type.def("close", &StoreHandle::close,
           "Closes it and, of a whole store, all that was opened in it. That is the commit of an\n"
           "update. Pages that are in use stay where they are.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](StoreHandle& self, py::handle thrown, const py::args&) {
        leave(self, thrown.is_none());
      });
}

// A getter that asks the store, which is shared meanwhile.
template <typename Ask>
auto asking(const Ask& ask) {
  return [ask](const StoreHandle& self) {
    return self.tree().share([&] { return ask(self.store()); });
  };
}

std::string placeOf(const StoreHandle& self) {
  return asking([](const hxcrate::Store& store) { return store.place(); })(self);
}

std::string fileOf(const StoreHandle& self) {
  return asking([](const hxcrate::Store& store) { return std::string(store.path()); })(self);
}

void defineProperties(StoreClass& type) {
  using hxcrate::Store;
  type.def("_reopening",
           [](const StoreHandle& self) { return describeReopening(self, placeOf(self)); })
      .def_property_readonly("closed", asking([](const Store& store) { return !store.isOpen(); }))
      .def_property_readonly(
          "filename", [](const StoreHandle& self) { return toText(fileOf(self)); },
          "The file's path as it was given; the name of a store without one.")
      .def_property_readonly(
          "place", [](const StoreHandle& self) { return toText(placeOf(self)); },
          "The path inside the file; empty: all of it.")
      .def_property_readonly("page_size",
                             asking([](const Store& store) { return store.pageSize(); }),
                             "Of the file, in bytes.")
      .def_property_readonly("damaged",
                             asking([](const Store& store) { return bool(store.damage()); }),
                             "Whether the directory was read only in part.");
}

}  // namespace

void StoreHandle::shut() noexcept {
  std::error_code ignored;  // a nested store has nothing to lose
  if (!isWhole()) nested_.close(ignored);
}

void StoreHandle::close() {
  if (isWhole()) return tree().close();
  tree().alone([&] { nested_.close(); });
}

py::object wrapStore(hxcrate::Store store, Reopening reopening, Py_buffer buffer) {
  const bool isWritable = store.isWritable();
  const auto tree = std::make_shared<HeldTree>(std::move(store), std::move(reopening), buffer);
  if (isWritable) return py::cast(std::make_shared<WritableHandle>(tree));
  return py::cast(std::make_shared<StoreHandle>(tree));
}

void defineStores(py::module_& module) {
  defineRecords(module);
  StoreClass type(
      module, "Store", py::custom_type_setup(fillSlots),
      "An open store: a mapping of names to bytes and to further stores. A path leads deeper.");
  defineGet(type);
  defineReading(type);
  defineEnds(type);
  defineProperties(type);
}

}  // namespace hxpython
