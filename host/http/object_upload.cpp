#include "host/http/object_upload.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <thread>
#include <utility>

#include "host/http/object_store.h"

namespace hxremote {
namespace {

constexpr int64_t kMostAtOnce = int64_t{5} << 30;
constexpr int64_t kUsualPart = int64_t{64} << 20;
constexpr int64_t kMostParts = 10000;

// A variable that only tests set makes it less.
int64_t mostAtOnce() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody here sets any
  const char* told = std::getenv("HX_TEST_PART_BYTES");
  return told != nullptr ? std::max<int64_t>(std::strtoll(told, nullptr, 10), 1) : kMostAtOnce;
}

std::span<const std::byte> bytesOf(const std::string& text) {
  return std::as_bytes(std::span(text));
}

}  // namespace

bool ObjectUpload::send() {
  const int64_t most = mostAtOnce();
  if (std::ssize(bytes_) <= most) return sendWhole();
  return sendParts(std::max(std::min(most, kUsualPart), std::ssize(bytes_) / kMostParts + 1));
}

bool ObjectUpload::sendWhole() {
  return ask({"PUT", "", bytes_, hashOf(bytes_), !options_.replaces}).has_value();
}

bool ObjectUpload::sendParts(int64_t partSize) {
  const std::optional<Reply> begun = ask({"POST", "uploads=", {}, hashOf({}), false});
  if (!begun) return false;
  if (begun->uploadId.empty()) return fail({EIO, "the server does not take it in parts"});
  const std::string id = "uploadId=" + escapeForUrl(begun->uploadId, "");
  while (sent_ < std::ssize(bytes_)) {
    const int64_t size = std::min(partSize, std::ssize(bytes_) - sent_);
    if (sendPart(id, sent_, size)) continue;
    abandon(id);
    return false;
  }
  if (complete(id)) return true;
  abandon(id);
  return false;
}

bool ObjectUpload::sendPart(const std::string& id, int64_t from, int64_t size) {
  const auto part = bytes_.subspan(static_cast<size_t>(from), static_cast<size_t>(size));
  const std::string number = std::to_string(++count_);
  const auto reply = ask({"PUT", "partNumber=" + number + "&" + id, part, hashOf(part), false});
  if (!reply) return false;
  parts_ += "<Part><PartNumber>" + number + "</PartNumber><ETag>" + reply->etag + "</ETag></Part>";
  sent_ += size;
  return true;
}

// A reply that begins well may still tell of a failure.
bool ObjectUpload::complete(const std::string& id) {
  const std::string list = "<CompleteMultipartUpload>" + parts_ + "</CompleteMultipartUpload>";
  const auto reply = ask({"POST", id, bytesOf(list), hashOf(bytesOf(list)), !options_.replaces});
  if (!reply) return false;
  return reply->isDone || fail({EIO, "the server does not put the parts together"});
}

// What failed stays the reason.
void ObjectUpload::abandon(const std::string& id) {
  Failure reason = std::exchange(failure_, {});
  isEnding_ = true;
  const bool isGone = ask({"DELETE", id, {}, hashOf({}), false}) || failure_.error == ENOENT;
  if (!isGone) {
    reason.reason += "; parts of it stay with the server until it is told to remove them";
  }
  failure_ = std::move(reason);
}

// Again after faults that may pass, and without the condition where that is not implemented.
std::optional<ObjectUpload::Reply> ObjectUpload::ask(ObjectRequest::Content content) {
  WebAddress address = address_;
  Attempts attempts(address, Attempts::Purpose::writing);
  const auto goesOn = [this](int64_t sent) { return isEnding_ || options_.goesOn(sent_ + sent); };
  for (;;) {
    while (Clock::now() < attempts.notBefore() && goesOn(0))
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ObjectRequest request(address, content);
    const CURLcode code = request.perform(options_.patience, goesOn);
    if (request.status() == 501 && std::exchange(content.makesAnew, false)) continue;
    if (code == CURLE_ABORTED_BY_CALLBACK) attempts.refuse({ECANCELED, "it was told to end"});
    const auto verdict = attempts.judge(code, request);
    if (verdict == Attempts::Verdict::done) {
      return Reply{request.head().identity.etag, request.field("UploadId"),
                   request.tells("CompleteMultipartUploadResult")};
    }
    if (verdict == Attempts::Verdict::again) continue;
    const std::string told = request.field("Code");
    fail(attempts.failure());
    if (!told.empty()) failure_.reason += ", " + told;
    return std::nullopt;
  }
}

bool ObjectUpload::fail(Failure failure) {
  failure_ = std::move(failure);
  return false;
}

}  // namespace hxremote

extern "C" __attribute__((visibility("default"))) bool hxremoteSend(
    const std::string& url, std::span<const std::byte> bytes, const hxremote::SendOptions& options,
    hxremote::Failure& failure) {
  const std::optional<hxremote::WebAddress> address = hxremote::parseAddress(url, failure);
  if (!address) return false;
  if (!address->isObject()) {
    failure = {EROFS, "only objects can be written: s3://bucket/key"};
    return false;
  }
  if (!hxremote::beginTransfers(failure)) return false;
  hxremote::ObjectUpload upload(*address, bytes, options);
  const bool isSent = upload.send();
  failure = upload.failure();
  return isSent;
}
