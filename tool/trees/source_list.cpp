#include "source_list.h"

#include <algorithm>
#include <climits>

#include "list_file.h"
#include "tool/report/report.h"

namespace tool {

namespace {

[[noreturn]] void refuse(std::string_view path, const char* reason) {
  throw Failure(ExitCode::usage, std::string(path), "", reason);
}

// The first name of a path, which it loses, with the slashes behind it.
std::string_view takeName(std::string_view& path) {
  const std::string_view name = path.substr(0, path.find('/'));
  path.remove_prefix(name.size());
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  return name;
}

// "/", "." or as many ".." as a path begins with, which it loses.
std::string takeRoot(std::string_view& path) {
  std::string root = path.starts_with('/') ? "/" : ".";
  path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
  while (path == ".." || path.starts_with("../")) {
    takeName(path);
    root == "." ? root = ".." : root += "/..";
  }
  return root;
}

}  // namespace

SourceList::SourceList(const Options& options) {
  if (options.paths.size() == 1 && options.lists.empty()) {
    root = options.paths.front();
    top.isNamed = true;
    top.isWhole = !options.isShallow;
    return;
  }
  for (const std::string& path : options.paths)
    add(path, !options.isShallow);
  for (const std::string& file : options.lists) {
    for (const std::string& path : readList(file, options.nulSeparated ? '\0' : '\n'))
      add(path, !options.isShallow);
  }
  if (!hasRoot_) refuse(options.lists.empty() ? "" : options.lists.front(), "no path is named");
}

// Paths are no longer than the system takes them, so what is built of them is not deep.
void SourceList::add(std::string_view path, bool isWhole) {
  std::string_view rest = path;
  const std::string itsRoot = takeRoot(rest);
  if (path.empty() || path.size() >= PATH_MAX) refuse(path, "no file has such a path");
  if (hasRoot_ && itsRoot != root) {
    refuse(path, "all paths have to begin with \"/\", with as many \"..\", or with a name");
  }
  root = itsRoot;
  hasRoot_ = true;
  SourceEntry* entry = &top;
  while (!rest.empty()) {
    const std::string_view name = takeName(rest);
    if (name == "..") refuse(path, "\"..\" behind a name leads nowhere in a store");
    if (name != ".") entry = &entry->below[std::string(name)];
  }
  entry->isNamed = true;
  entry->isWhole = entry->isWhole || isWhole;
}

}  // namespace tool
