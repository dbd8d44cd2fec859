// Failures of the C++ API as exceptions of Python.
#pragma once

#include <pybind11/pybind11.h>

#include <hxcrate/error.hpp>

namespace hxpython {

// Adds the exceptions of our own to the module and turns what its functions throw.
void defineErrors(pybind11::module_& module);

// Sets Python's error to what is being thrown. For functions that Python calls without pybind11.
void raiseCurrent() noexcept;

// Whether it says that there is no member of the name that was asked for.
bool isMissing(const hxcrate::Error& error);

}  // namespace hxpython
