#include "host/http/object_store.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <string_view>

namespace hxremote {
namespace {

std::string fromEnvironment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nobody here sets any
  return value != nullptr ? value : "";
}

std::string firstOf(std::initializer_list<const char*> names) {
  for (const char* name : names) {
    if (std::string value = fromEnvironment(name); !value.empty()) return value;
  }
  return {};
}

std::string trim(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kBlanks) + 1 - first));
}

// The value of one section of a file in lines of "name = value" under "[section]"; of no name
// whether there is the section. Nothing: there is none.
std::optional<std::string> lookUp(const std::string& path, std::string_view section,
                                  std::string_view name) {
  std::ifstream file(path);
  bool isInside = false;
  for (std::string line; std::getline(file, line);) {
    const std::string text = trim(line);
    if (text.starts_with("[")) isInside = text == "[" + std::string(section) + "]";
    if (isInside && name.empty()) return "";
    const size_t sign = text.find('=');
    if (!isInside || sign == std::string::npos) continue;
    if (trim(text.substr(0, sign)) == name) return trim(text.substr(sign + 1));
  }
  return std::nullopt;
}

// What the user's files of keys and of settings say, the first before the second.
class Profile {
 public:
  std::string get(std::string_view name) const { return find(name).value_or(""); }

  // The name of the one that was asked for and that no file has; empty: all is well.
  std::string missing() const { return name_ == "default" || find("") ? "" : name_; }

 private:
  std::optional<std::string> find(std::string_view name) const {
    auto value = lookUp(pathOf("AWS_SHARED_CREDENTIALS_FILE", "credentials"), name_, name);
    if (value) return value;
    return lookUp(pathOf("AWS_CONFIG_FILE", "config"),
                  name_ == "default" ? name_ : "profile " + name_, name);
  }
  static std::string pathOf(const char* variable, const char* name) {
    const std::string given = fromEnvironment(variable);
    return given.empty() ? fromEnvironment("HOME") + "/.aws/" + name : given;
  }

  const std::string name_ = [] {
    std::string name = firstOf({"AWS_PROFILE", "AWS_DEFAULT_PROFILE"});
    return name.empty() ? "default" : name;
  }();
};

void findKeys(const Profile& profile, ObjectPlace& place) {
  place.keyId = fromEnvironment("AWS_ACCESS_KEY_ID");
  place.secretKey = fromEnvironment("AWS_SECRET_ACCESS_KEY");
  place.sessionToken = fromEnvironment("AWS_SESSION_TOKEN");
  if (!place.keyId.empty()) return;
  place.keyId = profile.get("aws_access_key_id");
  place.secretKey = profile.get("aws_secret_access_key");
  place.sessionToken = profile.get("aws_session_token");
}

void findRegion(const Profile& profile, ObjectPlace& place) {
  place.region = firstOf({"AWS_REGION", "AWS_DEFAULT_REGION"});
  if (place.region.empty()) place.region = profile.get("region");
  if (place.region.empty()) place.region = "us-east-1";
}

// The folder of the bucket, or its host. A name with dots is in no certificate.
std::string urlOf(const std::string& bucket, const Profile& profile, const std::string& region) {
  std::string endpoint = firstOf({"AWS_ENDPOINT_URL_S3", "AWS_ENDPOINT_URL"});
  if (endpoint.empty()) endpoint = profile.get("endpoint_url");
  while (endpoint.ends_with('/'))
    endpoint.pop_back();
  const std::string host = "s3." + region + ".amazonaws.com";
  if (endpoint.empty() && bucket.find('.') == std::string::npos) {
    return "https://" + bucket + "." + host;
  }
  return (endpoint.empty() ? "https://" + host : endpoint) + "/" + bucket;
}

// Becomes part of a host's name or of a path. So no "..", "/", "?", "#" or "@" is among it.
bool isPlainName(std::string_view name) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.";
  return !name.empty() && name.find_first_not_of(kPlain) == std::string_view::npos &&
         name.front() != '.';
}

}  // namespace

std::string escapeForUrl(std::string_view text, std::string_view plain) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string escaped;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (kPlain.find(c) != std::string_view::npos || plain.find(c) != std::string_view::npos) {
      escaped += c;
    } else {
      escaped += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return escaped;
}

std::optional<ObjectPlace> locateObject(const std::string& url, Failure& failure) {
  const std::string path = url.substr(std::string_view("s3://").size());
  const size_t slash = path.find('/');
  const std::string bucket = path.substr(0, slash);
  if (!isPlainName(bucket) || slash == std::string::npos || slash + 1 == path.size()) {
    failure = {EINVAL, "an object is named as s3://bucket/key"};
    return std::nullopt;
  }
  const Profile profile;
  if (const std::string missing = profile.missing(); !missing.empty()) {
    failure = {EINVAL, "there is no profile " + missing + " in the files of keys and settings"};
    return std::nullopt;
  }
  ObjectPlace place;
  findKeys(profile, place);
  findRegion(profile, place);
  if (!isPlainName(place.region)) {
    failure = {EINVAL, "the region of the object store is no name"};
    return std::nullopt;
  }
  place.url =
      urlOf(bucket, profile, place.region) + "/" + escapeForUrl(path.substr(slash + 1), "/");
  return place;
}

}  // namespace hxremote
