// The notation of the stories in tests/stories, and of the scripts in the tests of the module.
//
// A story begins with its title, which stands at the start of a line. The lines below it are
// indented and are its steps: one line is what is done and what it shows, in up to three statements
// with ";" between them. "#" begins a comment. The steps above the first title of a file come
// before each of its stories; a line "--" ends what comes before the faults of a story.
//
// A statement is a verb with what it is told and, behind "->", what it shows: a number, the name of
// a status as in records/status.h, or the names in a list. It succeeds, and reads and writes all
// that it is told to, unless it shows a status. What is not shown is not compared.
//
// Stores and items are named by a path: "x" is the store at the path x (a capital letter names a
// blob), "x:n/a" the path n/a inside it, "x:n:a" the path a inside its nested store n, ":x/a" the
// path x/a inside no store. "c*63" stands for 63 times c. Flags are letters: Read, Update, Create,
// rePlace, eXclusive, No file, "-" for none.
//
//   open STORE FLAGS       number: the openCount that comes of it
//   close STORE            number: the openCount that is left; so has "delete STORE"
//   pagesize STORE N       sets its page size
//   list STORE             its members' names in order, stores with "/"; number: of them
//   tree STORE             everything in it is as the model says
//   item H ITEM FLAGS      opens an item with the handle H; number: the item's openCount
//   shut H                 closes the handle; number: the lock's answer
//   write H N, read H N    number: the bytes taken or delivered; so has "convert H N". For H an
//                          item's path may stand, which is opened for that, and read to its end
//   pages H                number: the item's pages in memory
//   blob STORE B           makes a blob of a store; "load B FLAGS" opens one
//   copy TO FROM           between files and blobs; "foreign TO FROM": as the other machine's
//   size FILE              number: its length, -1 when there is none
//   grow FILE N            N bytes more at its end, or fewer
//   set FILE FIELD N       a field of a record in it, named as in setNamedField
//   mark                   begins to count what the host is called for
//   count CALL [LENGTH]    number: of such calls since the mark
//   fail CALL N [onwards]  the host's Nth call from now on fails, or all from there on
//   heal                   none does any more
//   refuse STATUS          what the host answers when it is to remove a file
//   deliver N              its reads deliver at most N bytes
//   restart                ends the instance and begins a new one
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace hx::fake {

using Words = std::vector<std::string>;

struct Statement {
  std::string text;
  std::string file;  // where it stands
  int line;
  Words words = {};  // the verb and what it is told; at least four, the last may be empty
  int32_t status = 0;
  std::optional<int64_t> number = std::nullopt;
  Words names = {};
};

using Script = std::vector<Statement>;

struct Story {
  std::string title;
  std::string file;
  int line;
  Script before;
  Script steps;
};

Script parse(const std::string& line, const std::string& file, int number);
// Those of a file in tests/stories; throws when it has none, or more than a step in a line.
std::vector<Story> storiesIn(const std::string& file);

int32_t statusOf(const std::string& word);  // its name, or a number
std::optional<std::string> nameOfStatus(int32_t status);

}  // namespace hx::fake
