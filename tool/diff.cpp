// hxcrate diff: how the contents of two stores differ.

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "answer.h"
#include "command_line.h"
#include "inspected_store.h"
#include "store_walk.h"

namespace tool {

namespace {

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
      json.writeName("first", options.first);
      json.writeName("second", options.second);
      json.beginArray("differences");
    });
  }

  void addOnlyIn(bool isFirst, const std::string& place, bool isStore) {
    const std::string& store = isFirst ? options_.first : options_.second;
    add(isFirst ? "onlyInFirst" : "onlyInSecond", "only in " + escape(store), place,
        isStore ? "/" : "");
  }
  void addKind(const std::string& place, bool isFirstStore) {
    add("kind", "kind differs", place,
        isFirstStore ? ": a store and an item" : ": an item and a store");
  }
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
    answer_.tell(
        [&](Output& text) {
          text.print("{}: ", what);
          text.writeName(place);
          text.print("{}\n", how);
        },
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

bool isStore(const hxcrate::Member& member) {
  return member.kind == hxcrate::MemberKind::store;
}

// Of the store that lies at `place`.
std::vector<hxcrate::Member> listMeant(const hxcrate::Store& store, const std::string& place,
                                       const Selection& selection) {
  std::vector<hxcrate::Member> members = listSorted(store);
  if (selection.isEverything()) return members;
  std::erase_if(members, [&](const hxcrate::Member& member) {
    const std::string path = place.empty() ? member.name : place + "/" + member.name;
    return selection.judge(path, isStore(member)) == Selection::Verdict::no;
  });
  return members;
}

// The members of a store on one side, as far as they are not compared yet.
struct Side {
  hxcrate::Store store;
  std::vector<hxcrate::Member> members;
  std::size_t next = 0;

  const hxcrate::Member* member() const { return next < members.size() ? &members[next] : nullptr; }
};

// Goes through two trees side by side; depth costs heap, not stack.
class Comparison {
 public:
  explicit Comparison(const DiffOptions& options)
      : selection_(options.selected),
        session_(waitingFor(options.wait)),
        differences_(options),
        firstLimit_(options.first),
        secondLimit_(options.second) {
    hxcrate::Store first = openWhatThereIs(session_, options.first, outcome_);
    hxcrate::Store second = openWhatThereIs(session_, options.second, outcome_);
    descend(std::move(first), std::move(second), "");
  }

  ExitCode compare() {
    while (!levels_.empty()) {
      const hxcrate::Member* first = levels_.back().first.member();
      const hxcrate::Member* second = levels_.back().second.member();
      if (first == nullptr && second == nullptr) {
        levels_.pop_back();
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
    std::size_t placeLength;  // of the stores'
  };

  // Of the next member of a side. The stores' own is kept once for all levels.
  const std::string& placeOf(const Side& side) {
    place_.resize(levels_.back().placeLength);
    if (!place_.empty()) place_ += '/';
    return place_ += side.member()->name;
  }

  void descend(hxcrate::Store first, hxcrate::Store second, const std::string& place) {
    std::vector<hxcrate::Member> ofFirst = listMeant(first, place, selection_);
    std::vector<hxcrate::Member> ofSecond = listMeant(second, place, selection_);
    levels_.push_back({Side{std::move(first), std::move(ofFirst)},
                       Side{std::move(second), std::move(ofSecond)}, place.size()});
  }

  // Of a store that is not meant itself, what is.
  void passOver(Side& side, bool isFirst) {
    const std::string& place = placeOf(side);
    const hxcrate::Member member = side.members[side.next++];
    if (selection_.judge(place, isStore(member)) == Selection::Verdict::yes) {
      return differences_.addOnlyIn(isFirst, place, isStore(member));
    }
    try {
      StoreWalk walk(side.store.openStore(member.name), &selection_);
      for (auto event = walk.next(); event != StoreWalk::Event::end; event = walk.next()) {
        if (event == StoreWalk::Event::leave) continue;
        const bool isNested = event == StoreWalk::Event::store;
        const bool isMeant = selection_.judge(walk.place(), isNested) == Selection::Verdict::yes;
        isMeant ? differences_.addOnlyIn(isFirst, walk.place(), isNested) : walk.enter();
      }
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = worse(outcome_, exitCodeOf(error));
    }
  }

  // What can't be read is told of, and the others go on.
  void compareMembers() {
    Side& first = levels_.back().first;
    Side& second = levels_.back().second;
    const std::string& place = placeOf(first);
    const hxcrate::Member a = first.members[first.next++];
    const hxcrate::Member b = second.members[second.next++];
    try {
      if (a.kind != b.kind) {
        differences_.addKind(place, isStore(a));
      } else if (isStore(a)) {
        descend(first.store.openStore(a.name), second.store.openStore(a.name), place);
      } else {
        hxcrate::Reader firstItem = first.store.read(a.name);
        hxcrate::Reader secondItem = second.store.read(a.name);
        firstLimit_.require(firstBytes_ += firstItem.size());
        secondLimit_.require(secondBytes_ += secondItem.size());
        compareItems(place, std::move(firstItem), std::move(secondItem));
      }
    } catch (const hxcrate::Error& error) {
      complain(error);
      outcome_ = worse(outcome_, exitCodeOf(error));
    } catch (const Failure& failure) {
      failure.print();
      outcome_ = worse(outcome_, failure.code());
      levels_.clear();  // each item that follows could be as long
    }
  }

  // An item that ends where the other goes on differs at its end.
  void compareItems(const std::string& place, hxcrate::Reader first, hxcrate::Reader second) {
    std::int64_t offset = 0;
    while (true) {
      std::exception_ptr failure;
      const std::size_t firstCount = fill(firstBuffer_, first, failure);
      const std::size_t secondCount = fill(secondBuffer_, second, failure);
      const std::size_t common = std::min(firstCount, secondCount);
      const auto end = firstBuffer_.begin() + static_cast<std::ptrdiff_t>(common);
      const auto place1 = std::mismatch(firstBuffer_.begin(), end, secondBuffer_.begin()).first;
      const bool differs = place1 != end || (firstCount != secondCount && !failure);
      if (differs) differences_.addContents(place, offset + (place1 - firstBuffer_.begin()));
      if (failure) std::rethrow_exception(failure);
      if (differs || common == 0) return;
      offset += static_cast<std::int64_t>(common);
    }
  }

  // Up to the end of the item, or to what can't be read, before which a read may stop short.
  static std::size_t fill(std::span<std::byte> buffer, hxcrate::Reader& reader,
                          std::exception_ptr& failure) {
    std::size_t count = 0;
    try {
      while (const std::size_t more = reader.read(buffer.subspan(count)))
        count += more;
    } catch (const hxcrate::Error&) {
      failure = std::current_exception();
    }
    return count;
  }

  const Selection selection_;
  hxcrate::Session session_;
  ExitCode outcome_ = ExitCode::fine;
  Differences differences_;
  const OwnBytes firstLimit_;
  const OwnBytes secondLimit_;
  std::int64_t firstBytes_ = 0;
  std::int64_t secondBytes_ = 0;
  std::vector<Level> levels_;
  std::string place_;
  std::vector<std::byte> firstBuffer_ = std::vector<std::byte>(kBufferSize);
  std::vector<std::byte> secondBuffer_ = std::vector<std::byte>(kBufferSize);
};

}  // namespace

void addDiff(CommandLine& line) {
  const auto options = std::make_shared<DiffOptions>();
  CLI::App& words = line.add("diff", "Tell how the contents of the stores A and B differ",
                             "  hxcrate diff monday.st tuesday.st", [options] {
                               const ExitCode outcome = Comparison(*options).compare();
                               const ExitCode first =
                                   seeLostMembers(options->first, ExitCode::fine);
                               return worse(outcome, seeLostMembers(options->second, first));
                             });
  addFile(words, "A", options->first, "a store file");
  addFile(words, "B", options->second, "another");
  words.add_flag("--json", options->asJson, "as JSON");
  addSelection(words, options->selected);
  addWait(words, options->wait);
}

}  // namespace tool
