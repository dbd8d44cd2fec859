// How much may be unpacked or imported.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>

#include "tool/files/write_limits.h"
#include "tool/report/report.h"

namespace tool {

// These end the command, unlike what befalls one entry.
class QuotaFailure : public Failure {
 public:
  using Failure::Failure;
};
class TargetFailure : public Failure {
 public:
  explicit TargetFailure(const Failure& failure) : Failure(failure) {}
};

class UnpackQuota {
 public:
  // kUnlimited where there is no limit. `store` is for messages, `outcome` that of a QuotaFailure.
  UnpackQuota(std::string store, std::int64_t maxEntries, std::int64_t maxBytes,
              ExitCode outcome = ExitCode::partial)
      : store_(std::move(store)), maxEntries_(maxEntries), maxBytes_(maxBytes), outcome_(outcome) {}

  std::int64_t entries() const { return entries_; }
  std::int64_t bytes() const { return bytes_; }
  std::int64_t bytesLeft() const { return maxBytes_ - bytes_; }

  // Before an entry is made of `place`, and before its bytes are written. Throw QuotaFailure.
  void takeEntry(const std::string& place) {
    if (entries_ == maxEntries_) {
      fail(place, fmt::format("is beyond the {} entries allowed", maxEntries_));
    }
    ++entries_;
  }
  void takeBytes(const std::string& place, std::int64_t bytes) {
    if (bytes > maxBytes_ - bytes_) {
      fail(place, fmt::format("its {} bytes go beyond the {} allowed", bytes, maxBytes_));
    }
    bytes_ += bytes;
  }

 private:
  [[noreturn]] void fail(const std::string& place, const std::string& reason) const {
    throw QuotaFailure(outcome_, store_, place, reason + "; stopped");
  }

  const std::string store_;
  const std::int64_t maxEntries_;
  const std::int64_t maxBytes_;
  const ExitCode outcome_;
  std::int64_t entries_ = 0;
  std::int64_t bytes_ = 0;
};

}  // namespace tool
