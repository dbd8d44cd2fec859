// Writes the seed corpus of open_image_fuzz into a folder: small stores of every shape, made by the
// module's own writer, in both byte orders.
#include <cstdio>
#include <fstream>
#include <string>

#include "store/page_size.h"
#include "tests/module_fixture.h"

namespace hx::fake {
namespace {

struct Shape {
  const char* name;
  int32_t pageSize;
  void (*fill)(World& world, Store* store);
};

constexpr Shape kShapes[] = {
    {"empty", 16, [](World&, Store*) {}},
    {"items", 16,
     [](World& world, Store* store) {
       for (const auto& [name, size] :
            {std::pair{U"none", 0}, {U"short", 5}, {U"page", 16}, {U"long", 100}}) {
         world.put(store, name, pattern(size));
       }
     }},
    {"nested", 7,
     [](World& world, Store* store) {
       Store* outer = world.openIn(store, U"outer", kMake);
       Store* inner = world.openIn(outer, U"inner", kMake);
       world.openIn(outer, U"empty", kMake);
       world.put(inner, U"leaf", pattern(20));
       world.put(store, U"last", pattern(3));
     }},
    {"bucket", 1, [](World& world, Store* store) {
       world.put(store, U"y", pattern(2));
       world.openIn(store, U"e", kMake);
     }}};

void writeSeed(const std::string& path, const Bytes& image) {
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(image.data()),
             static_cast<std::streamsize>(image.size()));
}

void writeShape(const Shape& shape, const std::string& folder) {
  World world;
  Store* store = world.open(U"x.st", kMake);
  hxcrateSetPageSize(store, shape.pageSize);
  shape.fill(world, store);
  world.closeAll();
  const Bytes image = world.host.file(U"x.st");
  writeSeed(folder + "/" + shape.name + ".store", image);
  writeSeed(folder + "/" + shape.name + "-foreign.store", asBigEndian(image));
}

}  // namespace
}  // namespace hx::fake

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: %s FOLDER\n", arguments[0]);
    return 2;
  }
  for (const auto& shape : hx::fake::kShapes)
    hx::fake::writeShape(shape, arguments[1]);
  return 0;
}
