#include "mount/mount_options.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <limits>
#include <set>

#include "mount/exit_codes.h"
#include "mount/mount_log.h"

namespace mounted {

namespace {

constexpr const char* kFooter =
    "  hxcrate mount docs.st folder            shows docs.st as a folder\n"
    "  hxcrate mount docs.st:guide folder      shows the store guide in it\n"
    "  hxcrate mount folder a.st b.st          shows them as folder/a.st and folder/b.st\n"
    "  fusermount3 -u folder                   ends it\n\n"
    "A store can be read by others and not updated while it is mounted.";

bool isFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// "STORE:PATH", where both may hold colons: STORE is the first that is a file. A URL has no PATH.
Source splitSource(const std::string& word) {
  if (hxcrate::isUrl(word) || isFile(word)) return {word, "", ""};
  for (std::size_t colon = word.find(':'); colon != word.npos; colon = word.find(':', colon + 1)) {
    if (isFile(word.substr(0, colon))) {
      return {word.substr(0, colon), word.substr(colon + 1), ""};
    }
  }
  return {word, "", ""};
}

// The last component of the place in the store, or of the file's path.
std::string folderName(const Source& source) {
  const std::string path = source.inside.empty() ? hxcrate::showPath(source.file) : source.inside;
  return path.substr(path.rfind('/') + 1);
}

void requireNamesDiffer(const std::vector<Source>& sources) {
  std::set<std::string> names;
  for (const Source& source : sources) {
    if (!names.insert(source.name).second) {
      throw CLI::ValidationError("two stores would both be called " + source.name);
    }
  }
}

// "STORE DIR" or "DIR STORE STORE...".
void readPlaces(std::vector<std::string> words, MountOptions& options) {
  const bool isOneStore = words.size() == 2;
  const auto place = isOneStore ? words.end() - 1 : words.begin();
  options.mountPoint = *place;
  words.erase(place);
  for (const std::string& word : words) {
    Source source = splitSource(word);
    while (source.inside.ends_with('/'))
      source.inside.pop_back();
    if (!isOneStore) source.name = folderName(source);
    options.sources.push_back(source);
  }
  if (!isOneStore) requireNamesDiffer(options.sources);
}

}  // namespace

std::optional<MountOptions> readOptions(int argc, char** argv, int& exitCode) {
  CLI::App app("Shows stores as a folder that every program can read.", "hxcrate mount");
  MountOptions options;
  std::vector<std::string> words;
  app.set_version_flag("--version", "hxcrate-mount " + std::string(hxcrate::version()));
  for (const char* noise : {"TEXT", "INT", "REQUIRED"})
    app.get_formatter()->label(noise, "");
  app.get_formatter()->label("Positionals", "Arguments");
  app.add_option("PLACE", words, "STORE[:PATH] DIR, or DIR and two or more of STORE[:PATH]")
      ->required()
      ->expected(2, std::numeric_limits<int>::max())
      ->type_name("...");
  app.add_flag("-f,--foreground", options.inForeground, "stay, and log to standard error");
  app.add_flag("-d,--debug", options.isDebugged, "stay, and print what the kernel asks");
  app.add_option("--idle", options.idleSeconds, "unmount when nothing was asked for that long")
      ->check(CLI::Range(1, 1'000'000'000).description(""))
      ->type_name("SECONDS");
  app.add_option("--wait", options.waitSeconds, "wait that long at most for who has a store open")
      ->check(CLI::Range(0, 1'000'000'000).description(""))
      ->type_name("SECONDS");
  app.add_option("-o", options.systemOptions, "as for mount: allow_other, max_threads=N, ...")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("OPTIONS");
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
    readPlaces(words, options);
  } catch (const CLI::Success& asked) {
    exitCode = app.exit(asked);
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    say(std::string(error.what()) + " (see hxcrate mount --help)");
    exitCode = kUsage;
    return std::nullopt;
  }
  return options;
}

}  // namespace mounted
