// One request to a server, and the head of its reply.
#pragma once

#include <curl/curl.h>

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

// Before the first request. False with the reason.
bool beginTransfers(Failure& failure);

// What is asked for, and what becomes of the reply, is added by the kinds of requests.
class WebRequest {
 public:
  WebRequest(const WebRequest&) = delete;
  WebRequest& operator=(const WebRequest&) = delete;

  CURL* easy() const { return easy_.get(); }
  const ReplyHead& head() const { return head_; }
  void resume() const { curl_easy_pause(easy(), CURLPAUSE_CONT); }
  long status() const;              // 0: no reply
  std::string redirection() const;  // where the reply sends to; empty: nowhere

 protected:
  static constexpr int64_t kLongestExcuse = int64_t{1} << 16;  // of a reply that says why not

  // Throws std::bad_alloc, as the others.
  explicit WebRequest(const WebAddress& address);
  virtual ~WebRequest() = default;

  void addHeader(const std::string& line);
  // `bodyHash`: SHA-256, in hexadecimal digits, of what is sent.
  void addCredentials(const WebAddress& address, const std::string& bodyHash);
  template <typename Value>
  void set(CURLoption option, Value value) {
    curl_easy_setopt(easy_.get(), option, value);
  }

  // Of the reply, as it comes. False: no more of it is wanted.
  virtual bool takeBody(std::span<const std::byte> bytes) = 0;
  virtual bool isFull() const { return false; }  // until it is resumed

 private:
  static size_t headCallback(const char* line, size_t, size_t count, void* self) noexcept;
  static size_t bodyCallback(const char* bytes, size_t, size_t count, void* self) noexcept;

  struct EasyEnder {
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
  };
  struct ListEnder {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };

  ReplyHead head_;
  std::unique_ptr<curl_slist, ListEnder> headers_;
  std::unique_ptr<CURL, EasyEnder> easy_;
};

}  // namespace hxremote
