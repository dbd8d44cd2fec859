#include "host/http/attempts.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <utility>

namespace hxremote {
namespace {

constexpr int kMostFaults = 5;
constexpr int kMostRedirections = 8;
constexpr std::chrono::milliseconds kFirstWait{100};
constexpr std::chrono::seconds kLongestWait{30};

bool isTemporary(long status) {
  return status == 408 || status == 429 || (status >= 500 && status <= 504 && status != 501);
}

std::string sentenceOf(long status, bool isWriting) {
  switch (status) {
    case 400:
      return "the server does not understand the request (400)";
    case 401:
      return "the server wants a user and a password, or others (401)";
    case 403:
      return std::string("the server does not let it be ") + (isWriting ? "written" : "read") +
             " (403)";
    case 404:
    case 410:
      return std::string("the server has no such ") + (isWriting ? "bucket" : "file") + " (" +
             std::to_string(status) + ")";
    case 429:
      return "the server has had too many requests (429)";
    case 503:
      return "the server is not available now (503)";
    default:
      return "the server answers " + std::to_string(status);
  }
}

int errorOf(long status) {
  if (status == 401 || status == 403) return EACCES;
  if (status == 404 || status == 410) return ENOENT;
  return EIO;
}

int errorOf(CURLcode code) {
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return ETIMEDOUT;
    case CURLE_COULDNT_CONNECT:
      return ECONNREFUSED;
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
      return ECONNRESET;
    case CURLE_OUT_OF_MEMORY:
      return ENOMEM;
    default:
      return EIO;
  }
}

// What may be otherwise the next time.
bool isTemporary(CURLcode code) {
  constexpr CURLcode kTemporary[] = {
      CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT, CURLE_PARTIAL_FILE,
      CURLE_GOT_NOTHING,     CURLE_SEND_ERROR,         CURLE_RECV_ERROR,
      CURLE_HTTP2,           CURLE_HTTP2_STREAM,       CURLE_COULDNT_RESOLVE_HOST};
  return std::ranges::find(kTemporary, code) != std::end(kTemporary);
}

// Of seconds, or a date; nothing else is understood.
std::optional<std::chrono::milliseconds> waitFor(const std::string& retryAfter) {
  if (retryAfter.empty()) return std::nullopt;
  int seconds = 0;
  const char* end = retryAfter.data() + retryAfter.size();
  const auto [rest, error] = std::from_chars(retryAfter.data(), end, seconds);
  if (error == std::errc() && rest == end && seconds >= 0) return std::chrono::seconds(seconds);
  const time_t date = curl_getdate(retryAfter.c_str(), nullptr);
  const auto now = std::chrono::system_clock::now();
  const auto until = std::chrono::system_clock::from_time_t(date) - now;
  if (date < 0) return std::nullopt;
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(until),
                  std::chrono::milliseconds(0));
}

}  // namespace

Attempts::Verdict Attempts::judge(CURLcode code, const WebRequest& request) {
  if (refusal_) return fail(*refusal_);
  const long status = request.status();
  const bool isGood =
      status == 200 || (isWriting() ? status == 204 : status == 206 || status == 304);
  if (status != 0 && !isGood) return judgeStatus(request);
  if (code == CURLE_OK) return Verdict::done;
  const Failure reason{errorOf(code), curl_easy_strerror(code)};
  return isTemporary(code) ? tryAgain(reason) : fail(reason);
}

Attempts::Verdict Attempts::judgeStatus(const WebRequest& request) {
  const long status = request.status();
  if (status >= 300 && status < 400) return follow(request);
  if (returnToAsked(status)) return Verdict::again;
  const Failure reason = failureOf(status);
  return isTemporary(status) ? tryAgain(reason, request.head().retryAfter) : fail(reason);
}

Failure Attempts::failureOf(long status) const {
  if (status == 412 && isWriting()) {
    return {EEXIST, faults_ == 0 ? "" : "perhaps made by the request before, whose reply was lost"};
  }
  if (status == 412) return {ESTALE, "the file on the server was changed meanwhile (412)"};
  Failure failure{errorOf(status), sentenceOf(status, isWriting())};
  const bool isRefused = status == 400 || failure.error == EACCES;
  if (isRefused && address_.isObject() && !address_.signing) {
    failure.reason += "; it was asked without keys";
  }
  return failure;
}

// Where a server sends to may be good for a while only.
bool Attempts::returnToAsked(long status) {
  const bool isRefused = errorOf(status) == EACCES || errorOf(status) == ENOENT || status == 400;
  if (!isRefused || !std::exchange(mayHaveExpired_, false)) return false;
  address_ = WebAddress(*address_.asked);
  notBefore_ = {};
  return true;
}

Attempts::Verdict Attempts::follow(const WebRequest& request) {
  if (isWriting()) {
    return fail({EIO, "the server sends elsewhere (" + std::to_string(request.status()) +
                          "), where nothing is written: is the region another one?"});
  }
  const std::string target = request.redirection();
  if (target.empty()) return fail({EIO, "the server sends elsewhere and does not say where"});
  if (++redirections_ > kMostRedirections) return fail({ELOOP, "the server sends in circles"});
  std::optional<WebAddress> next = address_.redirectedTo(target);
  if (!next) {
    return fail({EIO, "the server sends to where nothing is encrypted, or it is no address"});
  }
  address_ = std::move(*next);
  notBefore_ = {};
  return Verdict::again;
}

Attempts::Verdict Attempts::tryAgain(Failure reason, const std::string& retryAfter) {
  const auto asked = waitFor(retryAfter);
  if (++faults_ >= kMostFaults) {
    reason.reason += ", " + std::to_string(kMostFaults) + " times";
    return fail(std::move(reason));
  }
  if (asked && *asked > kLongestWait) {
    reason.reason += ", and wants " +
                     std::to_string(std::chrono::ceil<std::chrono::seconds>(*asked).count()) +
                     " seconds of patience";
    return fail(std::move(reason));
  }
  notBefore_ = Clock::now() + asked.value_or(kFirstWait * (1 << faults_) / 2);
  return Verdict::again;
}

Attempts::Verdict Attempts::fail(Failure failure) {
  failure_ = std::move(failure);
  return Verdict::failed;
}

}  // namespace hxremote
