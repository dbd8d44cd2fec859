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

// A value of one section of a file in lines of "name = value" under "[section]".
std::string lookUp(const std::string& path, std::string_view section, std::string_view name) {
  std::ifstream file(path);
  bool isInside = false;
  for (std::string line; std::getline(file, line);) {
    const std::string text = trim(line);
    if (text.starts_with("[")) isInside = text == "[" + std::string(section) + "]";
    const size_t sign = text.find('=');
    if (!isInside || sign == std::string::npos) continue;
    if (trim(text.substr(0, sign)) == name) return trim(text.substr(sign + 1));
  }
  return {};
}

// The user's files of settings and of keys.
class Profile {
 public:
  std::string setting(std::string_view name) const {
    return lookUp(pathOf("AWS_CONFIG_FILE", "config"),
                  name_ == "default" ? name_ : "profile " + name_, name);
  }
  std::string key(std::string_view name) const {
    return lookUp(pathOf("AWS_SHARED_CREDENTIALS_FILE", "credentials"), name_, name);
  }

 private:
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
  place.keyId = profile.key("aws_access_key_id");
  place.secretKey = profile.key("aws_secret_access_key");
  place.sessionToken = profile.key("aws_session_token");
}

void findRegion(const Profile& profile, ObjectPlace& place) {
  place.region = firstOf({"AWS_REGION", "AWS_DEFAULT_REGION"});
  if (place.region.empty()) place.region = profile.setting("region");
  if (place.region.empty()) place.region = "us-east-1";
}

// All but what a path may hold as it is, and "/", as the signature wants it.
std::string escapeKey(std::string_view key) {
  constexpr std::string_view kPlain =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-._~/";
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text;
  for (const char c : key) {
    const auto byte = static_cast<unsigned char>(c);
    if (kPlain.find(c) != std::string_view::npos) {
      text += c;
    } else {
      text += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
    }
  }
  return text;
}

}  // namespace

std::optional<ObjectPlace> locateObject(const std::string& url, Failure& failure) {
  const std::string path = url.substr(std::string_view("s3://").size());
  const size_t slash = path.find('/');
  if (slash == 0 || slash == std::string::npos || slash + 1 == path.size()) {
    failure = {EINVAL, "an object is named as s3://bucket/key"};
    return std::nullopt;
  }
  const std::string bucket = path.substr(0, slash);
  const std::string key = escapeKey(path.substr(slash + 1));
  const Profile profile;
  ObjectPlace place;
  findKeys(profile, place);
  findRegion(profile, place);
  std::string endpoint = firstOf({"AWS_ENDPOINT_URL_S3", "AWS_ENDPOINT_URL"});
  if (endpoint.empty()) endpoint = profile.setting("endpoint_url");
  while (endpoint.ends_with('/'))
    endpoint.pop_back();
  place.url = endpoint.empty()
                  ? "https://" + bucket + ".s3." + place.region + ".amazonaws.com/" + key
                  : endpoint + "/" + bucket + "/" + key;
  return place;
}

}  // namespace hxremote
