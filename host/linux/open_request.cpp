#include "host/linux/open_request.h"

#include <utility>

namespace hxhost {
namespace {

thread_local OpenRequest* innermost = nullptr;

}  // namespace

OpenRequest::OpenRequest(const OpenTerms& terms)
    : terms_(terms), outer_(std::exchange(innermost, this)) {}

OpenRequest::~OpenRequest() {
  innermost = outer_;
}

OpenRequest* OpenRequest::current() {
  return innermost;
}

std::optional<FileFailure> OpenRequest::failure() const {
  if (failure_) return failure_;
  const std::optional<FileFailure> inLast = file_ != nullptr ? file_->failure() : std::nullopt;
  return inLast ? inLast : formerFailure_;
}

void OpenRequest::noteFailure(const FileFailure& failure, Holder holder) {
  failure_ = failure;
  holder_ = holder;
}

void OpenRequest::noteOpened(std::shared_ptr<FileOutcome> file) {
  if (file_ != nullptr && file_->failure()) formerFailure_ = file_->failure();
  file_ = std::move(file);
  failure_.reset();
  holder_ = Holder::kNobody;
}

}  // namespace hxhost
