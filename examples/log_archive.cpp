// An archive of many logs in one file, one item a service and day, appended to in several sessions
// and read back whole.
//
//   log_archive STORE
#include <cstdio>
#include <hxcrate/crate.hpp>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kServices = 200;
constexpr int kSessions = 3;
constexpr int kLines = 5;  // of each service in each session

std::string pathOf(int service) {
  return "2026-11-23/service-" + std::to_string(service);
}

std::string lineOf(int service, int session, int line) {
  return "service " + std::to_string(service) + " session " + std::to_string(session) + " line " +
         std::to_string(line) + "\n";
}

// One run of a program that adds to the archive: all its lines are in the file afterwards, or none.
void appendLines(const std::string& archive, int session) {
  hxcrate::Session crate;
  hxcrate::Store store = crate.open(archive, hxcrate::Mode::openOrCreate);
  std::vector<hxcrate::Writer> writers;  // many items may be open at once
  writers.reserve(kServices);
  for (int service = 0; service < kServices; ++service)
    writers.push_back(store.append(pathOf(service), hxcrate::Parents::create));
  for (int line = 0; line < kLines; ++line) {
    for (int service = 0; service < kServices; ++service)
      writers[static_cast<std::size_t>(service)].write(lineOf(service, session, line));
  }
  writers.clear();  // a store closes after its items
  store.close();
}

std::string textOf(int service) {
  std::string text;
  for (int session = 0; session < kSessions; ++session) {
    for (int line = 0; line < kLines; ++line)
      text += lineOf(service, session, line);
  }
  return text;
}

}  // namespace

int main(int count, char** arguments) try {
  if (count != 2) return std::fprintf(stderr, "usage: %s STORE\n", arguments[0]), 2;
  std::remove(arguments[1]);
  for (int session = 0; session < kSessions; ++session)
    appendLines(arguments[1], session);

  hxcrate::Session crate;
  const hxcrate::Store store = crate.open(arguments[1]);
  std::size_t bytes = 0;
  for (int service = 0; service < kServices; ++service) {
    const std::string text = store.read(pathOf(service)).readText();
    if (text != textOf(service)) {
      std::fprintf(stderr, "%s is not what was appended\n", pathOf(service).c_str());
      return 1;
    }
    bytes += text.size();
  }
  std::printf("%d logs of %zu bytes, each appended to in %d sessions\n", kServices, bytes,
              kSessions);
  return 0;
} catch (const hxcrate::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
