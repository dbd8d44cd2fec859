#include "host/http/web_address.h"

#include <curl/curl.h>

#include <cerrno>

#include "host/http/object_store.h"

namespace hxremote {
namespace {

// A URL in its parts.
class UrlParts {
 public:
  explicit UrlParts(const std::string& url) : parts_(curl_url()) {
    isSound_ =
        parts_ != nullptr && curl_url_set(parts_, CURLUPART_URL, url.c_str(),
                                          CURLU_NO_DEFAULT_PORT | CURLU_PATH_AS_IS) == CURLUE_OK;
  }
  ~UrlParts() { curl_url_cleanup(parts_); }
  UrlParts(const UrlParts&) = delete;
  UrlParts& operator=(const UrlParts&) = delete;

  bool isSound() const { return isSound_; }

  std::string get(CURLUPart part, unsigned flags = 0) const {
    char* text = nullptr;
    if (curl_url_get(parts_, part, &text, flags) != CURLUE_OK) return {};
    std::string copy(text);
    curl_free(text);
    return copy;
  }
  void drop(CURLUPart part) { curl_url_set(parts_, part, nullptr, 0); }

 private:
  CURLU* parts_;
  bool isSound_ = false;
};

std::optional<WebAddress> parseWeb(const std::string& url) {
  UrlParts parts(url);
  const std::string scheme = parts.isSound() ? parts.get(CURLUPART_SCHEME) : "";
  if (scheme != "http" && scheme != "https") return std::nullopt;
  WebAddress address;
  address.user = parts.get(CURLUPART_USER, CURLU_URLDECODE);
  address.password = parts.get(CURLUPART_PASSWORD, CURLU_URLDECODE);
  parts.drop(CURLUPART_USER);
  parts.drop(CURLUPART_PASSWORD);
  parts.drop(CURLUPART_FRAGMENT);
  address.url = parts.get(CURLUPART_URL);
  parts.drop(CURLUPART_QUERY);
  address.shown = parts.get(CURLUPART_URL);
  return address;
}

}  // namespace

std::string WebAddress::origin() const {
  const UrlParts parts(url);
  return parts.get(CURLUPART_SCHEME) + "://" + parts.get(CURLUPART_HOST) + ":" +
         parts.get(CURLUPART_PORT, CURLU_DEFAULT_PORT);
}

std::optional<WebAddress> WebAddress::redirectedTo(const std::string& target) const {
  std::optional<WebAddress> next = parseWeb(target);
  if (!next || (isEncrypted() && !next->isEncrypted())) return std::nullopt;
  next->shown = shown;
  next->asked = asked ? asked : std::make_shared<const WebAddress>(*this);
  if (next->origin() != origin()) return next;
  next->user = user;
  next->password = password;
  next->signing = signing;
  return next;
}

std::optional<WebAddress> parseAddress(const std::string& url, Failure& failure) {
  if (url.starts_with("s3://")) {
    const std::optional<ObjectPlace> object = locateObject(url, failure);
    if (!object) return std::nullopt;
    std::optional<WebAddress> address = parseWeb(object->url);
    if (!address) failure = {EINVAL, "the endpoint of the object store is no URL"};
    if (!address) return address;
    address->shown = url;
    address->user = object->keyId;
    address->password = object->secretKey;
    if (!address->user.empty()) address->signing = {object->region, object->sessionToken};
    return address;
  }
  std::optional<WebAddress> address = parseWeb(url);
  if (!address) failure = {EINVAL, "it is no URL that can be read from"};
  return address;
}

}  // namespace hxremote
