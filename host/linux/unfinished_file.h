// Files that have a name of their own kind until they are whole and get another one. Their maker
// keeps them locked (flock) for as long, so what nobody has locked under such a name is left over.
#pragma once

#include <string>

namespace hxhost {

// Nobody can guess it and wait for it. Empty, as no file can be called, when the system has no
// random numbers.
std::string makeUnfinishedName();

// For as long as the file is open anywhere. False with errno set.
bool lockUnfinished(int file) noexcept;

// 0 when that name in the open directory is the open file's, ESTALE when it is another's, or an
// errno.
int compareName(int directory, const char* name, int file);
// The same, and takes the name from it.
int removeFrom(int directory, const char* name, int file);

// Removes from an open directory what killed processes of this user left there. No name is touched
// that leads to anything else. What can't be found out stays.
void removeLeftovers(int directory) noexcept;

}  // namespace hxhost
