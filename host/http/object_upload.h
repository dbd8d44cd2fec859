// An object that is made of bytes: by one request, or in parts, which the store puts together at
// the end.
#pragma once

#include "host/http/attempts.h"
#include "host/http/object_request.h"

namespace hxremote {

class ObjectUpload {
 public:
  // All outlive it.
  ObjectUpload(const WebAddress& address, std::span<const std::byte> bytes,
               const SendOptions& options)
      : address_(address), bytes_(bytes), options_(options) {}

  // Of as many bytes as one request may send, or as this process is told by the environment.
  bool send();

  const Failure& failure() const { return failure_; }

 private:
  struct Reply {
    std::string etag;
    std::string uploadId;
    bool isDone = false;  // says that all parts are an object now
  };

  bool sendWhole();
  bool sendParts(int64_t partSize);
  bool sendPart(const std::string& id, int64_t from, int64_t size);
  bool complete(const std::string& id);
  void abandon(const std::string& id);
  std::optional<Reply> ask(ObjectRequest::Content content);
  bool fail(Failure failure);

  const WebAddress& address_;
  const std::span<const std::byte> bytes_;
  const SendOptions& options_;
  std::string parts_;  // those that are there, as the request that completes them names them
  int count_ = 0;
  int64_t sent_ = 0;  // in the parts before
  bool isEnding_ = false;
  Failure failure_;
};

}  // namespace hxremote
