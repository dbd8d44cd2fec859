// What the program ends with: the numbers of the command hxcrate.
#pragma once

namespace mounted {

constexpr int kFine = 0;
constexpr int kUsage = 2;
constexpr int kNotMounted = 3;   // the system refused it
constexpr int kNotOpenable = 4;  // a store, or the place in it

}  // namespace mounted
