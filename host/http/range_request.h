// One request for a range of a file's bytes, and the head of its reply.
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "host/http/web_address.h"

namespace hxremote {

// What tells one version of a file from another: the length and one of the others. Empty texts: the
// server does not say.
struct Identity {
  std::string etag;
  std::string modified;
  int64_t length = -1;

  bool isStrong() const { return !etag.empty() && !etag.starts_with("W/"); }
  bool isTold() const { return !etag.empty() || !modified.empty(); }
  bool operator==(const Identity&) const = default;
};

struct ReplyHead {
  long status = 0;
  Identity identity;
  int64_t from = -1;  // the range; -1: no range
  int64_t to = -1;    // behind it
  int64_t contentLength = -1;
  std::string encoding;
  std::string retryAfter;

  void take(std::string_view line);
};

// What the request is to go by.
struct Condition {
  enum class Kind { none, unchanged, changed } kind = Kind::none;
  Identity identity;
};

// Where the bytes of a good reply go, status 200 or 206.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  virtual bool begin(const ReplyHead& head) = 0;            // false: this is not what was asked for
  virtual bool take(std::span<const std::byte> bytes) = 0;  // false: no more of it is wanted
};

class RangeRequest {
 public:
  // For bytes from `from` up to `to`; `sink` outlives it. Throws std::bad_alloc.
  RangeRequest(const WebAddress& address, int64_t from, int64_t to, const Condition& condition,
               ByteSink& sink);
  RangeRequest(const RangeRequest&) = delete;
  RangeRequest& operator=(const RangeRequest&) = delete;

  CURL* easy() const { return easy_.get(); }
  const ReplyHead& head() const { return head_; }
  std::string redirection() const;  // where the reply sends to; empty: nowhere

 private:
  static size_t takeHead(const char* line, size_t, size_t count, void* self) noexcept;
  static size_t takeBody(const char* bytes, size_t, size_t count, void* self) noexcept;
  void addHeader(const std::string& line);
  void addCondition(const Condition& condition);
  void addCredentials(const WebAddress& address);
  template <typename Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(easy_.get(), option, value);
  }

  struct EasyEnder {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct ListEnder {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  ByteSink& sink_;
  ReplyHead head_;
  bool hasBegun_ = false;
  int64_t ignored_ = 0;  // bytes of a reply that says why not
  std::unique_ptr<curl_slist, ListEnder> headers_;
  std::unique_ptr<CURL, EasyEnder> easy_;
};

}  // namespace hxremote
