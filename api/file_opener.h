// Opens the store files of a session.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/linux/open_request.h"
#include "hxcrate/session.hpp"
#include "opening.h"

namespace hxcrate {

// One call of Session::open.
class FileOpener {
 public:
  // Throws badName.
  FileOpener(std::shared_ptr<Engine> engine, const std::string& path, Mode mode,
             const OpenOptions& options);

  // Waits for the file with no lock but its own, then enters the module.
  std::shared_ptr<Opening> open();

  // The only file of the engine, which is empty.
  std::shared_ptr<Opening> openEmpty();

 private:
  bool attempt(Opening& opening);
  std::uint32_t flagsFor(std::int64_t length) const;
  OpenedRoot enterModule(std::uint32_t flags);
  Errc explain(const OpenRefusal& refusal);
  bool isOvertaken(const OpenRefusal& refusal) const;
  bool mayCreate() const { return mode_ != Mode::read && mode_ != Mode::update; }

  std::shared_ptr<Engine> engine_;
  const std::string& path_;
  const Mode mode_;
  const OpenOptions options_;
  std::u32string name_;  // that the module is to know the file by
  std::int32_t status_ = 0;
};

}  // namespace hxcrate
