# Compiler and linker flags as interface targets.
#   hx_warnings    every warning, as an error
#   hx_freestanding  what the module is compiled with
#   hx_hardened    what the programs that live in user space are compiled with

add_library(hx_warnings INTERFACE)
target_compile_options(hx_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Werror
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

# Jumps land where a function or a case begins, and no frame steps over the guard page.
add_compile_options(-fcf-protection -fstack-clash-protection)

if(HX_SANITIZE)
  add_compile_options(-fsanitize=${HX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${HX_SANITIZE})
  # What g++ believes uninitialized in sanitized code is often the library's own, and is not.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

if(HX_BUILD_FUZZ)
  # Everything reports which of its branches ran; the fuzz target alone is linked with the fuzzer.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(HX_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate -fcoverage-mapping)
endif()

# The module's flags stand on their own: a distribution's hardening defaults would import symbols. What
# a broken stack protector calls is its own, module/stack_guard.cpp.
add_library(hx_freestanding INTERFACE)
target_compile_options(hx_freestanding INTERFACE
  -ffreestanding -fno-exceptions -fno-rtti -fno-threadsafe-statics -fstack-protector-strong
  -fno-asynchronous-unwind-tables -fvisibility=hidden -U_FORTIFY_SOURCE)
target_link_options(hx_freestanding INTERFACE
  -Wl,-Bsymbolic-functions -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(NOT HX_SANITIZE AND NOT HX_COVERAGE)
  # Their runtimes need the libraries; there the module is linked like any other.
  target_link_options(hx_freestanding INTERFACE -nostdlib)
endif()

add_library(hx_hardened INTERFACE)
target_link_options(hx_hardened INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack
                                          -Wl,--no-undefined-version)
if(NOT HX_SANITIZE)
  target_compile_options(hx_hardened INTERFACE -fstack-protector-strong
                         $<$<CONFIG:Release>:-D_FORTIFY_SOURCE=2>)
  target_link_options(hx_hardened INTERFACE -Wl,--no-undefined)
endif()
