#include "host/http/front_request.h"

#include <algorithm>
#include <cerrno>
#include <thread>

namespace hxremote {
namespace {

// A directory of 64 KiB is in it, and the records of some pages.
constexpr int64_t kFrontBytes = 128 * 1024;
constexpr std::chrono::milliseconds kNap{50};
constexpr int64_t kLongestFile = int64_t{1} << 62;
// What is taken whole from a server that sends nothing else.
constexpr int64_t kSmallFile = int64_t{16} << 20;

class FrontSink : public ByteSink {
 public:
  FrontSink(RequestContext& context, Attempts& attempts) : context_(context), attempts_(attempts) {}

  bool begin(const ReplyHead& head) override {
    bytes.clear();
    if (!head.encoding.empty() && head.encoding != "identity") {
      return refuse(EIO, "the server sends it encoded, as nobody asked for");
    }
    isWhole_ = head.status == 200;
    expected_ = isWhole_ ? head.contentLength : std::min(kFrontBytes, head.identity.length);
    if (isWhole_ && expected_ > kSmallFile) return refuseWhole();
    if (head.identity.length > kLongestFile) {
      return refuse(EFBIG, "the server tells a length that no file has");
    }
    if (!isWhole_ && (head.from != 0 || head.identity.length < 0 || head.to != expected_)) {
      return refuse(EIO, "the server sends another part of the file than was asked for");
    }
    return true;
  }

  bool take(std::span<const std::byte> more) override {
    if (auto excess = context_.findExcess(std::ssize(more))) {
      return refuse(excess->error, excess->reason);
    }
    context_.count({.bytes = std::ssize(more)});
    bytes.insert(bytes.end(), more.begin(), more.end());
    if (isWhole_ && std::ssize(bytes) > kSmallFile) return refuseWhole();
    const bool isTooMuch = expected_ >= 0 && std::ssize(bytes) > expected_;
    return !isTooMuch || refuse(EIO, "the server sends more than was asked for");
  }

  bool isComplete() const { return expected_ < 0 || std::ssize(bytes) == expected_; }

  std::vector<std::byte> bytes;

 private:
  bool refuse(int error, std::string reason) {
    attempts_.refuse({error, std::move(reason)});
    return false;
  }
  bool refuseWhole() {
    return refuse(EIO,
                  "the server sends no parts of files, and this one is too long to be read whole");
  }

  RequestContext& context_;
  Attempts& attempts_;
  bool isWhole_ = false;
  int64_t expected_ = -1;
};

// Ends a request to which nothing comes any more, or that nobody wants.
int watch(void* clock, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) noexcept;

class Watch {
 public:
  explicit Watch(const RequestContext& context) : context_(context) {}

  void attach(CURL* easy) {
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &watch);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
  }
  bool isOver(int64_t received) {
    const Clock::time_point now = Clock::now();
    if (received != received_) last_ = now;
    received_ = received;
    hasEnded_ = now - last_ >= context_.options.patience;
    return hasEnded_ || context_.findEnd();
  }
  CURLcode correct(CURLcode code) const {
    return hasEnded_ && code == CURLE_ABORTED_BY_CALLBACK ? CURLE_OPERATION_TIMEDOUT : code;
  }

 private:
  const RequestContext& context_;
  Clock::time_point last_ = Clock::now();
  int64_t received_ = 0;
  bool hasEnded_ = false;
};

int watch(void* clock, curl_off_t, curl_off_t received, curl_off_t, curl_off_t) noexcept {
  return static_cast<Watch*>(clock)->isOver(received) ? 1 : 0;
}

FileFront frontOf(const RangeRequest& request, const std::optional<Identity>& known,
                  std::vector<std::byte> bytes) {
  const long status = request.status();
  if (status == 304 && known) return {*known, {}, true};
  FileFront front{request.head().identity, std::move(bytes), false};
  if (status == 200) front.identity.length = std::ssize(front.bytes);
  return front;
}

bool isOfEmptyFile(const RangeRequest& request) {
  return request.status() == 416 && request.head().identity.length == 0;
}

}  // namespace

std::optional<FileFront> requestFront(RequestContext& context, const std::optional<Identity>& known,
                                      Failure& failure) {
  Attempts attempts(context.address);
  const Condition condition{known ? Condition::Kind::changed : Condition::Kind::none,
                            known.value_or(Identity{})};
  for (;;) {
    const Clock::time_point began = Clock::now();
    while (Clock::now() < attempts.notBefore() && !context.findEnd())
      std::this_thread::sleep_for(kNap);
    if (auto end = context.findEnd()) {
      failure = *std::move(end);
      return std::nullopt;
    }
    FrontSink sink(context, attempts);
    const RangeRequest request(context.address, 0, kFrontBytes, condition, sink);
    Watch clock(context);
    clock.attach(request.easy());
    CURLcode code = clock.correct(curl_easy_perform(request.easy()));
    context.count({.requests = 1, .time = Clock::now() - began});
    if (isOfEmptyFile(request)) return FileFront{request.head().identity, {}, false};
    if (code == CURLE_OK && !sink.isComplete()) code = CURLE_PARTIAL_FILE;
    const auto verdict = attempts.judge(code, request);
    if (verdict == Attempts::Verdict::done) return frontOf(request, known, std::move(sink.bytes));
    if (verdict == Attempts::Verdict::failed) {
      failure = attempts.failure();
      return std::nullopt;
    }
  }
}

}  // namespace hxremote
