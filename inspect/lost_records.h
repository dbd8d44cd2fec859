// What no link leads to any more: records in the bytes that nobody owns.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

// Searches for ENTRY records. A record carries no mark, so what counts as one must fit into the
// tree: it says to be in a store that is there, or that was found here too, and leads to a sound
// DATACHUNK, to a member that says to be in it, or, a store without members, to nothing. Enters
// what was found into the store "lost+found", reports it and tells the options' onExtent.
void adoptLostMembers(Ledger& ledger, const PageWalkOptions& options);

// Searches for sound DATACHUNK records, and returns where the chains of them begin that hold any
// byte, in rising order.
std::vector<int64_t> findLostChains(const Ledger& ledger);

}  // namespace hxcrate
