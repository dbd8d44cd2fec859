// A store file in the making: nobody sees it before it is complete and on disk.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hxcrate/crate.hpp"
#include "hxcrate/inspect.hpp"
#include "new_file.h"
#include "size_forecast.h"
#include "tool/report/report.h"
#include "tool/trees/directory.h"

namespace tool {

// Fills a store member by member, depth first.
class StoreBuilder {
 public:
  explicit StoreBuilder(hxcrate::Store& store) : store_(store) {}

  void enter(std::string_view name) { nested_.push_back(current().createStore(name)); }
  void leave() { nested_.pop_back(); }
  hxcrate::Writer create(std::string_view name) { return current().create(name); }

 private:
  hxcrate::Store& current() { return nested_.empty() ? store_ : nested_.back(); }

  hxcrate::Store& store_;
  std::vector<hxcrate::Store> nested_;
};

constexpr const char* kPageSizeMeaning = "bytes of a page; without it what makes the smallest file";

class NewStore {
 public:
  struct Options {
    std::int32_t pageSize = 0;  // bytes; 0: what makes the smallest file
    bool inMemory = false;      // built as a blob and written in one piece
    std::string encoding = {};  // an identity; empty: this machine's
    std::string use = {};       // "reading": with all records in front
    // Of a file that it holds bytes of: who may not read that may not read the new one either.
    const FileRights* copyOf = nullptr;
  };

  // The store file `path` as it was given, or an object, which is sent when all is made. Throws a
  // Failure, notOpenable, when there is a file of that name already, or of that of its journal, or
  // with `replace` something else than a regular file. That one is locked as by a reader from now
  // on, so that no update of it is lost, and one that was cut off is undone; one that can't be
  // locked within `wait` seconds is refused, too.
  explicit NewStore(const std::string& path, bool replace = false, std::int64_t wait = 0);

  const std::optional<struct stat>& existing() const { return existing_; }  // what is replaced

  // Has the store made and filled, and gives the file its name; whatever is thrown on the way, the
  // name leads to what it led to before. The errors of the new store are thrown as Failures, in
  // which it has the path that was given.
  using Fill = std::function<void(hxcrate::Store&)>;
  void make(const SizeForecast& forecast, const Options& options, const Fill& fill) const;

  // Says on standard error what `make` would make. Throws what keeps it from that.
  void announce(const SizeForecast& forecast, const Options& options) const;

 private:
  [[noreturn]] void refuse(const std::string& reason) const;
  void locateExisting(std::int64_t wait);
  void refuseStrayJournal() const;
  void fillFile(const NewFile& file, std::int32_t pageSize, const Options& options,
                const Fill& fill) const;
  void deliver(NewFile& file) const;
  void requireRoomFor(std::int64_t bytes, const Options& options) const;

  std::string shown_;  // the path in messages
  FilePlace place_;    // for an existing file its own rather than a link's to it
  bool replaces_;
  std::optional<struct stat> existing_;
  std::unique_ptr<hxcrate::InspectedFile> lock_;  // of the existing file
};

}  // namespace tool
