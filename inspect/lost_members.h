// Members that no link leads to any more.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

// Searches the bytes that nobody owns for ENTRY records. A record carries no mark, so what counts
// as one must fit into the tree: it says to be in a store that is there, or that was found here
// too, and leads to a sound DATACHUNK, to a member that says to be in it, or, a store without
// members, to nothing. Adds what was found to the members, behind a store "lost+found" that they
// are in, and tells the options' onExtent and onAdoption. The index of that store; the number of
// members when nothing was found.
std::size_t adoptLostMembers(Ledger& ledger, const PageWalkOptions& options);

}  // namespace hxcrate
