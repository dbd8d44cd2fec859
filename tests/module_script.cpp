#include "tests/module_script.h"

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "host/file_io.h"
#include "records/status.h"

namespace hx::fake {

namespace {

const std::map<std::string, int32_t>& statuses() {
  static const std::map<std::string, int32_t> byTheirNames = {
      {"ok", kOk},
      {"notFound", kNotFound},
      {"exists", kExists},
      {"noMemory", kNoMemory},
      {"notLocked", kNotLocked},
      {"noStore", kNoStore},
      {"endOfItem", kEndOfItem},
      {"itemInUse", kItemInUse},
      {"fileNotOpen", kFileNotOpen},
      {"otherEncoding", kOtherEncoding},
      {"storeInUse", kStoreInUse},
      {"contradiction", kContradiction},
      {"nameTooLong", kNameTooLong},
      {"unreadable", kUnreadable},
      {"pageSizeFixed", kPageSizeFixed},
      {"noPermission", HX_REMOVE_NO_PERMISSION},
      {"fileInUse", HX_REMOVE_IN_USE},
      {"notRegular", HX_REMOVE_NOT_REGULAR},
      {"ioError", HX_REMOVE_IO_ERROR}};
  return byTheirNames;
}

void takeShown(Statement& statement, const std::string& word) {
  if (word.find_first_not_of("-0123456789") == std::string::npos) {
    statement.number = std::stoll(word);
  } else if (statuses().count(word) != 0) {
    statement.status = statusOf(word);
  } else {
    statement.names.push_back(word);
  }
}

}  // namespace

int32_t statusOf(const std::string& word) {
  const auto known = statuses().find(word);
  return known != statuses().end() ? known->second : std::stoi(word);
}

std::optional<std::string> nameOfStatus(int32_t status) {
  for (const auto& [name, number] : statuses()) {
    if (number == status) return name;
  }
  return std::nullopt;
}

Script parse(const std::string& line, const std::string& file, int number) {
  Script script;
  std::istringstream statements(line);
  for (std::string text; std::getline(statements, text, ';');) {
    Statement statement = {text, file, number};
    bool isShown = false;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      if (isShown) takeShown(statement, word);
      isShown = isShown || word == "->";
      if (!isShown) statement.words.push_back(word);
    }
    if (statement.words.empty()) continue;
    statement.words.resize(std::max<size_t>(statement.words.size(), 4));
    script.push_back(statement);
  }
  return script;
}

std::vector<Story> storiesIn(const std::string& file) {
  const std::string path = HX_SOURCE_DIR "/tests/stories/" + file;
  std::ifstream stream(path);
  std::vector<Story> stories = {{}};
  std::string line;
  for (int number = 1; std::getline(stream, line); ++number) {
    line.resize(std::min(line.find('#'), line.size()));
    Story& told = stories.back();
    if (line.find_first_not_of(' ') == std::string::npos) continue;
    if (line[0] != ' ') {
      stories.push_back({line, path, number, stories[0].steps, {}});
    } else if (line == "  --") {
      told.before.insert(told.before.end(), told.steps.begin(), told.steps.end());
      told.steps.clear();
    } else {
      const Script step = parse(line, path, number);
      if (step.size() > 3)
        throw std::invalid_argument(path + ":" + std::to_string(number) + ": more than one step");
      told.steps.insert(told.steps.end(), step.begin(), step.end());
    }
  }
  stories.erase(stories.begin());
  if (stories.empty()) throw std::invalid_argument("no stories: " + path);
  return stories;
}

}  // namespace hx::fake
