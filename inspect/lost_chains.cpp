#include "inspect/lost_chains.h"

#include <cstring>
#include <unordered_set>

#include "inspect/free_bytes.h"

namespace hxcrate {

namespace {

bool isPlausible(const RecordReader& reader, const hx::DataChunk& chunk) {
  if (chunk.capacity != reader.pageSize()) return false;
  if (chunk.used < 0 || chunk.used > chunk.capacity) return false;
  if (!reader.holds(chunk.dataOffset, chunk.used)) return false;
  return chunk.next == 0 ||
         (chunk.used == chunk.capacity && reader.holds(chunk.next, hx::kChunkSize));
}

}  // namespace

std::vector<int64_t> findLostChains(const Ledger& ledger) {
  std::vector<int64_t> heads;
  if (ledger.reader.pageSize() == 0) return heads;
  std::unordered_set<int64_t> followed;
  searchFreeBytes(ledger, hx::kChunkSize, [&](const std::byte* bytes, int64_t at) {
    hx::DataChunk chunk;
    std::memcpy(&chunk, bytes, sizeof(chunk));
    ledger.reader.arrange(chunk);
    if (!isPlausible(ledger.reader, chunk)) return false;
    if (chunk.used > 0) heads.push_back(at);
    if (chunk.next != 0) followed.insert(chunk.next);
    return true;
  });
  heads.erase(std::remove_if(heads.begin(), heads.end(),
                             [&](int64_t at) { return followed.count(at) > 0; }),
              heads.end());
  return heads;
}

}  // namespace hxcrate
