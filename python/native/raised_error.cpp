#include "raised_error.h"

#include <cerrno>
#include <exception>
#include <utility>

#include "python_text.h"

namespace hxpython {

namespace {

using hxcrate::Errc;

PyObject* damagedError = nullptr;
PyObject* missingError = nullptr;

// The exception for what is no failure of a file; null: an OSError.
PyObject* plainTypeOf(Errc code) {
  switch (code) {
    case Errc::noMemory:
      return PyExc_MemoryError;
    case Errc::noModule:
      return PyExc_ImportError;
    case Errc::badName:
    case Errc::nameTooLong:
    case Errc::badPageSize:
    case Errc::pageSizeFixed:
    case Errc::closed:
    case Errc::abandoned:
    case Errc::noBlob:
      return PyExc_ValueError;
    default:
      return nullptr;
  }
}

bool isDamage(Errc code) {
  return code == Errc::damaged || code == Errc::notAStore || code == Errc::unknownEncoding;
}

// Of an OSError it becomes the subclass that goes with the number.
PyObject* fileTypeOf(const hxcrate::Error& error) {
  if (isDamage(error.errc())) return damagedError;
  const bool isMember = error.errc() == Errc::notFound && !error.member().empty();
  return isMember ? missingError : PyExc_OSError;
}

int numberOf(const hxcrate::Error& error) {
  if (isDamage(error.errc())) return EUCLEAN;
  const std::error_condition condition = error.code().default_error_condition();
  return condition.category() == std::generic_category() ? condition.value() : EIO;
}

py::object unsupportedOperation() {
  return py::module_::import("io").attr("UnsupportedOperation");
}

// The arguments of OSError: number, sentence, file, nothing, and the member as the second file.
void raiseFileError(PyObject* type, const hxcrate::Error& error) {
  const py::object member =
      error.member().empty() ? py::object(py::none()) : toText(error.member());
  const py::tuple arguments = py::make_tuple(numberOf(error), toText(error.reason()),
                                             toText(error.store()), py::none(), member);
  PyErr_SetObject(type, arguments.ptr());
}

void raise(const hxcrate::Error& error) {
  if (error.errc() == Errc::readOnly) return raiseFileError(unsupportedOperation().ptr(), error);
  if (PyObject* type = plainTypeOf(error.errc())) return PyErr_SetString(type, error.what());
  raiseFileError(fileTypeOf(error), error);
}

PyObject* newError(py::module_& module, const char* name, const char* text,
                   const py::tuple& bases) {
  const std::string full = std::string("hxcrate.") + name;
  PyObject* type = PyErr_NewExceptionWithDoc(full.c_str(), text, bases.ptr(), nullptr);
  if (type == nullptr) throw py::error_already_set();
  module.attr(name) = py::handle(type);
  return type;
}

}  // namespace

bool isMissing(const hxcrate::Error& error) {
  const Errc code = error.errc();
  return code == Errc::notFound || code == Errc::isAnItem || code == Errc::badName;
}

void defineErrors(py::module_& module) {
  damagedError =
      newError(module, "Damaged", "The bytes of the file are no store, or not all of one any more.",
               py::make_tuple(py::handle(PyExc_OSError)));
  missingError =
      newError(module, "MemberNotFound", "There is no member of that name.",
               py::make_tuple(py::handle(PyExc_FileNotFoundError), py::handle(PyExc_KeyError)));
  py::register_exception_translator([](std::exception_ptr thrown) {
    try {
      std::rethrow_exception(std::move(thrown));
    } catch (const hxcrate::Error& error) {
      raise(error);
    }
  });
}

void raiseCurrent() noexcept {
  try {
    throw;
  } catch (py::error_already_set& error) {
    error.restore();
  } catch (const py::builtin_exception& error) {
    error.set_error();
  } catch (const hxcrate::Error& error) {
    raise(error);
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& error) {
    PyErr_SetString(PyExc_RuntimeError, error.what());
  }
}

}  // namespace hxpython
