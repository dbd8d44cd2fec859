// A program outside this tree: it is built against what was installed.
#include <cstdio>
#include <hxcrate/crate.hpp>
#include <string>

int main() try {
  hxcrate::Session session;
  hxcrate::Store store = session.createInMemory("greeting");
  store.create("word").write("hello");
  const hxcrate::Blob blob = store.makeBlob();
  const std::string word = session.openBlob(blob, "greeting").read("word").readText();
  std::printf("%s from hxcrate %s\n", word.c_str(), std::string(hxcrate::version()).c_str());
  return 0;
} catch (const hxcrate::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
