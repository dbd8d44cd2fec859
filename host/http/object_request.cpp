#include "host/http/object_request.h"

#include <nettle/sha2.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

namespace hxremote {

std::string hashOf(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  sha256_ctx context;
  sha256_init(&context);
  sha256_update(&context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
  std::array<uint8_t, SHA256_DIGEST_SIZE> digest{};
  sha256_digest(&context, digest.size(), digest.data());
  std::string text;
  for (const uint8_t byte : digest)
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  return text;
}

ObjectRequest::ObjectRequest(const WebAddress& address, const Content& content)
    : WebRequest(address), bytes_(content.bytes) {
  if (!content.query.empty()) set(CURLOPT_URL, (address.url + "?" + content.query).c_str());
  if (content.method != "DELETE") set(CURLOPT_UPLOAD, 1L);
  set(CURLOPT_CUSTOMREQUEST, content.method.c_str());
  set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(bytes_.size()));
  set(CURLOPT_READFUNCTION, &readCallback);
  set(CURLOPT_READDATA, this);
  set(CURLOPT_SEEKFUNCTION, &seekCallback);
  set(CURLOPT_SEEKDATA, this);
  addHeader("Content-Type: application/octet-stream");
  if (content.makesAnew) addHeader("If-None-Match: *");
  addCredentials(address, content.hash);
}

size_t ObjectRequest::readCallback(char* to, size_t, size_t count, void* self) noexcept {
  auto& request = *static_cast<ObjectRequest*>(self);
  const size_t taken = std::min(count, request.bytes_.size() - request.sent_);
  if (taken != 0) std::memcpy(to, request.bytes_.data() + request.sent_, taken);
  request.sent_ += taken;
  return taken;
}

int ObjectRequest::seekCallback(void* self, curl_off_t offset, int origin) noexcept {
  auto& request = *static_cast<ObjectRequest*>(self);
  const bool isInside = offset >= 0 && offset <= std::ssize(request.bytes_);
  if (origin != SEEK_SET || !isInside) return CURL_SEEKFUNC_FAIL;
  request.sent_ = static_cast<size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

bool ObjectRequest::takeBody(std::span<const std::byte> bytes) {
  reply_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return std::ssize(reply_) <= kLongestExcuse;
}

// Ends a request that is to end, or in which nothing moves any more.
struct ObjectRequest::Watch {
  using Clock = std::chrono::steady_clock;

  static int ask(void* self, curl_off_t, curl_off_t received, curl_off_t,
                 curl_off_t sent) noexcept {
    auto& watch = *static_cast<Watch*>(self);
    const Clock::time_point now = Clock::now();
    if (received + sent != watch.moved) watch.last = now;
    watch.moved = received + sent;
    watch.isStalled = now - watch.last >= watch.patience;
    return watch.isStalled || !watch.goesOn(sent) ? 1 : 0;
  }

  const std::chrono::milliseconds patience;
  const std::function<bool(int64_t)>& goesOn;
  Clock::time_point last = Clock::now();
  int64_t moved = 0;
  bool isStalled = false;
};

CURLcode ObjectRequest::perform(std::chrono::milliseconds patience,
                                const std::function<bool(int64_t)>& goesOn) {
  Watch watch{patience, goesOn};
  set(CURLOPT_XFERINFOFUNCTION, &Watch::ask);
  set(CURLOPT_XFERINFODATA, &watch);
  set(CURLOPT_NOPROGRESS, 0L);
  const CURLcode code = curl_easy_perform(easy());
  return watch.isStalled ? CURLE_OPERATION_TIMEDOUT : code;
}

bool ObjectRequest::tells(const std::string& name) const {
  return reply_.find("<" + name) != std::string::npos;
}

std::string ObjectRequest::field(const std::string& name) const {
  const size_t tag = reply_.find("<" + name + ">");
  if (tag == std::string::npos) return {};
  const size_t begin = tag + name.size() + 2;
  const size_t end = reply_.find("</" + name + ">", begin);
  if (end == std::string::npos) return {};
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~+/=";
  const std::string text = reply_.substr(begin, end - begin);
  return text.find_first_not_of(kPlain) == std::string::npos ? text : "";
}

}  // namespace hxremote
