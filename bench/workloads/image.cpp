// A store in memory as one buffer.
#include <fmt/core.h>

#include "bench/cases.h"
#include "bench/source.h"

namespace bench {

namespace {

void makeAndReadImage(const Run& run, std::size_t count) {
  const Pieces pieces(kPieceSize, count);
  const auto store = run.engine().createInMemory();
  for (std::size_t i = 0; i < count; ++i)
    store->put(SmallItems::nameOf(i), pieces.at(i));
  std::unique_ptr<Image> image;
  run.measure([&] { image = store->makeImage(); });
  std::vector<std::byte> target(kPieceSize * count);
  run.measure([&] {
    const auto reading = run.engine().openImage(image->bytes());
    for (std::size_t i = 0; i < count; ++i) {
      const auto out = std::span(target).subspan(i * kPieceSize, kPieceSize);
      require(reading->get(SmallItems::nameOf(i), out) == kPieceSize, "an item is short");
    }
  });
  for (std::size_t i = 0; i < count; ++i)
    require(equal(Bytes(target).subspan(i * kPieceSize, kPieceSize), pieces.at(i)),
            "the bytes of an item differ");
}

}  // namespace

void addImageCases(const Scale& scale, std::vector<Case>& cases) {
  const std::size_t count = scale.imageItems;
  const auto amount = static_cast<double>(count * kPieceSize);
  const std::string size = fmt::format("{} items of 64 KiB", count);
  cases.push_back({'h',
                   {{"h-made", size + " made one buffer", kMegabytesPerSecond, amount},
                    {"h-read", size + " opened and read", kMegabytesPerSecond, amount}},
                   [=](const Run& run) { makeAndReadImage(run, count); }});
}

}  // namespace bench
