// Pages that no member leads to any more.
#pragma once

#include "inspect/ledger.h"

namespace hxcrate {

// Searches the bytes that nobody owns for DATACHUNK records that fit the file's page size and lead
// to bytes in the file, and returns where the chains of them begin that hold any byte, in rising
// order.
std::vector<int64_t> findLostChains(const Ledger& ledger);

}  // namespace hxcrate
