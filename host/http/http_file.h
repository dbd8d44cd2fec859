// A file behind a URL: what is asked for in one request, and what comes from where.
#pragma once

#include <mutex>
#include <optional>
#include <vector>

#include "host/http/block_spool.h"
#include "host/http/downloads.h"
#include "host/http/http_handle.h"
#include "host/http/web_cache.h"

namespace hxremote {

class HttpFile : public RemoteFile {
 public:
  // Null with the reason.
  static std::unique_ptr<HttpFile> open(const std::string& url, const Options& options,
                                        Failure& failure);

  // See open, which has asked for the front. `file` is the spool's, or that of the cache.
  HttpFile(std::string shown, RequestContext context, int file, bool isInCache);
  ~HttpFile() override;

  int64_t length() const override { return context_.identity.length; }
  int64_t read(int64_t offset, void* to, int64_t count) noexcept override;
  void expectDirectory(int64_t from, int64_t to) override;
  void expectRuns(std::vector<int64_t> starts) override;
  hx::FileIo* files() override { return &service_; }
  std::optional<Failure> takeFailure() override;
  Transfers transfers() const override;
  const std::string& shownUrl() const override { return shown_; }

  // Has the bytes come, as many as can be, in as few requests as can be.
  void prepare(int64_t offset, int64_t count) noexcept;

 private:
  // One more part of a long run is asked for when a reader comes near it.
  struct LongRun {
    int64_t next = 0;
    int64_t end = 0;
  };

  void keepFront(std::span<const std::byte> bytes);
  bool fetch(std::unique_lock<std::mutex>& lock, int64_t offset, int64_t count);
  std::shared_ptr<Download> findOrStart(int64_t offset, int64_t count);
  int64_t chooseEnd(int64_t offset, int64_t count);
  int64_t growWindow(int64_t offset, int64_t count);
  void startAt(int64_t offset, int64_t count);
  bool goesOnInLongRun(int64_t offset) const;
  void startParts(int64_t offset);
  int64_t firstKnown(int64_t from, int64_t to) const;

  const std::string shown_;
  mutable std::mutex mutex_;
  RequestContext context_;
  BlockSpool spool_;
  Downloads downloads_;
  FileService service_;
  std::optional<Failure> failure_;
  int64_t directory_ = 0;  // where it begins
  int64_t directoryEnd_ = 0;
  std::vector<int64_t> runs_;
  LongRun longRun_;
  int64_t window_ = 0;     // how much was asked for last beyond what is known to be wanted
  int64_t windowEnd_ = 0;  // where that ended
};

}  // namespace hxremote
