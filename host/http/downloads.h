// The requests of one remote file that are under way, and what they bring.
#pragma once

#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>

#include "host/http/attempts.h"
#include "host/http/block_spool.h"
#include "host/http/range_request.h"

namespace hxremote {

// What all requests for one file share. Guarded by the file's mutex.
struct RequestContext {
  WebAddress address;  // where it is asked for now
  Identity identity;
  Options options;
  Transfers transfers;

  // Nothing when it is still wanted.
  std::optional<Failure> findEnd() const;

  // Nothing when so many bytes more may be received.
  std::optional<Failure> findExcess(int64_t bytes) const;

  void count(const Transfers& more);
};

// One range of blocks, from block to block, by one request or, after faults, several.
class Download : public ByteSink {
 public:
  enum class Kind {
    wanted,
    guess,  // of what is wanted next
    part,   // of a long run
  };

  Download(RequestContext& context, BlockSpool& spool, int64_t from, int64_t to, Kind kind);

  bool covers(int64_t offset) const { return position_ <= offset && offset < to_; }
  int64_t position() const { return position_; }
  int64_t to() const { return to_; }
  bool isGuess() const { return kind_ == Kind::guess; }
  const Failure& failure() const { return attempts_.failure(); }

  bool begin(const ReplyHead& head) override;
  bool take(std::span<const std::byte> bytes) override;
  bool isFull() const override { return kind_ == Kind::part && position_ >= limit_; }

 private:
  friend class Downloads;

  bool isStillDue(int64_t offset) const { return !isOver_ && !isCancelled_ && position_ <= offset; }
  bool refuse(int error, std::string reason);
  bool putBlock(std::span<const std::byte> bytes);

  RequestContext& context_;
  BlockSpool& spool_;
  WebAddress address_;
  int64_t position_;  // all before is in the spool; where a block begins
  int64_t limit_;     // of a part, for now
  const int64_t to_;
  const Kind kind_;
  bool isCancelled_ = false;
  bool isOver_ = false;
  bool isPaused_ = false;  // it was full
  Attempts attempts_{address_};
  Clock::time_point lastProgress_{};
  std::vector<std::byte> begun_;           // of the block at the position
  std::unique_ptr<RangeRequest> request_;  // while one is under way
};

// Their bytes come while somebody waits for some: else they stay with the server, which sends no
// more than the system takes. The thread that waits first moves all of them on: the parts of a long
// run that are not due yet by a little, whenever nothing comes of what it waits for. So a fast
// server's bytes are read while the processor's caches have them, which takes a third off.
class Downloads {
 public:
  // The mutex is held by whoever calls.
  Downloads(RequestContext& context, BlockSpool& spool);
  ~Downloads();
  Downloads(const Downloads&) = delete;
  Downloads& operator=(const Downloads&) = delete;

  void start(int64_t from, int64_t to, Download::Kind kind);

  // The one that will bring the byte; null: none.
  std::shared_ptr<Download> find(int64_t offset) const;

  // Until the download has come past the offset or is over.
  void await(std::unique_lock<std::mutex>& lock, Download& download, int64_t offset);

  void cancelGuesses();

 private:
  void drive(std::unique_lock<std::mutex>& lock, const Download& wanted, int64_t offset);
  void advance();
  void raiseLimits();
  void resume();
  void startDue(Clock::time_point now);
  void begin(Download& download);
  void collect();
  void end(Download& download, CURLcode code);
  void endStalled(Clock::time_point now);
  int timeout(Clock::time_point now) const;

  RequestContext& context_;
  BlockSpool& spool_;
  std::list<std::shared_ptr<Download>> list_;
  std::condition_variable progress_;
  bool isDriven_ = false;
  Clock::time_point lastDrive_{};
  CURLM* multi_;
};

}  // namespace hxremote
