// One request for a range of a file's bytes.
#pragma once

#include "host/http/web_request.h"

namespace hxremote {

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
  virtual bool isFull() const { return false; }             // the rest is for later
};

class RangeRequest : public WebRequest {
 public:
  // For bytes from `from` up to `to`; `sink` outlives it. Throws std::bad_alloc.
  RangeRequest(const WebAddress& address, int64_t from, int64_t to, const Condition& condition,
               ByteSink& sink);

 private:
  bool takeBody(std::span<const std::byte> bytes) override;
  bool isFull() const override { return hasBegun_ && sink_.isFull(); }
  void addCondition(const Condition& condition);

  ByteSink& sink_;
  bool hasBegun_ = false;
  int64_t ignored_ = 0;  // bytes of a reply that says why not
};

}  // namespace hxremote
