// Updaters, readers, abandoners and replacers of one store file, in several processes with several
// threads each. `./dev stress` does it for as long as it is told.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <hxcrate/crate.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "tests/temporary_directory.h"

namespace hxcrate {

namespace {

constexpr int kProcesses = 3;
constexpr int kUpdaters = 2 * kProcesses;  // threads, each with an item of its own
constexpr std::int64_t kUpdatesInAGeneration = std::int64_t{1} << 32;

// What was acknowledged, for all processes to see. A replacing begins a new generation; of an
// updater: the generation and the number of its updates there.
struct Acknowledged {
  std::atomic<std::int64_t> generation;
  std::array<std::atomic<std::int64_t>, kUpdaters> updates;
  std::atomic<std::int64_t> count;
  std::atomic<bool> isOver;
};

// Updates are numbers, one behind the other.
std::vector<std::int64_t> numbersOf(const Store& store, const std::string& name) {
  std::error_code error;
  Reader reader = store.read(name, error);
  if (error == Errc::notFound) return {};
  if (error) throw Error(errcOf(error), store.path(), name);
  return reader.readArray<std::int64_t>();
}

[[noreturn]] void complain(const std::string& what) {
  throw std::runtime_error(what);
}

class Worker {
 public:
  Worker(Session& session, const std::string& path, Acknowledged& acknowledged, int number)
      : session_(session),
        path_(path),
        acknowledged_(acknowledged),
        number_(static_cast<std::size_t>(number)) {}

  void update(int round) {
    std::optional<Store> store = open(Mode::update);
    if (!store) return;
    for (int commits = round % 3; commits >= 0; --commits) {
      const std::int64_t number = appendNumber(*store);
      commits > 0 ? store->commit() : store->close();
      acknowledged_.updates.at(number_) = generation_ * kUpdatesInAGeneration + number;
      ++acknowledged_.count;
    }
  }

  // By a call, or by an exception.
  void abandon(int round) try {
    std::optional<Store> store = open(Mode::update);
    if (!store) return;
    Writer writer = store->append("u" + std::to_string(number_));
    writer.write(std::string(round % 2 == 0 ? 8 : 100000, '\xff'));
    if (round % 3 == 0) throw round;
    store->abandon();
  } catch (int) {
  }

  void replace() {
    std::optional<Store> store = open(Mode::replace);
    if (!store) return;
    const std::int64_t next = acknowledged_.generation + 1;
    store->create("generation").write(std::as_bytes(std::span(&next, 1)));
    store->close();
    acknowledged_.generation = next;
    ++acknowledged_.count;
  }

  // What was acknowledged before the open is there, whole, and nothing that was abandoned.
  void read() {
    const std::int64_t least = acknowledged_.generation;
    std::array<std::int64_t, kUpdaters> updates;
    for (std::size_t i = 0; i < kUpdaters; ++i)
      updates[i] = acknowledged_.updates[i];
    std::optional<Store> store = open(Mode::read);
    if (!store) return;
    if (generation_ < least) complain("a generation was lost");
    for (std::size_t i = 0; i < kUpdaters; ++i) {
      const std::vector<std::int64_t> numbers = numbersOf(*store, "u" + std::to_string(i));
      for (std::size_t n = 0; n < numbers.size(); ++n)
        if (numbers[n] != static_cast<std::int64_t>(n) + 1)
          complain("a number that nobody committed");
      const bool isOfThis = updates[i] / kUpdatesInAGeneration == generation_;
      if (isOfThis && updates[i] % kUpdatesInAGeneration > std::ssize(numbers)) {
        complain("a commit was lost");
      }
    }
  }

 private:
  // Nothing in the moment in which a replacer has removed the file, or, where no file gets its name
  // locked, made one that is empty still.
  std::optional<Store> open(Mode mode) {
    std::error_code error;
    Store store = session_.open(path_, mode, error);
    if (error == Errc::notFound || (showsEmptyFiles_ && error == Errc::notAStore))
      return std::nullopt;
    if (error) complain("open: " + error.message());
    if (mode == Mode::replace) return store;
    const std::vector<std::int64_t> generation = numbersOf(store, "generation");
    if (generation.size() != 1) complain("no generation");
    generation_ = generation[0];
    return store;
  }

  std::int64_t appendNumber(Store& store) {
    Writer writer = store.append("u" + std::to_string(number_));
    const std::int64_t number = writer.size() / 8 + 1;
    writer.write(std::as_bytes(std::span(&number, 1)));
    return number;
  }

  Session& session_;
  const std::string& path_;
  Acknowledged& acknowledged_;
  const std::size_t number_;
  const bool showsEmptyFiles_ =
      ::open(path_.substr(0, path_.rfind('/')).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600) < 0;
  std::int64_t generation_ = 0;
};

// The replacer is one thread of all, so that generations have an order.
void work(Worker worker, bool mayReplace, const Acknowledged& acknowledged) try {
  for (int round = 0; !acknowledged.isOver; ++round) {
    worker.update(round);
    worker.read();
    if (round % 4 == 1) worker.abandon(round);
    if (mayReplace && round % 16 == 15) worker.replace();
  }
} catch (const std::exception& error) {
  std::fprintf(stderr, "%s\n", error.what());
  std::_Exit(1);
}

void runProcess(const std::string& path, Acknowledged& acknowledged, int process) {
  Session session({.durability = Durability::none, .lockWait = std::chrono::seconds(30)});
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&, i] {
      work(Worker(session, path, acknowledged, 2 * process + i), process + i == 0, acknowledged);
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

TEST(Stress, NoCommitIsLostAndNothingStaleIsRead) {
  const hxtest::TemporaryDirectory directory;
  const std::string path = directory / "x.st";
  const char* wanted = std::getenv("HX_STRESS_SECONDS");  // NOLINT(concurrency-mt-unsafe)
  const int seconds = wanted != nullptr ? std::atoi(wanted) : 1;
  void* shared = ::mmap(nullptr, sizeof(Acknowledged), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(shared, MAP_FAILED);
  auto* acknowledged = new (shared) Acknowledged{};
  {
    Session session;
    Store store = session.open(path, Mode::create);
    const std::int64_t first = 0;
    store.create("generation").write(std::as_bytes(std::span(&first, 1)));
    store.close();
  }
  std::vector<pid_t> processes;
  for (int i = 0; i < kProcesses; ++i) {
    const pid_t process = ::fork();
    if (process == 0) {
      ::alarm(static_cast<unsigned>(seconds) + 60);  // a deadlock ends by this
      runProcess(path, *acknowledged, i);
      std::_Exit(0);
    }
    processes.push_back(process);
  }
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  acknowledged->isOver = true;
  for (const pid_t process : processes) {
    int status = 0;
    ASSERT_EQ(::waitpid(process, &status, 0), process);
    EXPECT_EQ(status, 0);
  }
  std::printf("%ld commits, %ld of them replacings\n", acknowledged->count.load(),
              acknowledged->generation.load());
  EXPECT_GT(acknowledged->count, 10);
  ::munmap(shared, sizeof(Acknowledged));
}

}  // namespace

}  // namespace hxcrate
