// Processes that update a store on the real disk until they are killed.
#pragma once

#include <cstdint>
#include <string>

#include "host/linux/linux_host.h"

namespace hxtest {

struct KillReport {
  uint64_t kills = 0;
  int64_t updates = 0;      // completed by the processes
  uint64_t rolledBack = 0;  // kills that left a journal behind
  uint64_t failures = 0;
  std::string firstFailure;
};

// Kills that many, each at a random moment, and looks at the store after each: it must hold the
// last update that the process announced as complete, or the one that it had begun.
KillReport killUpdaters(int kills, hxhost::Durability durability, unsigned seed);

}  // namespace hxtest
