// What is left in folders where a program was killed while it made a file.
#pragma once

#include <string>

namespace hxcrate {

// Session::rewrite, and the command, make files that get their name when they are whole. Until then
// they have none, or, where the file system can't do that and for a moment before they replace
// another one, a name of a kind of its own: ".hxcrate-" and 16 digits. Whoever makes a file of
// that kind keeps it locked as long as it is called so, and removes what others left beside it.

// A name of that kind, which nobody can guess. Empty, as no file can be called, when the system has
// no random numbers.
std::string makeUnfinishedName();

// Locks an open file. False with errno set when others have it locked.
bool lockUnfinished(int file) noexcept;

// Removes from an open directory what nobody has locked, of this user. What can't be found out
// stays.
void removeLeftovers(int directory) noexcept;

}  // namespace hxcrate
