// What is measured. A case is one workload at one size; it yields a figure for each of its metrics.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "bench/run.h"

namespace bench {

// How a time becomes a figure: amount / seconds / factor for a rate, else seconds x factor /
// amount.
struct Unit {
  const char* name;
  double factor;
  bool isRate;
};

constexpr Unit kMegabytesPerSecond{"MB/s", 1e6, true};
constexpr Unit kMillionsPerSecond{"M/s", 1e6, true};
constexpr Unit kNanosecondsEach{"ns each", 1e9, false};
constexpr Unit kMicrosecondsEach{"us each", 1e6, false};
constexpr Unit kMilliseconds{"ms", 1e3, false};

struct Metric {
  std::string id;  // "c-100000-off"
  std::string title;
  Unit unit;
  double amount;  // bytes, items or repetitions in one measured time

  double figure(double seconds) const {
    return unit.isRate ? amount / seconds / unit.factor : seconds * unit.factor / amount;
  }
};

struct Case {
  char workload;
  std::vector<Metric> metrics;
  std::function<void(const Run&)> body;  // measures as many times, in that order
  // Its files have gigabytes. When they go, a virtual machine gives so much memory back to its host
  // that whoever takes memory next waits ten times as long for it; so it runs behind all others.
  bool leavesMemoryCold = false;
};

// How much of everything.
struct Scale {
  std::size_t largeBytes = 256 << 20;
  std::size_t threadBytes = 128 << 20;                                // of each item
  std::size_t randomBytes = 1 << 30;                                  // of the item read anywhere
  std::size_t randomReads = 100000;                                   // by each thread
  std::vector<std::size_t> created = {1000, 10000, 100000, 1000000};  // items
  std::size_t stored = 100000;                                        // in what is opened
  std::size_t nestedSide = 37;                                        // its cube is made
  std::size_t imageItems = 1000;                                      // of 64 KiB
  std::size_t treeFiles = 1000000;                                    // packed at most
  std::vector<std::size_t> grown = {10000, 100000, 1000000};

  static Scale quick();
};

struct WorkloadInfo {
  char letter;
  const char* title;
  const char* covers;  // what the figure includes
};
const std::vector<WorkloadInfo>& workloads();

// Those of the workloads in `letters`.
std::vector<Case> makeCases(const Scale& scale, const std::string& letters);

// One function for each group of workloads, which appends its cases.
void addLargeCases(const Scale& scale, std::vector<Case>& cases);     // a b i
void addAnywhereCases(const Scale& scale, std::vector<Case>& cases);  // m
void addSmallCases(const Scale& scale, std::vector<Case>& cases);     // c d e f g o
void addImageCases(const Scale& scale, std::vector<Case>& cases);     // h
void addNestedCases(const Scale& scale, std::vector<Case>& cases);    // k
void addArchiveCases(const Scale& scale, std::vector<Case>& cases);   // l
void addGrowthCases(const Scale& scale, std::vector<Case>& cases);    // n

}  // namespace bench
