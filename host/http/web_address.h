// Where a file lies on the web, and who asks for it.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/http/remote_file.h"

namespace hxremote {

// Asked for with a signature of the keys in `user` and `password`.
struct SigningScope {
  std::string region;
  std::string sessionToken;  // empty: none
};

struct WebAddress {
  std::string url;    // without user and password
  std::string shown;  // without the query as well
  std::string user;
  std::string password;
  std::optional<SigningScope> signing;
  std::shared_ptr<const WebAddress> asked;  // that led here by redirection; null: none

  // Scheme, host and port: who may be told user and password.
  std::string origin() const;
  bool isObject() const { return shown.starts_with("s3:"); }
  bool isEncrypted() const { return url.starts_with("https:"); }

  // What a redirection of a request leads to, which has no credentials at another origin. Nothing
  // when it leads from https to http, or to something else.
  std::optional<WebAddress> redirectedTo(const std::string& target) const;
};

// Of http://, https:// and s3:// URLs. Null with the reason.
std::optional<WebAddress> parseAddress(const std::string& url, Failure& failure);

}  // namespace hxremote
