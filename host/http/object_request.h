// One request that changes something at an object store.
#pragma once

#include <functional>

#include "host/http/web_request.h"

namespace hxremote {

class ObjectRequest : public WebRequest {
 public:
  struct Content {
    std::string method;
    std::string query;                 // without "?", as it is signed: in order, escaped
    std::span<const std::byte> bytes;  // outlives the request
    std::string hash;                  // theirs, see hashOf
    bool makesAnew = false;            // nothing may be there
  };

  // Throws std::bad_alloc.
  ObjectRequest(const WebAddress& address, const Content& content);

  // `goesOn` is told how many bytes are sent, and asked whether to go on.
  CURLcode perform(std::chrono::milliseconds patience, const std::function<bool(int64_t)>& goesOn);

  // The text between <NAME> and </NAME> in the reply, as long as it is plain; else empty.
  std::string field(const std::string& name) const;
  bool tells(const std::string& name) const;  // whether there is such an element

 private:
  struct Watch;

  static size_t readCallback(char* to, size_t, size_t count, void* self) noexcept;
  static int seekCallback(void* self, curl_off_t offset, int origin) noexcept;
  bool takeBody(std::span<const std::byte> bytes) override;

  std::span<const std::byte> bytes_;
  size_t sent_ = 0;
  std::string reply_;
};

// SHA-256, in hexadecimal digits.
std::string hashOf(std::span<const std::byte> bytes);

}  // namespace hxremote
