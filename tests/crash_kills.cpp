#include "tests/crash_kills.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "tests/crash_session.h"
#include "tests/temporary_directory.h"

namespace hxtest {
namespace {

// Small pages, so that an update spans several blocks of the file.
constexpr int32_t kPageSize = 256;
constexpr int kAdded = 700;  // bytes an update adds to its item

// The store after that many updates: each adds to one of three items, every fourth a new one.
void update(CrashSession& session, hx::Store* store, int64_t number) {
  store->setPageSize(store, kPageSize);
  const std::string bytes(kAdded, static_cast<char>('a' + number % 26));
  session.append(store, "item" + std::to_string(number % 3), bytes);
  if (number % 4 == 0) session.append(store, "nested/" + std::to_string(number), "x");
}

// Updates until it is killed. Says through the pipe when an update is complete.
[[noreturn]] void updateForEver(const hxhost::HostOptions& options, const std::u32string& path,
                                int64_t number, int pipe) {
  CrashSession session(options);
  for (;; ++number) {
    hx::Store* store = session.open(path, hx::kUpdate | hx::kCreate);
    if (store == nullptr) ::_exit(2);
    update(session, store, number);
    session.close(store);
    if (session.host.takeFileFailure() || ::write(pipe, "+", 1) != 1) ::_exit(3);
  }
}

// Forks an updater and kills it after that time. The updates that it announced, -1 when it ended by
// itself.
int64_t runUntilKilled(const hxhost::HostOptions& options, const std::u32string& path,
                       int64_t number, std::chrono::microseconds time) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  const pid_t child = ::fork();
  if (child == 0) updateForEver(options, path, number, ends[1]);
  ::close(ends[1]);
  std::this_thread::sleep_for(time);
  if (child > 0) ::kill(child, SIGKILL);
  int64_t announced = 0;
  char byte;
  while (::read(ends[0], &byte, 1) == 1)
    ++announced;
  ::close(ends[0]);
  int status = 0;
  const bool wasKilled = child > 0 && ::waitpid(child, &status, 0) == child && WIFSIGNALED(status);
  return wasKilled ? announced : -1;
}

// Which state of the updates the store is in.
class Expectation {
 public:
  explicit Expectation(const std::string& path) : session_({}), path_(path.begin(), path.end()) {}

  // What the store holds after `count` updates, made by a process that nobody kills.
  std::string after(int64_t count) {
    for (; done_ < count; ++done_) {
      hx::Store* store = session_.open(path_, hx::kUpdate | hx::kCreate);
      update(session_, store, done_);
      session_.close(store);
    }
    return session_.look(path_);
  }

 private:
  static hxhost::HostOptions withoutSyncs() {
    hxhost::HostOptions options;
    options.durability = hxhost::Durability::none;
    return options;
  }

  CrashSession session_;
  std::u32string path_;
  int64_t done_ = 0;
};

}  // namespace

KillReport killUpdaters(int kills, hxhost::Durability durability, unsigned seed) {
  const TemporaryDirectory directory;
  const std::string file = directory / "killed";
  const std::u32string path(file.begin(), file.end());
  hxhost::HostOptions options;
  options.durability = durability;
  options.cacheBytesPerFile = 4096;
  Expectation expected(directory / "expected");
  const unsigned longest = durability == hxhost::Durability::full ? 80000 : 20000;
  std::mt19937 random(seed);
  KillReport report;
  int64_t complete = 0;
  for (; report.kills < static_cast<uint64_t>(kills); ++report.kills) {
    const int64_t announced =
        runUntilKilled(options, path, complete, std::chrono::microseconds(random() % longest));
    complete += announced;
    report.rolledBack += std::filesystem::exists(file + "-journal");
    const std::string found = CrashSession(options).look(path);
    const bool isLast = found == expected.after(complete);
    const bool isNext = !isLast && found == expected.after(complete + 1);
    complete += isNext;
    if (announced >= 0 && (isLast || isNext)) continue;
    ++report.failures;
    report.firstFailure = "after " + std::to_string(complete) + " updates, seed " +
                          std::to_string(seed) + ": " + found.substr(0, 200);
    return report;
  }
  report.updates = static_cast<uint64_t>(complete);
  return report;
}

}  // namespace hxtest
