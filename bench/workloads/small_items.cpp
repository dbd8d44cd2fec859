#include "bench/workloads/small_items.h"

#include <fmt/core.h>

namespace bench {

void requireMeasurable(const Engine& engine, std::size_t count) {
  const std::size_t most = engine.info().mostItems;
  if (count > most) throw Unsupported(fmt::format("measured with up to {} items", most));
}

void createAll(Session& session, const std::string& path, const SmallItems& items) {
  const std::unique_ptr<Writing> writing = session.create(path, Shape::small);
  for (std::size_t i = 0; i < items.count(); ++i)
    writing->put(items.name(i), items.bytes(i));
  writing->commit();
}

void verifyAll(Engine& engine, const std::string& path, const SmallItems& items) {
  const auto session = engine.openSession(Sync::off);
  const auto reading = session->open(path, Shape::small);
  std::vector<std::byte> out(kSmallSize * 2);
  for (std::size_t i = 0; i < items.count(); ++i) {
    const std::size_t count = reading->get(items.name(i), out);
    require(equal(Bytes(out).first(count), items.bytes(i)), "the bytes of an item differ");
  }
  require(reading->enumerate() == items.tally(), "the names enumerated differ");
}

std::string keptItems(const Run& run, const std::string& purpose, const SmallItems& items) {
  requireMeasurable(run.engine(), items.count());
  return run.keptFile(purpose, [&](const std::string& path) {
    createAll(*run.engine().openSession(Sync::off), path, items);
    verifyAll(run.engine(), path, items);
  });
}

void getAll(Reading& reading, const SmallItems& items, const std::vector<std::uint32_t>& order) {
  std::byte out[kSmallSize * 2];
  std::size_t bytes = 0;
  for (std::uint32_t number : order)
    bytes += reading.get(items.name(number), out);
  require(bytes == order.size() * kSmallSize, "an item is short");
}

}  // namespace bench
