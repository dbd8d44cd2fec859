#include "selection.h"

#include <archive_entry.h>

#include <algorithm>
#include <new>
#include <utility>

#include "list_file.h"
#include "tool/report/report.h"

namespace tool {

namespace {

using AddGlob = int (*)(archive*, const char*);

Globs makeGlobs(const std::vector<std::string>& globs, const std::vector<std::string>& files,
                AddGlob add) {
  Globs made(::archive_match_new());
  if (!made) throw std::bad_alloc();
  std::vector<std::string> all = globs;
  for (const std::string& file : files) {
    const std::vector<std::string> read = readList(file, '\n');
    all.insert(all.end(), read.begin(), read.end());
  }
  for (const std::string& glob : all) {
    if (glob.empty()) throw Failure(ExitCode::usage, "", "", "an empty glob matches nothing");
    if (add(made.get(), glob.c_str()) != ARCHIVE_OK) throw std::bad_alloc();
  }
  return made;
}

bool holds(std::string_view store, std::string_view member) {
  return member.size() > store.size() && member[store.size()] == '/' && member.starts_with(store);
}

}  // namespace

void FreeMatching::operator()(archive* globs) const {
  ::archive_match_free(globs);
}

void FreeMatching::operator()(archive_entry* entry) const {
  ::archive_entry_free(entry);
}

Selection::Selection(const SelectionOptions& options, std::vector<std::string> paths)
    : paths_(std::move(paths)),
      hasIncludes_(!options.includes.empty() || !options.includesFrom.empty()),
      hasExcludes_(!options.excludes.empty() || !options.excludesFrom.empty()),
      includes_(makeGlobs(options.includes, options.includesFrom, ::archive_match_include_pattern)),
      excludes_(makeGlobs(options.excludes, options.excludesFrom, ::archive_match_exclude_pattern)),
      entry_(::archive_entry_new()) {
  if (!entry_) throw std::bad_alloc();
  // The library takes no glob to include for all.
  if (hasIncludes_ && ::archive_match_path_unmatched_inclusions(includes_.get()) == 0) {
    throw Failure(ExitCode::usage, options.includesFrom.front(), "", "there is no glob in it");
  }
}

Selection::Verdict Selection::judge(const std::string& place, bool isStore) const {
  if (isEverything()) return Verdict::yes;
  ::archive_entry_copy_pathname(entry_.get(), place.c_str());
  // Each of the two says of what it does not take that it is excluded.
  if (::archive_match_path_excluded(excludes_.get(), entry_.get()) != 0) return Verdict::no;
  const Verdict byPaths = judgeByPaths(place, isStore);
  if (!hasIncludes_ || byPaths == Verdict::no ||
      ::archive_match_path_excluded(includes_.get(), entry_.get()) == 0) {
    return byPaths;
  }
  return isStore ? Verdict::onTheWay : Verdict::no;
}

Selection::Verdict Selection::judgeByPaths(std::string_view place, bool isStore) const {
  const auto isMeant = [&](const auto& path) { return place == path || holds(path, place); };
  if (paths_.empty() || std::ranges::any_of(paths_, isMeant)) return Verdict::yes;
  const auto isBelow = [&](const auto& path) { return isStore && holds(place, path); };
  return std::ranges::any_of(paths_, isBelow) ? Verdict::onTheWay : Verdict::no;
}

}  // namespace tool
