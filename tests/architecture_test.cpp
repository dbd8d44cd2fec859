// The house rules that no compiler checks: who includes whom, and what the module imports and
// exports.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kSources = HX_SOURCE_DIR;

// Folders and files, by how their paths begin, and what they may include of the tree. README's tour
// of the folders says the same in words.
struct Rule {
  std::string includer;
  std::vector<std::string> allowed;
  bool anySystemHeader;
};

const std::vector<std::string> kModule = {"module/", "store/", "file/", "item/", "blob/"};
const std::vector<std::string> kHostInterfaces = {"host/kernel.h", "host/encoding.h",
                                                  "host/file_io.h"};

std::vector<std::string> join(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::vector<Rule> makeRules() {
  std::vector<Rule> rules = {
      {"host/linux/", join({"host/linux/"}, kHostInterfaces), true},
      {"host/", kHostInterfaces, false},
      {"api/",
       join({"api/", "host/linux/", "store/records.h", "store/status.h", "module/entry.h"},
            kHostInterfaces),
       true},
      {"inspect/", {"inspect/", "api/hxcrate/", "file/format.h"}, true},
      {"tool/", {"tool/", "api/hxcrate/"}, true},
      {"examples/memory_host.c", {"module/crate.h"}, true},
      {"examples/", {"api/hxcrate/"}, true},
  };
  for (const std::string& folder : kModule) {
    rules.push_back({folder, join(kModule, kHostInterfaces), false});
  }
  return rules;
}

bool startsWithAny(const std::string& text, const std::vector<std::string>& prefixes) {
  return std::any_of(prefixes.begin(), prefixes.end(),
                     [&](const std::string& prefix) { return text.starts_with(prefix); });
}

struct SourceFile {
  std::vector<std::string> ours;    // paths from the root of the tree
  std::vector<std::string> system;  // as written
  int lines = 0;
};

// Where an include leads: from the root, from the includer's folder, or from api/, which is on the
// search path of the programs.
std::string resolveInclude(const fs::path& includer, const std::string& written) {
  for (const fs::path& base : {fs::path(), includer.parent_path(), fs::path("api")}) {
    const fs::path candidate = base / written;
    if (fs::exists(kSources / candidate)) return candidate.generic_string();
    // Made by the build.
    if (fs::exists(kSources / (candidate.string() + ".in"))) return candidate.generic_string();
  }
  return "";
}

SourceFile readSource(const fs::path& path) {
  SourceFile source;
  std::ifstream file(kSources / path);
  for (std::string line; std::getline(file, line); ++source.lines) {
    if (!line.starts_with("#include ") || line.size() < 12) continue;
    const std::string written = line.substr(10, line.find_first_of(">\"", 10) - 10);
    const std::string resolved = resolveInclude(path, written);
    const bool isOurs = line[9] == '"' || resolved.starts_with("api/hxcrate/");
    EXPECT_FALSE(isOurs && resolved.empty()) << path << " includes " << written;
    (isOurs ? source.ours : source.system).push_back(isOurs ? resolved : written);
  }
  return source;
}

std::map<std::string, SourceFile> readTree(const std::vector<std::string>& folders) {
  static const std::set<std::string> kExtensions = {".h", ".hpp", ".cpp", ".c"};
  std::map<std::string, SourceFile> tree;
  for (const std::string& folder : folders) {
    for (const auto& entry : fs::recursive_directory_iterator(kSources / folder)) {
      if (kExtensions.count(entry.path().extension().string()) == 0) continue;
      const fs::path path = fs::relative(entry.path(), kSources);
      tree.emplace(path.generic_string(), readSource(path));
    }
  }
  return tree;
}

const std::map<std::string, SourceFile>& programTree() {
  static const auto tree = readTree(join(kModule, {"host", "api", "inspect", "tool", "examples"}));
  return tree;
}

TEST(ArchitectureTest, IncludesOnlyWhatTheFolderMay) {
  const std::vector<Rule> rules = makeRules();
  std::set<std::string> rulesUsed;
  for (const auto& file : programTree()) {
    const std::string& path = file.first;
    const SourceFile& source = file.second;
    const auto rule = std::find_if(rules.begin(), rules.end(), [&](const Rule& candidate) {
      return path.starts_with(candidate.includer);
    });
    ASSERT_NE(rule, rules.end()) << path;
    rulesUsed.insert(rule->includer);
    for (const std::string& included : source.ours) {
      EXPECT_TRUE(startsWithAny(included, rule->allowed)) << path << " includes " << included;
    }
    for (const std::string& header : source.system) {
      const bool isAllowed = rule->anySystemHeader || header == "stddef.h" ||
                             header == "stdint.h" || (header == "uchar.h" && path[0] == 'h');
      EXPECT_TRUE(isAllowed) << path << " includes <" << header << ">";
    }
  }
  EXPECT_EQ(rulesUsed.size(), rules.size()) << "a rule for files that there are none of";
}

// Takes away, again and again, the files that include none of what is left.
TEST(ArchitectureTest, FilesFormNoCycle) {
  std::map<std::string, std::set<std::string>> left;
  for (const auto& [path, source] : programTree()) {
    left[path] = {source.ours.begin(), source.ours.end()};
  }
  for (bool found = true; found;) {
    found = false;
    for (auto file = left.begin(); file != left.end();) {
      const bool isFree = std::none_of(file->second.begin(), file->second.end(),
                                       [&](const auto& path) { return left.count(path) > 0; });
      found = found || isFree;
      file = isFree ? left.erase(file) : std::next(file);
    }
  }
  for (const auto& [path, includes] : left)
    ADD_FAILURE() << path << " is part of a cycle";
}

TEST(ArchitectureTest, EveryFileHasANameOfItsOwnAndAModestLength) {
  std::map<std::string, std::string> seen;
  for (const auto& [path, source] :
       readTree(join(kModule, {"host", "api", "inspect", "tool", "tests"}))) {
    const auto [first, isNew] = seen.emplace(fs::path(path).filename().string(), path);
    EXPECT_TRUE(isNew) << path << " is called like " << first->second;
    EXPECT_TRUE(path.starts_with("tests/") || source.lines <= 400) << path;
  }
}

std::set<std::string> readLastWords(const std::string& command) {
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
  std::set<std::string> symbols;
  std::array<char, 512> line{};
  while (std::fgets(line.data(), static_cast<int>(line.size()), pipe.get()) != nullptr) {
    std::string text = line.data();
    while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back())))
      text.pop_back();
    symbols.insert(text.substr(text.rfind(' ') + 1));
  }
  return symbols;
}

std::set<std::string> listSymbols(const std::string& which) {
  return readLastWords("nm -D " + which + " '" + HX_MODULE_PATH + "'");
}

class SymbolTest : public testing::Test {
 protected:
  void SetUp() override {
    if (HX_SANITIZED) GTEST_SKIP() << "a sanitizer's module is linked with its runtime";
  }
};

TEST_F(SymbolTest, ModuleImportsMemoryCopyAndFillAlone) {
  for (const std::string& symbol : listSymbols("--undefined-only")) {
    const bool isAllowed = symbol == "memcpy" || symbol == "memmove" || symbol == "memset";
    EXPECT_TRUE(isAllowed) << symbol;
  }
}

// What a slip of memory must not lead to: a changed return address, a changed table of functions.
TEST_F(SymbolTest, ProgramsInUserSpaceAreHardened) {
  for (const std::string path : {HX_COMMAND_PATH, HX_HOST_PATH}) {
    const auto words = readLastWords("readelf -Wdl --dyn-syms '" + path + "' | tr ' @' '\\n\\n'");
    std::vector<std::string> wanted = {"GNU_RELRO", "NOW", "__stack_chk_fail"};
    if (path == HX_COMMAND_PATH) wanted.insert(wanted.end(), {"PIE"});
    if (path == HX_COMMAND_PATH && HX_RELEASE) wanted.insert(wanted.end(), {"__snprintf_chk"});
    for (const std::string& word : wanted)
      EXPECT_EQ(words.count(word), 1u) << path << " lacks " << word;
  }
}

TEST_F(SymbolTest, ModuleExportsPlainNamesAlone) {
  const std::set<std::string> symbols = listSymbols("--defined-only");
  for (const char* entryPoint :
       {"hxmodent", "hxmodver", "hxrelct1", "hxcrate", "Exported_HXHandle", "hxcrateOpenStore"}) {
    EXPECT_EQ(symbols.count(entryPoint), 1u) << entryPoint;
  }
  for (const std::string& symbol : symbols) {
    const bool isPlain = std::islower(static_cast<unsigned char>(symbol[0])) != 0 &&
                         std::all_of(symbol.begin(), symbol.end(),
                                     [](unsigned char c) { return std::isalnum(c) != 0; });
    EXPECT_TRUE(isPlain || symbol.ends_with("_map") || symbol == "Exported_HXHandle") << symbol;
  }
}

}  // namespace
