// The file failures of a host, kept until somebody asks. Safe for several threads.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string_view>

#include "host/linux/linux_host.h"

namespace hxhost {

// Which failure, and what it was, for as long as its file is open.
struct FailureTicket {
  int error;              // errno
  const char* operation;  // a literal
  int64_t offset;
  uint64_t number = 0;
};

class FailureLog {
 public:
  // Keeps a failure behind the others, of which the oldest goes when there are too many. Without
  // memory for the path it is kept without it; without any memory not at all.
  FailureTicket record(FailureTicket failure, std::string_view path) noexcept;

  // Whether it is kept still: nobody has taken it, and it was not one too many.
  bool holds(const FailureTicket& ticket) noexcept;

  // Says of a failure whether its file was rolled back. One that was taken already is kept anew: it
  // was taken by somebody who did not know yet that the whole update is lost.
  void conclude(const FailureTicket& ticket, std::string_view path, bool rolledBack) noexcept;

  // The oldest, which is forgotten; or the oldest of that path.
  std::optional<FileFailure> take();
  std::optional<FileFailure> take(std::string_view path);

 private:
  struct Entry {
    uint64_t number;
    FileFailure failure;
  };

  std::optional<FileFailure> take(std::list<Entry>::iterator entry);
  bool markRolledBack(const FailureTicket& ticket, bool rolledBack) noexcept;  // false: not kept
  std::list<Entry>::iterator find(const FailureTicket& ticket);

  std::mutex mutex_;
  std::list<Entry> entries_;  // the oldest first
  uint64_t count_ = 0;
};

}  // namespace hxhost
