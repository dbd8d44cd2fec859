// What the command tells people: one line an error, and a number for scripts.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

#include "hxcrate/crate.hpp"

namespace tool {

enum class ExitCode {
  fine = 0,
  damaged = 1,  // the store's data are not what they should be
  differs = 1,  // two stores are not the same
  usage = 2,
  inputOutput = 3,  // reading or writing files or standard output
  notOpenable = 4,  // the store, or the place in it
  partial = 5,      // all was done but for the entries that were named
};

// The worse of two outcomes, where damage outranks what was left out.
ExitCode worse(ExitCode a, ExitCode b);

// Ends the command. `file` is what was worked on, `place` where in it; either may be empty.
class Failure : public std::exception {
 public:
  // `error`: of the system call that failed; 0: none.
  Failure(ExitCode code, std::string file, std::string place, std::string reason, int error = 0);
  const char* what() const noexcept override { return reason_.c_str(); }
  ExitCode code() const noexcept { return code_; }
  const std::string& file() const noexcept { return file_; }
  // Whether what comes next would fail as well.
  bool isOfWholeDisk() const noexcept;
  void print() const;

 private:
  ExitCode code_;
  std::string file_;
  std::string place_;
  std::string reason_;
  int error_;
};

// Why the last system call failed, and that as the end of the command.
std::string systemReason();
Failure systemFailure(const std::string& file, std::string_view action);

// How an error of the API ends the command.
ExitCode exitCodeOf(const hxcrate::Error& error);

// One line on standard error: "hxcrate: FILE: PLACE: reason".
void complain(std::string_view file, std::string_view place, std::string_view reason);
void complain(const hxcrate::Error& error);

// "1 item", "2 items".
std::string countThings(std::int64_t number, std::string_view noun);

// `bytes` with everything that a terminal might obey as an octal escape: control characters, the
// backslash, and what is not UTF-8.
std::string escape(std::string_view bytes);

}  // namespace tool
