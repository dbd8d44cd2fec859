// Names and buffers of Python as the C++ API takes them.
#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <span>
#include <string>
#include <string_view>

namespace hxpython {

namespace py = pybind11;

// The bytes of a str or bytes that names something, valid as long as this and the object. A str is
// UTF-8, without a copy; bytes that are no UTF-8 travel in it as os.fsencode has them.
class NameBytes {
 public:
  // Throws TypeError.
  explicit NameBytes(PyObject* name) {
    if (PyUnicode_Check(name)) {
      readText(name);
    } else if (PyBytes_Check(name)) {
      text_ = {PyBytes_AS_STRING(name), static_cast<std::size_t>(PyBytes_GET_SIZE(name))};
    } else {
      PyErr_Format(PyExc_TypeError, "a name is str or bytes, not %.100s", Py_TYPE(name)->tp_name);
      throw py::error_already_set();
    }
  }

  operator std::string_view() const { return text_; }

 private:
  void readText(PyObject* name) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(name, &size);
    if (text == nullptr) {
      PyErr_Clear();
      encoded_ = py::reinterpret_steal<py::bytes>(
          PyUnicode_AsEncodedString(name, "utf-8", "surrogateescape"));
      if (!encoded_) throw py::error_already_set();
      text = PyBytes_AS_STRING(encoded_.ptr());
      size = PyBytes_GET_SIZE(encoded_.ptr());
    }
    text_ = {text, static_cast<std::size_t>(size)};
  }

  std::string_view text_;
  py::object encoded_;
};

inline py::str toText(std::string_view name) {
  auto text = py::reinterpret_steal<py::str>(
      PyUnicode_DecodeUTF8(name.data(), static_cast<Py_ssize_t>(name.size()), "surrogateescape"));
  if (!text) throw py::error_already_set();
  return text;
}

// The bytes of a bytes-like object in one piece. Throws TypeError, and BufferError.
class BufferBytes {
 public:
  BufferBytes(py::handle object, int flags) {
    if (PyObject_GetBuffer(object.ptr(), &buffer_, flags) != 0) throw py::error_already_set();
  }
  ~BufferBytes() { PyBuffer_Release(&buffer_); }
  BufferBytes(const BufferBytes&) = delete;
  BufferBytes& operator=(const BufferBytes&) = delete;

  std::span<std::byte> bytes() const {
    return {static_cast<std::byte*>(buffer_.buf), static_cast<std::size_t>(buffer_.len)};
  }
  // Gives it to who releases it.
  Py_buffer release() { return std::exchange(buffer_, {}); }

 private:
  Py_buffer buffer_{};
};

}  // namespace hxpython
