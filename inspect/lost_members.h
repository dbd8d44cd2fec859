// Members that no link leads to any more.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

// Searches the bytes that nobody owns for ENTRY records. A record carries no mark, so what counts
// as one must fit into the tree: it says to be in a store that is there, or that was found here
// too, and leads to a sound DATACHUNK, to a member that says to be in it, or, a store without
// members, to nothing. Enters what was found into the store "lost+found", and tells the options'
// onExtent and onAdoption.
void adoptLostMembers(Ledger& ledger, const PageWalkOptions& options);

}  // namespace hxcrate
