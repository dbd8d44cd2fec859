// hxcrate diff: how the contents of two stores, or of a store and a folder, differ.

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/inspected_store.h"
#include "tool/report/answer.h"
#include "tool/report/progress.h"
#include "tool/trees/compared_tree.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

using Kind = ComparedMember::Kind;

constexpr std::size_t kBufferSize = 256 * 1024;

struct DiffOptions {
  std::string first;
  std::string second;
  SelectionOptions selected;
  bool asJson = false;
  std::int64_t wait = 0;  // seconds
};

// One line a difference, or one element of a JSON array.
class Differences {
 public:
  explicit Differences(const DiffOptions& options) : options_(options), answer_(options.asJson) {
    answer_.tellPrograms([&](JsonWriter& json) {
      json.writeName("first", hxcrate::showPath(options.first));
      json.writeName("second", hxcrate::showPath(options.second));
      json.beginArray("differences");
    });
  }

  void addOnlyIn(bool isFirst, const std::string& place, bool isContainer) {
    const std::string& tree = isFirst ? options_.first : options_.second;
    add(isFirst ? "onlyInFirst" : "onlyInSecond", "only in " + escape(hxcrate::showPath(tree)),
        place, isContainer ? "/" : "");
  }
  void addKind(const std::string& place, const char* first, const char* second) {
    add("kind", "kind differs", place, fmt::format(": {} and {}", first, second));
  }
  void addTarget(const std::string& place) { add("target", "link differs", place, ""); }
  void addContents(const std::string& place, std::int64_t offset) {
    add("contents", "contents differ", place, fmt::format(": at byte {}", offset), offset);
  }

  bool any() const { return any_; }
  void finish() {
    answer_.tellPrograms([](JsonWriter& json) { json.endArray(); });
    answer_.finish();
  }

 private:
  void add(std::string_view difference, const std::string& what, const std::string& place,
           const std::string& how, std::optional<std::int64_t> offset = std::nullopt) {
    any_ = true;
    answer_.tell([&](Output& text) { text.print("{}: {}{}\n", what, escape(place), how); },
                 [&](JsonWriter& json) {
                   json.beginObject();
                   json.writeName("path", place);
                   json.writeText("difference", difference);
                   if (offset) json.writeNumber("offset", *offset);
                   json.endObject();
                 });
  }

  const DiffOptions& options_;
  Answer answer_;
  bool any_ = false;
};

// The members of a container on one side, as far as they are not compared yet.
struct Side {
  std::vector<ComparedMember> members = {};
  std::size_t next = 0;
  bool isThere = false;  // the other side may have a container that this one has not

  const ComparedMember* member() const { return next < members.size() ? &members[next] : nullptr; }
};

// Goes through two trees side by side; depth costs heap, not stack.
class Comparison {
 public:
  explicit Comparison(const DiffOptions& options)
      : selection_(options.selected),
        session_(waitingFor(options.wait)),
        differences_(options),
        first_(openTree(session_, options.first, isFolder(options.second), outcome_)),
        second_(openTree(session_, options.second, isFolder(options.first), outcome_)),
        progress_("comparing", ::isatty(STDOUT_FILENO) == 0) {
    const bool isFirstFolder = isFolder(options.first);
    expectItems(progress_, session_, isFirstFolder ? options.second : options.first, selection_);
    levels_.push_back({listMeant(*first_, ""), listMeant(*second_, ""), 0});
  }

  ExitCode compare() {
    while (!levels_.empty()) {
      const ComparedMember* first = levels_.back().first.member();
      const ComparedMember* second = levels_.back().second.member();
      if (first == nullptr && second == nullptr) {
        ascend();
      } else if (second == nullptr || (first != nullptr && first->name < second->name)) {
        passOver(levels_.back().first, true);
      } else if (first == nullptr || second->name < first->name) {
        passOver(levels_.back().second, false);
      } else {
        compareMembers();
      }
    }
    differences_.finish();
    return differences_.any() ? worse(outcome_, ExitCode::differs) : outcome_;
  }

 private:
  struct Level {
    Side first;
    Side second;
    std::size_t placeLength;  // of the containers'
  };

  // Of a member of the innermost containers. Theirs is kept once for all levels.
  const std::string& placeOf(const ComparedMember& member) {
    place_.resize(levels_.back().placeLength);
    if (!place_.empty()) place_ += '/';
    return place_ += member.name;
  }

  Selection::Verdict judge(const std::string& place, const ComparedMember& member) const {
    return selection_.judge(place, member.kind == Kind::container);
  }

  // Of the container that the tree is at, which lies at `place`.
  Side listMeant(ComparedTree& tree, const std::string& place) {
    Side side{tree.list(), 0, true};
    if (selection_.isEverything()) return side;
    std::erase_if(side.members, [&](const ComparedMember& member) {
      const std::string path = place.empty() ? member.name : place + "/" + member.name;
      return judge(path, member) == Selection::Verdict::no;
    });
    return side;
  }

  void ascend() {
    const Level& level = levels_.back();
    const bool isOutermost = levels_.size() == 1;
    if (level.first.isThere && !isOutermost) first_->leave();
    if (level.second.isThere && !isOutermost) second_->leave();
    levels_.pop_back();
  }

  // Into the container at `place`, on one side or both.
  void descend(const ComparedMember& container, bool inFirst, bool inSecond) {
    Level level{{}, {}, place_.size()};
    enter(*first_, container, inFirst, level.first);
    try {
      enter(*second_, container, inSecond, level.second);
    } catch (...) {
      if (inFirst) first_->leave();
      throw;
    }
    levels_.push_back(std::move(level));
  }

  void enter(ComparedTree& tree, const ComparedMember& container, bool isThere, Side& side) {
    if (!isThere) return;
    tree.enter(container.name);
    try {
      side = listMeant(tree, place_);
    } catch (...) {
      tree.leave();
      throw;
    }
  }

  // Of a container that is not meant itself, what is.
  void passOver(Side& side, bool isFirst) {
    const ComparedMember member = side.members[side.next++];
    const std::string& place = placeOf(member);
    if (judge(place, member) == Selection::Verdict::yes) {
      return differences_.addOnlyIn(isFirst, place, member.kind == Kind::container);
    }
    goOnAfterFailures([&] { descend(member, isFirst, !isFirst); });
  }

  void compareMembers() {
    Side& first = levels_.back().first;
    Side& second = levels_.back().second;
    const ComparedMember a = first.members[first.next++];
    const ComparedMember b = second.members[second.next++];
    const std::string& place = placeOf(a);
    if (a.kind != b.kind) {
      return differences_.addKind(place, first_->describe(a.kind), second_->describe(b.kind));
    }
    goOnAfterFailures([&] {
      if (a.kind == Kind::container) return descend(a, true, true);
      if (a.kind == Kind::item) compareItems(a.name);
      if (a.kind == Kind::link && first_->targetOf(a.name) != second_->targetOf(a.name))
        differences_.addTarget(place);
    });
  }

  // What can't be read is told of, and the others go on, unless each could be as long.
  template <typename Action>
  void goOnAfterFailures(Action action) {
    try {
      action();
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = worse(outcome_, exitCodeOf(error));
    } catch (const Failure& failure) {
      failure.print();
      outcome_ = worse(outcome_, failure.code());
      if (failure.code() == ExitCode::damaged) levels_.clear();
    }
  }

  // An item that ends where the other goes on differs at its end.
  void compareItems(const std::string& name) {
    first_->open(name);
    second_->open(name);
    std::int64_t offset = 0;
    while (true) {
      throwIfInterrupted();
      std::exception_ptr failure;
      const std::size_t firstCount = fill(firstBuffer_, *first_, failure);
      const std::size_t secondCount = fill(secondBuffer_, *second_, failure);
      const std::size_t common = std::min(firstCount, secondCount);
      const auto end = firstBuffer_.begin() + static_cast<std::ptrdiff_t>(common);
      const auto found = std::mismatch(firstBuffer_.begin(), end, secondBuffer_.begin()).first;
      const bool differs = found != end || (firstCount != secondCount && !failure);
      if (differs) differences_.addContents(place_, offset + (found - firstBuffer_.begin()));
      if (failure) std::rethrow_exception(failure);
      progress_.add(static_cast<std::int64_t>(common));
      if (differs || common == 0) return progress_.addFile();
      offset += static_cast<std::int64_t>(common);
    }
  }

  // Up to the end of the item, or to what can't be read, before which a read may stop short.
  static std::size_t fill(std::span<std::byte> buffer, ComparedTree& tree,
                          std::exception_ptr& failure) {
    std::size_t count = 0;
    try {
      while (const std::size_t more = tree.read(buffer.subspan(count)))
        count += more;
    } catch (const hxcrate::Error&) {
      failure = std::current_exception();
    } catch (const Failure&) {
      failure = std::current_exception();
    }
    return count;
  }

  const Selection selection_;
  hxcrate::Session session_;
  ExitCode outcome_ = ExitCode::fine;
  Differences differences_;
  const std::unique_ptr<ComparedTree> first_;
  const std::unique_ptr<ComparedTree> second_;
  Progress progress_;
  std::vector<Level> levels_;
  std::string place_;
  std::vector<std::byte> firstBuffer_ = std::vector<std::byte>(kBufferSize);
  std::vector<std::byte> secondBuffer_ = std::vector<std::byte>(kBufferSize);
};

ExitCode diff(const DiffOptions& options) {
  if (isFolder(options.first) && isFolder(options.second)) {
    throw Failure(ExitCode::usage, options.first, "", "is a folder as well: diff -r compares two");
  }
  ExitCode outcome = Comparison(options).compare();
  for (const std::string& tree : {options.first, options.second})
    if (!isFolder(tree)) outcome = seeLostMembers(tree, outcome);
  return outcome;
}

}  // namespace

void addDiff(CommandLine& line) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App& words =
      line.add("diff", "Tell how the contents of A and B, stores or a store and a folder, differ",
               "  hxcrate diff monday.st tuesday.st\n"
               "  hxcrate diff etc.st /etc",
               [options] { return diff(*options); });
  addFile(words, "A", options->first, "a store file, or a folder");
  addFile(words, "B", options->second, "another");
  words.add_flag("--json", options->asJson, "as JSON");
  addSelection(words, options->selected);
  addWait(words, options->wait);
}

}  // namespace tool
