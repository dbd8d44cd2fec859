// What the program has to say while nobody waits for it.
#pragma once

#include <string_view>

namespace mounted {

// One line on standard error, and since useSystemLog() in the system's log.
void say(std::string_view line);
void useSystemLog();

}  // namespace mounted
