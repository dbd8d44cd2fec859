// What the calls of the API throw.
#pragma once

#include <functional>
#include <hxcrate/crate.hpp>
#include <optional>
#include <string>

namespace hxcrate {

inline std::optional<Error> thrownBy(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

// No error when nothing was thrown.
inline std::error_code errorOf(const std::function<void()>& call) {
  const std::optional<Error> error = thrownBy(call);
  return error ? error->code() : std::error_code();
}

// "" when nothing was.
inline std::string whatOf(const std::function<void()>& call) {
  const std::optional<Error> error = thrownBy(call);
  return error ? error->what() : "";
}

}  // namespace hxcrate
