// What follows from the end of a request: that it is done, made again, or given up, with a sentence
// for people.
#pragma once

#include <chrono>
#include <optional>

#include "host/http/web_request.h"

namespace hxremote {

using Clock = std::chrono::steady_clock;

// Of one wish, which takes one request or several.
class Attempts {
 public:
  enum class Verdict { done, again, failed };
  enum class Purpose { reading, writing };

  // `address` is where to ask; a redirection changes it, which what is written does not follow.
  explicit Attempts(WebAddress& address, Purpose purpose = Purpose::reading)
      : address_(address), purpose_(purpose), mayHaveExpired_(address.asked != nullptr) {}

  // The request is over with `code`. Told by failure() when it failed, by notBefore() when it is
  // to be made again.
  Verdict judge(CURLcode code, const WebRequest& request);

  // Something came of it: what goes wrong from now on is counted anew.
  void noteProgress() { faults_ = 0; }

  // Its reply is not what it may be: whatever follows, that is why.
  void refuse(Failure failure) { refusal_ = std::move(failure); }
  bool isRefused() const { return refusal_.has_value(); }

  const Failure& failure() const { return failure_; }
  Clock::time_point notBefore() const { return notBefore_; }

 private:
  bool isWriting() const { return purpose_ == Purpose::writing; }
  Failure failureOf(long status) const;
  Verdict judgeStatus(const WebRequest& request);
  bool returnToAsked(long status);
  Verdict follow(const WebRequest& request);
  Verdict tryAgain(Failure reason, const std::string& retryAfter = {});
  Verdict fail(Failure failure);

  WebAddress& address_;
  const Purpose purpose_;
  bool mayHaveExpired_;  // the address, to which another request was sent
  int faults_ = 0;
  int redirections_ = 0;
  std::optional<Failure> refusal_;
  Failure failure_;
  Clock::time_point notBefore_{};
};

}  // namespace hxremote
