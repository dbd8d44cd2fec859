// What every header of this library needs of the compiler.
#pragma once

#if __cplusplus < 202002L
#error "hxcrate needs C++20: compile with -std=c++20, or ask CMake for cxx_std_20"
#endif
