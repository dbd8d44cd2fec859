#include "host/http/downloads.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <system_error>

namespace hxremote {
namespace {

// So much of a part that is not due comes at once.
constexpr int64_t kOnce = int64_t{1} << 20;
constexpr int kMoment = 1;  // millisecond, in which a fast server sends more

}  // namespace

std::optional<Failure> RequestContext::findEnd() const {
  if (options.goesOn()) return std::nullopt;
  return Failure{ECANCELED, "it was interrupted"};
}

std::optional<Failure> RequestContext::findExcess(int64_t bytes) const {
  if (options.mostBytes < 0 || bytes <= options.mostBytes - transfers.bytes) return std::nullopt;
  return Failure{EFBIG, "more than " + std::to_string(options.mostBytes) +
                            " bytes would have to be transferred"};
}

void RequestContext::count(const Transfers& more) {
  transfers.requests += more.requests;
  transfers.bytes += more.bytes;
  transfers.time += more.time;
  if (options.meter == nullptr) return;
  options.meter->requests += more.requests;
  options.meter->bytes += more.bytes;
  options.meter->nanoseconds += more.time.count();
}

Download::Download(RequestContext& context, BlockSpool& spool, int64_t from, int64_t to, Kind kind)
    : context_(context),
      spool_(spool),
      address_(context.address),
      position_(from),
      limit_(from + kOnce),
      to_(to),
      kind_(kind) {}

bool Download::refuse(int error, std::string reason) {
  attempts_.refuse({error, std::move(reason), position_});
  return false;
}

bool Download::begin(const ReplyHead& head) {
  const Identity& wanted = context_.identity;
  if (!head.encoding.empty() && head.encoding != "identity") {
    return refuse(EIO, "the server sends it encoded, as nobody asked for");
  }
  if (head.status != 206) return refuse(EIO, "the server has stopped sending parts of the file");
  if (head.identity != wanted) {
    return refuse(ESTALE, "the file on the server was changed meanwhile");
  }
  const bool isLonger = head.contentLength >= 0 && head.contentLength != to_ - position_;
  if (head.from != position_ || head.to != to_ || isLonger) {
    return refuse(EIO, "the server sends another part of the file than was asked for");
  }
  context_.address = address_;
  return true;
}

bool Download::take(std::span<const std::byte> bytes) {
  if (auto excess = context_.findExcess(std::ssize(bytes))) {
    return refuse(excess->error, std::move(excess->reason));
  }
  context_.count({.bytes = std::ssize(bytes)});
  lastProgress_ = Clock::now();
  while (!bytes.empty()) {
    if (position_ >= to_) return refuse(EIO, "the server sends more than was asked for");
    const int64_t size = spool_.sizeOf(position_ / BlockSpool::kBlockSize);
    const auto wanted = static_cast<size_t>(size - std::ssize(begun_));
    const auto taken = bytes.first(std::min(wanted, bytes.size()));
    bytes = bytes.subspan(taken.size());
    if (begun_.empty() && taken.size() == wanted) {
      if (!putBlock(taken)) return false;
      continue;
    }
    begun_.insert(begun_.end(), taken.begin(), taken.end());
    if (std::ssize(begun_) < size) return true;
    if (!putBlock(begun_)) return false;
    begun_.clear();
  }
  return true;
}

bool Download::putBlock(std::span<const std::byte> bytes) {
  const int64_t block = position_ / BlockSpool::kBlockSize;
  if (const int error = spool_.store(block, bytes, kind_ == Kind::part); error != 0) {
    return refuse(error, "what was read can't be kept: " + std::generic_category().message(error));
  }
  position_ += std::ssize(bytes);
  attempts_.noteProgress();
  return true;
}

Downloads::Downloads(RequestContext& context, BlockSpool& spool)
    : context_(context), spool_(spool), multi_(curl_multi_init()) {
  if (multi_ == nullptr) throw std::bad_alloc();
}

Downloads::~Downloads() {
  for (const auto& download : list_) {
    if (download->request_) curl_multi_remove_handle(multi_, download->request_->easy());
  }
  list_.clear();
  curl_multi_cleanup(multi_);
}

void Downloads::start(int64_t from, int64_t to, Download::Kind kind) {
  list_.push_back(std::make_shared<Download>(context_, spool_, from, to, kind));
  if (isDriven_) curl_multi_wakeup(multi_);
}

std::shared_ptr<Download> Downloads::find(int64_t offset) const {
  const auto found = std::ranges::find_if(list_, [=](const auto& download) {
    return download->covers(offset) && !download->isCancelled_;
  });
  return found == list_.end() ? nullptr : *found;
}

void Downloads::cancelGuesses() {
  for (const auto& download : list_)
    download->isCancelled_ |= download->isGuess();
}

void Downloads::await(std::unique_lock<std::mutex>& lock, Download& download, int64_t offset) {
  download.limit_ = download.to();
  if (isDriven_) curl_multi_wakeup(multi_);
  const Clock::time_point began = Clock::now();
  while (download.isStillDue(offset) && !context_.findEnd())
    drive(lock, download, offset);
  context_.count({.time = Clock::now() - began});
}

// Without the mutex only the waiting for the network, in which nobody else touches the handle.
void Downloads::drive(std::unique_lock<std::mutex>& lock, const Download& wanted, int64_t offset) {
  if (isDriven_) return progress_.wait(lock);
  isDriven_ = true;
  const Clock::time_point now = Clock::now();
  startDue(now);
  advance();
  endStalled(now);
  lastDrive_ = Clock::now();
  for (int round = 0; round < 2 && wanted.isStillDue(offset); ++round) {
    if (round > 0) raiseLimits();
    const int wait = round > 0 ? timeout(lastDrive_) : kMoment;
    lock.unlock();
    curl_multi_poll(multi_, nullptr, 0, wait, nullptr);
    lock.lock();
    advance();
  }
  isDriven_ = false;
  progress_.notify_all();
}

void Downloads::advance() {
  resume();
  int count = 0;
  curl_multi_perform(multi_, &count);
  collect();
  for (const auto& download : list_)
    download->isPaused_ = download->isFull();
}

void Downloads::raiseLimits() {
  for (const auto& download : list_)
    if (download->isFull()) download->limit_ = download->position() + kOnce;
  resume();
}

void Downloads::resume() {
  for (const auto& download : list_) {
    if (!download->isPaused_ || download->isFull() || !download->request_) continue;
    download->isPaused_ = false;
    download->lastProgress_ = Clock::now();
    download->request_->resume();
  }
}

void Downloads::startDue(Clock::time_point now) {
  for (const auto& download : list_) {
    if (download->isCancelled_) end(*download, CURLE_OK);
    if (download->isOver_ || download->request_ || download->attempts_.notBefore() > now) continue;
    begin(*download);
  }
  std::erase_if(list_, [](const auto& download) { return download->isOver_; });
}

void Downloads::begin(Download& download) {
  download.begun_.clear();
  download.lastProgress_ = Clock::now();
  download.request_ = std::make_unique<RangeRequest>(
      download.address_, download.position(), download.to(),
      Condition{Condition::Kind::unchanged, context_.identity}, download);
  // Of a guess only what comes counts, because it may be cut short.
  auto excess = context_.findExcess(download.isGuess() ? 1 : download.to() - download.position());
  if (excess) {
    download.attempts_.refuse(std::move(*excess));
    return end(download, CURLE_OK);
  }
  context_.count({.requests = 1});
  curl_multi_add_handle(multi_, download.request_->easy());
}

void Downloads::collect() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;
    const auto found = std::ranges::find_if(list_, [&](const auto& download) {
      return download->request_ && download->request_->easy() == message->easy_handle;
    });
    if (found != list_.end()) end(**found, code);
  }
  std::erase_if(list_, [](const auto& download) { return download->isOver_; });
}

void Downloads::end(Download& download, CURLcode code) {
  const std::unique_ptr<RangeRequest> request = std::move(download.request_);
  if (request) curl_multi_remove_handle(multi_, request->easy());
  download.isOver_ = download.isCancelled_ || download.position() >= download.to();
  if (download.isOver_) return;
  // What ends early is no end.
  const auto verdict =
      download.attempts_.judge(code == CURLE_OK ? CURLE_PARTIAL_FILE : code, *request);
  download.isOver_ = verdict != Attempts::Verdict::again;
}

// Nothing is counted while nobody has waited.
void Downloads::endStalled(Clock::time_point now) {
  const bool hasPaused = now - lastDrive_ > std::chrono::seconds(1);
  for (const auto& download : list_) {
    if (hasPaused || download->isPaused_)
      download->lastProgress_ = std::max(download->lastProgress_, now);
    if (!download->request_ || now - download->lastProgress_ < context_.options.patience) continue;
    end(*download, CURLE_OPERATION_TIMEDOUT);
  }
  std::erase_if(list_, [](const auto& download) { return download->isOver_; });
}

int Downloads::timeout(Clock::time_point now) const {
  Clock::duration wait = std::chrono::milliseconds(200);
  for (const auto& download : list_) {
    if (!download->request_) wait = std::min(wait, download->attempts_.notBefore() - now);
  }
  const auto rounded = std::chrono::ceil<std::chrono::milliseconds>(wait).count();
  return static_cast<int>(std::max<int64_t>(rounded, 0));
}

}  // namespace hxremote
