// Writes two items into a store file and reads them back.
//
//   quickstart STORE
#include <cstdio>
#include <hxcrate/crate.hpp>

int main(int count, char** arguments) try {
  if (count != 2) return std::fprintf(stderr, "usage: %s STORE\n", arguments[0]), 2;
  hxcrate::Session session;

  hxcrate::Store store = session.open(arguments[1], hxcrate::Mode::replace);
  store.create("readme").write("what this store is for\n");
  store.create("2026/orders", hxcrate::Parents::create).write("tea, two sugars\n");
  store.close();  // throws when not everything reached the file

  const hxcrate::Store again = session.open(arguments[1]);
  for (const char* path : {"readme", "2026/orders"}) {
    std::printf("%s: %s", path, again.read(path).readText().c_str());
  }
  return 0;
} catch (const hxcrate::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
