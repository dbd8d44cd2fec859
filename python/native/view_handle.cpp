#include "view_handle.h"

#include <algorithm>

#include "python_text.h"

namespace hxpython {

namespace {

constexpr std::int64_t kLittle = 1 << 20;  // bytes

// Shows bytes that nobody changes to Python.
py::buffer_info showBytes(std::span<const std::byte> bytes) {
  return {const_cast<std::byte*>(bytes.data()), 1, "B", 1, {bytes.size()}, {1}, true};
}

py::bytes newBytes(std::int64_t size) {
  auto bytes = py::reinterpret_steal<py::bytes>(
      PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size)));
  if (!bytes) throw py::error_already_set();
  return bytes;
}

std::span<std::byte> contentsOf(py::bytes& bytes) {
  return {reinterpret_cast<std::byte*>(PyBytes_AS_STRING(bytes.ptr())),
          static_cast<std::size_t>(PyBytes_GET_SIZE(bytes.ptr()))};
}

}  // namespace

py::object describeReopening(const Handle& self, const std::string& place) {
  const Reopening& known = self.tree().reopening();
  if (known.path.empty() || self.tree().isWritable()) return py::none();
  return py::make_tuple(toText(known.path), known.isMapped, known.acceptsDamaged, toText(place));
}

hxcrate::View& ViewHandle::view() const {
  if (isShut_) throw hxcrate::Error(hxcrate::Errc::closed, "", "");
  return *view_;
}

void ViewHandle::shut() noexcept {
  std::error_code ignored;  // of the lock alone, and then it goes with the store
  if (view_.use_count() == 1) hxcrate::captureError(ignored, [&] { view_->close(); });
  isShut_ = true;
}

std::int64_t ViewHandle::size() const {
  return tree().share([&] { return view().size(); });
}

std::string ViewHandle::path() const {
  return tree().share([&] { return view().path(); });
}

// Goes on until there is no more or `buffer` is full: one call may stop before a failure.
std::size_t ViewHandle::readInto(std::span<std::byte> buffer, std::int64_t offset) const {
  return tree().share([&] {
    std::size_t done = 0;
    while (done < buffer.size()) {
      const std::size_t count =
          view().readAt(offset + static_cast<std::int64_t>(done), buffer.subspan(done));
      if (count == 0) break;
      done += count;
    }
    return done;
  });
}

py::bytes ViewHandle::read(std::int64_t count, std::int64_t offset) const {
  if (offset < 0) throw py::value_error("an offset is not below 0");
  // Who asks for little has no use for the size, which all records of the item tell together.
  const bool isLittle = count >= 0 && count <= kLittle;
  const std::int64_t left = isLittle ? count : std::max<std::int64_t>(size() - offset, 0);
  const std::int64_t wanted = count < 0 ? left : std::min(count, left);
  py::bytes bytes = newBytes(wanted);
  const std::size_t done = readInto(contentsOf(bytes), offset);
  if (done == static_cast<std::size_t>(wanted)) return bytes;
  if (!isLittle) throw hxcrate::Error(hxcrate::Errc::damaged, tree().reopening().path, path());
  return {PyBytes_AS_STRING(bytes.ptr()), done};
}

bool ViewHandle::isOpen() const {
  return tree().share([&] { return !isShut_ && view_->isOpen(); });
}

void ViewHandle::close() {
  const bool isInUse = tree().alone([&] {
    if (!isShut_ && view_.use_count() > 1) return true;
    shut();
    return false;
  });
  if (isInUse) throw py::buffer_error("pages of the item are in use");
}

py::object ViewHandle::expose(std::span<const std::byte> page) const {
  return py::reinterpret_steal<py::object>(
      PyMemoryView_FromObject(py::cast(std::make_unique<Page>(sharedTree(), view_, page)).ptr()));
}

py::list ViewHandle::pages() const {
  py::list pages;
  for (const auto page : tree().share([&] { return view().pages(); }))
    pages.append(expose(page));
  return pages;
}

py::object ViewHandle::contiguous() const {
  const auto bytes = tree().share([&] { return view().contiguous(); });
  return bytes ? expose(*bytes) : py::none();
}

Page::~Page() {
  tree_->isForeign() ? leak(std::move(view_)) : tree_->share([&] { view_.reset(); });
}

std::size_t WriterHandle::write(py::handle buffer) {
  const BufferBytes source(buffer, PyBUF_SIMPLE);
  tree().alone([&] { writer_.write(source.bytes()); });
  return source.bytes().size();
}

std::int64_t WriterHandle::size() const {
  return tree().share([&] { return writer_.size(); });
}

bool WriterHandle::isOpen() const {
  return tree().share([&] { return writer_.isOpen(); });
}

void WriterHandle::close() {
  tree().alone([&] { writer_.close(); });
}

void WriterHandle::shut() noexcept {
  std::error_code ignored;  // a byte that was lost is told by the close of the store
  writer_.close(ignored);
}

namespace {

using ViewClass = py::class_<ViewHandle, std::shared_ptr<ViewHandle>>;

std::size_t readIntoBuffer(const ViewHandle& view, py::handle buffer, std::int64_t offset) {
  if (offset < 0) throw py::value_error("an offset is not below 0");
  const BufferBytes target(buffer, PyBUF_WRITABLE);
  return view.readInto(target.bytes(), offset);
}

void defineReading(ViewClass& type) {
  type.def("read", &ViewHandle::read, py::arg("size") = -1, py::arg("offset") = 0,
           "The `size` bytes at `offset`, or as many as there are; all of them below 0.")
      .def("read_into", readIntoBuffer, py::arg("buffer"), py::arg("offset") = 0,
           "Fills a writable buffer from `offset` on and returns how many bytes that were: fewer\n"
           "than asked for only at the item's end.")
      .def("pages", &ViewHandle::pages,
           "The item's pages where it lies in memory (in a blob, a mapped file, a store in\n"
           "memory), each a memoryview that keeps them there; nothing is copied. Else none.")
      .def("contiguous", &ViewHandle::contiguous,
           "The same for an item that lies there in one piece; else None.");
}

void defineView(py::module_& module) {
  ViewClass type(module, "View", py::is_final(),
                 "An item for reading at any place, by any number of threads.");
  defineReading(type);
  type.def("__len__", &ViewHandle::size)
      .def_property_readonly("size", &ViewHandle::size, "Of the item, in bytes.")
      .def_property_readonly(
          "path", [](const ViewHandle& view) { return toText(view.path()); }, "Inside the file.")
      .def_property_readonly("closed", [](const ViewHandle& view) { return !view.isOpen(); })
      .def("close", &ViewHandle::close, "Raises BufferError while pages of it are in use.")
      .def("_reopening",
           [](const ViewHandle& self) { return describeReopening(self, self.path()); })
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](ViewHandle& view, const py::args&) { view.close(); });
}

void defineWriter(py::module_& module) {
  py::class_<WriterHandle, std::shared_ptr<WriterHandle>>(module, "Writer", py::is_final(),
                                                          "Writes at the end of an item.")
      .def("write", &WriterHandle::write, py::arg("data"), "Appends all of it.")
      .def_property_readonly("size", &WriterHandle::size, "Of the item by now, in bytes.")
      .def_property_readonly("closed", [](const WriterHandle& writer) { return !writer.isOpen(); })
      .def("close", &WriterHandle::close);
}

}  // namespace

void defineItems(py::module_& module) {
  py::class_<Page>(module, "_Page", py::buffer_protocol(), py::is_final())
      .def_buffer([](const Page& page) { return showBytes(page.bytes()); });
  py::class_<hxcrate::Blob>(module, "Blob", py::buffer_protocol(), py::is_final(),
                            "A store as one buffer, byte for byte the file that it would be.")
      .def_buffer([](const hxcrate::Blob& blob) { return showBytes(blob.bytes()); })
      .def("__len__", [](const hxcrate::Blob& blob) { return blob.bytes().size(); });
  defineView(module);
  defineWriter(module);
}

}  // namespace hxpython
