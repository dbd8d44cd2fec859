#include "host/http/web_request.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <new>

namespace hxremote {
namespace {

constexpr long kConnectSeconds = 10;
constexpr long kReceiveBuffer = 256 * 1024;

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && std::string_view(" \t\r\n").find(text.back()) != std::string_view::npos)
    text.remove_suffix(1);
  const size_t first = text.find_first_not_of(" \t");
  return first == std::string_view::npos ? std::string_view() : text.substr(first);
}

bool isNamed(std::string_view name, std::string_view wanted) {
  return std::ranges::equal(
      name, wanted, [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

int64_t numberIn(std::string_view text) {
  int64_t number = -1;
  const auto [rest, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && rest == text.data() + text.size() && number >= 0 ? number : -1;
}

// "bytes 0-65535/123456", or "bytes */123456".
void takeContentRange(std::string_view text, ReplyHead& head) {
  if (!text.starts_with("bytes ")) return;
  text.remove_prefix(6);
  const size_t slash = text.find('/');
  if (slash == std::string_view::npos) return;
  head.identity.length = numberIn(text.substr(slash + 1));
  const std::string_view range = text.substr(0, slash);
  const size_t dash = range.find('-');
  if (dash == std::string_view::npos) return;
  const int64_t last = numberIn(range.substr(dash + 1));
  head.from = numberIn(range.substr(0, dash));
  head.to = last < 0 ? -1 : last + 1;
}

}  // namespace

void ReplyHead::take(std::string_view line) {
  if (line.starts_with("HTTP/")) *this = {};
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return;
  const std::string_view name = line.substr(0, colon);
  const std::string_view value = trimmed(line.substr(colon + 1));
  if (std::ranges::any_of(value, [](unsigned char c) { return c < ' ' || c == 127; })) return;
  if (isNamed(name, "etag")) identity.etag = value;
  if (isNamed(name, "last-modified")) identity.modified = value;
  if (isNamed(name, "content-length")) contentLength = numberIn(value);
  if (isNamed(name, "content-range")) takeContentRange(value, *this);
  if (isNamed(name, "content-encoding")) encoding = value;
  if (isNamed(name, "retry-after")) retryAfter = value;
}

bool beginTransfers(Failure& failure) {
  static const CURLcode kIsReady = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (kIsReady != CURLE_OK) failure = {EIO, curl_easy_strerror(kIsReady)};
  return kIsReady == CURLE_OK;
}

WebRequest::WebRequest(const WebAddress& address) : easy_(curl_easy_init()) {
  if (easy_ == nullptr) throw std::bad_alloc();
  set(CURLOPT_URL, address.url.c_str());
  set(CURLOPT_PATH_AS_IS, 1L);  // "a/../b" may be an object's name
  set(CURLOPT_PROTOCOLS_STR, "http,https");
  set(CURLOPT_FOLLOWLOCATION, 0L);  // by us: only so is https never left on the way
  set(CURLOPT_NOSIGNAL, 1L);
  set(CURLOPT_CONNECTTIMEOUT, kConnectSeconds);
  set(CURLOPT_BUFFERSIZE, kReceiveBuffer);
  set(CURLOPT_USERAGENT, "hxcrate");
  set(CURLOPT_HEADERFUNCTION, &headCallback);
  set(CURLOPT_HEADERDATA, this);
  set(CURLOPT_WRITEFUNCTION, &bodyCallback);
  set(CURLOPT_WRITEDATA, this);
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody here sets any
  if (const char* authorities = std::getenv("SSL_CERT_FILE")) set(CURLOPT_CAINFO, authorities);
}

long WebRequest::status() const {
  long status = 0;
  curl_easy_getinfo(easy(), CURLINFO_RESPONSE_CODE, &status);
  return status >= 200 ? status : 0;  // "continue" and the like are none yet
}

void WebRequest::addHeader(const std::string& line) {
  curl_slist* longer = curl_slist_append(headers_.get(), line.c_str());
  if (longer == nullptr) throw std::bad_alloc();
  static_cast<void>(headers_.release());
  headers_.reset(longer);
  set(CURLOPT_HTTPHEADER, headers_.get());
}

void WebRequest::addCredentials(const WebAddress& address, const std::string& bodyHash) {
  if (address.user.empty()) return;
  set(CURLOPT_USERNAME, address.user.c_str());
  set(CURLOPT_PASSWORD, address.password.c_str());
  if (!address.signing) return;
  set(CURLOPT_AWS_SIGV4, ("aws:amz:" + address.signing->region + ":s3").c_str());
  addHeader("x-amz-content-sha256: " + bodyHash);
  const std::string& token = address.signing->sessionToken;
  if (!token.empty()) addHeader("x-amz-security-token: " + token);
}

std::string WebRequest::redirection() const {
  const char* target = nullptr;
  curl_easy_getinfo(easy_.get(), CURLINFO_REDIRECT_URL, &target);
  return target != nullptr ? target : "";
}

size_t WebRequest::headCallback(const char* line, size_t, size_t count, void* self) noexcept try {
  static_cast<WebRequest*>(self)->head_.take({line, count});
  return count;
} catch (const std::bad_alloc&) {
  return 0;
}

size_t WebRequest::bodyCallback(const char* bytes, size_t, size_t count, void* self) noexcept try {
  auto& request = *static_cast<WebRequest*>(self);
  if (request.head_.status == 0) request.head_.status = request.status();
  if (request.isFull()) return CURL_WRITEFUNC_PAUSE;
  return request.takeBody(std::as_bytes(std::span(bytes, count))) ? count : 0;
} catch (const std::bad_alloc&) {
  return 0;
}

}  // namespace hxremote
