// What a function of the module calls whose frame was overrun. The C library's would be an import.

// NOLINTNEXTLINE(bugprone-reserved-identifier): the compiler names it
extern "C" [[noreturn]] void __stack_chk_fail() {
  __builtin_trap();
}
