// Opens what lies behind URLs, by the library that does.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "host/http/remote_file.h"
#include "hxcrate/error.hpp"
#include "hxcrate/remote.hpp"
#include "hxcrate/session.hpp"
#include "opening.h"

namespace hxcrate {

// As it is now; of one process all see the same while a store of it is open. Throws fileNotOpen,
// also where the library is not installed, and notFound.
std::shared_ptr<Opening> openRemote(const std::shared_ptr<Engine>& session, const std::string& url,
                                    Mode mode);

// The same file, without asking the server once more when this process has opened it last.
std::shared_ptr<hxremote::RemoteFile> openRemoteFile(const std::string& url);

// Its last failure, if it had any since this was last asked.
std::optional<FileFailure> takeFailureOf(hxremote::RemoteFile& file);

}  // namespace hxcrate
