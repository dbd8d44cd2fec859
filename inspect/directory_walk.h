// The directory of a file: every member by the links that lead to it.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

// Fills `ledger.members`, and reports what is wrong with the header and the ENTRY records. Every
// ENTRY that is followed owns its 96 bytes, so there is an end to it.
void walkDirectory(Ledger& ledger);

// What a member's ENTRY never is: that of a store without a name and without members alone may be.
bool isAllZero(const hx::Entry& entry);

// The name in an ENTRY.
std::string nameIn(const hx::Entry& entry);

}  // namespace hxcrate
