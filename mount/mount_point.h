// The folder over which stores are mounted.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

namespace mounted {

// "fuse.hxcrate" is the type that a mounted store has in the system's list.
constexpr const char* kSubtype = "hxcrate";

// Its absolute path, with what a program of ours that was killed has left over it taken away.
// Throws std::system_error.
std::string prepareMountPoint(const std::string& path);

// As long as it lives, unmounts when nothing was asked for so long; not while a file is open, or a
// program stands in a folder.
class IdleWatch {
 public:
  IdleWatch(std::chrono::seconds idle, std::string mountPoint,
            const std::atomic<std::int64_t>& lastUse);

 private:
  void watch(const std::stop_token& stop) const;

  std::chrono::seconds idle_;
  std::string mountPoint_;
  const std::atomic<std::int64_t>& lastUse_;  // seconds of the steady clock
  std::jthread thread_;
};

}  // namespace mounted
