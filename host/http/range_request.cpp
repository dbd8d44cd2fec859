#include "host/http/range_request.h"

namespace hxremote {
namespace {

constexpr char kHashOfNothing[] =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
// Who sends a byte now and then keeps nobody waiting for ever.
constexpr long kLeastSpeed = 256;  // bytes a second
constexpr long kSlowSeconds = 60;

}  // namespace

RangeRequest::RangeRequest(const WebAddress& address, int64_t from, int64_t to,
                           const Condition& condition, ByteSink& sink)
    : WebRequest(address), sink_(sink) {
  set(CURLOPT_RANGE, (std::to_string(from) + "-" + std::to_string(to - 1)).c_str());
  set(CURLOPT_LOW_SPEED_LIMIT, kLeastSpeed);
  set(CURLOPT_LOW_SPEED_TIME, kSlowSeconds);
  // No header of ours, which would be signed, while some servers' front ends change it.
  set(CURLOPT_ACCEPT_ENCODING, "identity");
  set(CURLOPT_HTTP_CONTENT_DECODING, 0L);
  addCondition(condition);
  addCredentials(address, kHashOfNothing);
}

// A weak tag stands for files that may differ in bytes, so the time goes before it.
void RangeRequest::addCondition(const Condition& condition) {
  const Identity& identity = condition.identity;
  if (condition.kind == Condition::Kind::unchanged) {
    if (identity.isStrong()) return addHeader("If-Match: " + identity.etag);
    if (!identity.modified.empty()) addHeader("If-Unmodified-Since: " + identity.modified);
  }
  if (condition.kind == Condition::Kind::changed) {
    if (identity.isStrong()) return addHeader("If-None-Match: " + identity.etag);
    if (!identity.modified.empty()) addHeader("If-Modified-Since: " + identity.modified);
  }
}

bool RangeRequest::takeBody(std::span<const std::byte> bytes) {
  const bool isGood = head().status == 200 || head().status == 206;
  if (!isGood) {
    ignored_ += std::ssize(bytes);
    return ignored_ <= kLongestExcuse;
  }
  if (!hasBegun_ && !sink_.begin(head())) return false;
  hasBegun_ = true;
  return sink_.take(bytes);
}

}  // namespace hxremote
