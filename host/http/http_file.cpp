#include "host/http/http_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "host/http/front_request.h"

namespace hxremote {
namespace {

constexpr int64_t kBlock = BlockSpool::kBlockSize;
constexpr int64_t kFirstWindow = 64 * 1024;
constexpr int64_t kOneRequest = int64_t{16} << 20;  // a run that is no longer is asked for at once
constexpr int64_t kPart = int64_t{8} << 20;         // else in such parts
constexpr int64_t kAhead = 4 * kPart;               // of which so many bytes are under way
constexpr int64_t kShortSkip = int64_t{1} << 20;    // who passes over no more reads on
constexpr int64_t kNamelessBytes = int64_t{512} << 20;
constexpr int64_t kFewestBytes = int64_t{64} << 20;  // more than ever is under way
constexpr int kMostTries = 3;

int64_t blockStart(int64_t offset) {
  return offset / kBlock * kBlock;
}

int64_t keptBytes(const Options& options) {
  return std::max(options.usesCache ? options.cacheBytes : kNamelessBytes, kFewestBytes);
}

std::optional<Failure> findFault(const FileFront& front) {
  const bool isWhole = std::ssize(front.bytes) == front.identity.length;
  if (front.isAsKnown || isWhole || front.identity.isTold()) return std::nullopt;
  return Failure{EIO,
                 "the server tells neither ETag nor Last-Modified: parts of several versions "
                 "of the file could not be told apart"};
}

}  // namespace

std::unique_ptr<HttpFile> HttpFile::open(const std::string& url, const Options& options,
                                         Failure& failure) {
  const std::optional<WebAddress> address = parseAddress(url, failure);
  if (!address) return nullptr;
  const std::optional<WebCache> cache =
      options.usesCache ? std::optional<WebCache>(std::in_place, options.cacheBytes) : std::nullopt;
  const std::optional<CachedFile> cached = cache ? cache->find(*address) : std::nullopt;
  RequestContext context{*address, {}, options, {}};
  const auto known = cached ? std::optional(cached->identity) : std::nullopt;
  const auto front = requestFront(context, known, failure);
  const auto fault = front ? findFault(*front) : std::nullopt;
  if (fault) failure = *fault;
  const bool isOpen = front && !fault;
  const bool isSame = isOpen && known && front->identity == *known;
  if (cached && !isSame) ::close(cached->file);
  if (!isOpen) return nullptr;
  context.identity = front->identity;
  int file = isSame ? cached->file : -1;
  if (file < 0 && cache && front->identity.isTold()) file = cache->make(*address, front->identity);
  const bool isInCache = file >= 0;
  if (!isInCache) file = makeNamelessFile();
  if (file < 0) failure = {errno, "there is no room for what is read"};
  if (file < 0) return nullptr;
  auto opened = std::make_unique<HttpFile>(address->shown, std::move(context), file, isInCache);
  opened->keepFront(front->bytes);
  return opened;
}

HttpFile::HttpFile(std::string shown, RequestContext context, int file, bool isInCache)
    : shown_(std::move(shown)),
      context_(std::move(context)),
      spool_(file, isInCache, context_.identity.length, keptBytes(context_.options)),
      downloads_(context_, spool_),
      service_(*this) {}

// What it has kept may have made the cache too large.
HttpFile::~HttpFile() {
  const Options& options = context_.options;
  try {
    if (options.usesCache) WebCache(options.cacheBytes).removeOldest();
  } catch (const std::bad_alloc&) {
    return;  // the next one does it
  }
}

void HttpFile::keepFront(std::span<const std::byte> bytes) {
  for (int64_t block = 0; !bytes.empty(); ++block) {
    const auto size = static_cast<size_t>(spool_.sizeOf(block));
    if (bytes.size() < size) return;
    spool_.store(block, bytes.first(size), false);
    bytes = bytes.subspan(size);
    windowEnd_ = std::min((block + 1) * kBlock, length());
  }
}

int64_t HttpFile::read(int64_t offset, void* to, int64_t count) noexcept try {
  std::unique_lock lock(mutex_);
  if (offset < 0 || offset >= length()) return 0;
  count = std::min(count, length() - offset);
  const std::span bytes(static_cast<std::byte*>(to), static_cast<size_t>(count));
  int64_t done = 0;
  int tries = 0;
  while (done < count) {
    const int64_t from = offset + done;
    const int64_t taken = spool_.read(from, bytes.subspan(static_cast<size_t>(done)));
    tries = taken > 0 ? 0 : tries + 1;
    if (taken == 0 && (tries > kMostTries || !fetch(lock, from, count - done))) break;
    done += taken;
  }
  if (done < count && !failure_)
    failure_ = {EIO, "what was read does not stay on the disk", offset};
  return done;
} catch (const std::bad_alloc&) {
  return 0;
}

void HttpFile::prepare(int64_t offset, int64_t count) noexcept try {
  const std::lock_guard lock(mutex_);
  if (offset < 0 || offset >= length()) return;
  const int64_t end = std::min(offset + count, length());
  for (int64_t at = offset; at < end; at = blockStart(at) + kBlock) {
    if (spool_.findFirst(at / kBlock, at / kBlock + 1) == at / kBlock) continue;
    findOrStart(at, end - at);
    return;
  }
} catch (const std::bad_alloc&) {
  return;
}

void HttpFile::expectDirectory(int64_t from, int64_t to) {
  const std::lock_guard lock(mutex_);
  directory_ = from;
  directoryEnd_ = std::min(blockStart(to + kBlock - 1), length());
}

void HttpFile::expectRuns(std::vector<int64_t> starts) {
  const std::lock_guard lock(mutex_);
  std::ranges::sort(starts);
  runs_ = std::move(starts);
  directoryEnd_ = 0;
  window_ = 0;
  downloads_.cancelGuesses();
}

std::optional<Failure> HttpFile::takeFailure() {
  const std::lock_guard lock(mutex_);
  return std::exchange(failure_, std::nullopt);
}

Transfers HttpFile::transfers() const {
  const std::lock_guard lock(mutex_);
  return context_.transfers;
}

// Until the byte is in the spool. False after a failure.
bool HttpFile::fetch(std::unique_lock<std::mutex>& lock, int64_t offset, int64_t count) {
  const std::shared_ptr<Download> download = findOrStart(offset, count);
  downloads_.await(lock, *download, offset);
  failure_ = context_.findEnd();
  if (failure_) return false;
  if (download->position() > offset || download->failure().reason.empty()) return true;
  failure_ = download->failure();
  failure_->offset = offset;
  return false;
}

std::shared_ptr<Download> HttpFile::findOrStart(int64_t offset, int64_t count) {
  std::shared_ptr<Download> found = downloads_.find(offset);
  if (found && found->isGuess() && offset - found->position() > kShortSkip) found = nullptr;
  if (!found) {
    downloads_.cancelGuesses();
    if (!goesOnInLongRun(offset)) startAt(offset, count);
  }
  startParts(offset);
  return found ? found : downloads_.find(offset);
}

void HttpFile::startAt(int64_t offset, int64_t count) {
  const bool isGuess = offset >= directory_ && offset < directoryEnd_;
  const int64_t wanted = isGuess ? std::exchange(directoryEnd_, 0) : chooseEnd(offset, count);
  const int64_t from = blockStart(offset);
  const int64_t end = firstKnown(from + kBlock, wanted);
  const bool isLong = !isGuess && end - from > kOneRequest;
  longRun_ = {isLong ? from : end, end};
  const auto kind = isGuess ? Download::Kind::guess : Download::Kind::wanted;
  if (!isLong) downloads_.start(from, end, kind);
}

// Behind what was asked for of a long run, or a little farther on.
bool HttpFile::goesOnInLongRun(int64_t offset) const {
  return offset >= longRun_.next && offset < std::min(longRun_.end, longRun_.next + kShortSkip);
}

void HttpFile::startParts(int64_t offset) {
  if (offset < longRun_.next - kAhead || offset >= longRun_.end) return;
  while (longRun_.next < longRun_.end && longRun_.next - offset < kAhead) {
    int64_t end = std::min(longRun_.next + kPart, longRun_.end);
    if (longRun_.end - end <= kShortSkip) end = longRun_.end;
    downloads_.start(longRun_.next, end, Download::Kind::part);
    longRun_.next = end;
  }
}

// Where what is asked for with `offset` ends: behind what is wanted and, read from its start, the
// run that it lies in; the more, the longer it is read on.
int64_t HttpFile::chooseEnd(int64_t offset, int64_t count) {
  int64_t end = std::max(offset + count, growWindow(offset, count));
  const auto next = std::ranges::upper_bound(runs_, offset);
  const bool isAtStart = next != runs_.begin() && offset - *(next - 1) <= kShortSkip;
  if (isAtStart) end = std::max(end, next == runs_.end() ? length() : *next);
  windowEnd_ = std::min(blockStart(end + kBlock - 1), length());
  return windowEnd_;
}

int64_t HttpFile::growWindow(int64_t offset, int64_t count) {
  const bool goesOn = offset >= windowEnd_ && offset <= windowEnd_ + kShortSkip;
  window_ = goesOn ? std::min(std::max(2 * window_, kFirstWindow), kPart) : 0;
  // Whoever reads without telling what goes through it all, in whatever order.
  if (runs_.empty()) {
    window_ = std::clamp(context_.transfers.bytes / 4, kFirstWindow, kPart);
  }
  return offset + std::max(window_, std::min(count, kFirstWindow));
}

// Up to where nothing is here or on its way. The farther off, the less it matters.
int64_t HttpFile::firstKnown(int64_t from, int64_t to) const {
  const int64_t last = std::min(to, from + kAhead);
  const int64_t here = spool_.findFirst(from / kBlock, (last + kBlock - 1) / kBlock) * kBlock;
  for (int64_t at = from; at < last; at += kBlock) {
    if (at >= here || downloads_.find(at)) return at;
  }
  return to;
}

}  // namespace hxremote

extern "C" __attribute__((visibility("default"))) hxremote::RemoteFile* hxremoteOpen(
    const std::string& url, const hxremote::Options& options, hxremote::Failure& failure) {
  if (!hxremote::beginTransfers(failure)) return nullptr;
  return hxremote::HttpFile::open(url, options, failure).release();
}
