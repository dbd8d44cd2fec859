// Where objects of a store with signed requests lie, and the keys to them: from the environment and
// the files that its other tools use.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/http/remote_file.h"

namespace hxremote {

struct ObjectPlace {
  std::string url;  // by which it is asked for
  std::string region;
  std::string keyId;  // empty: asked for without a signature
  std::string secretKey;
  std::string sessionToken;
};

// Of s3://bucket/key. The endpoint is AWS_ENDPOINT_URL_S3 or AWS_ENDPOINT_URL, below which buckets
// are folders, else the public one of the region. Nothing with the reason.
std::optional<ObjectPlace> locateObject(const std::string& url, Failure& failure);

// With all escaped but letters, digits, "-._~" and what is in `plain`, as signatures want it.
std::string escapeForUrl(std::string_view text, std::string_view plain);

}  // namespace hxremote
