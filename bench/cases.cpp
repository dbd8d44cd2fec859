#include "bench/cases.h"

#include <algorithm>

namespace bench {

Scale Scale::quick() {
  Scale scale;
  scale.largeBytes = 4 << 20;
  scale.threadBytes = 4 << 20;
  scale.randomBytes = 256 << 20;
  scale.randomReads = 1000;
  scale.created = {100, 1000};
  scale.stored = 1000;
  scale.nestedSide = 5;
  scale.imageItems = 50;
  scale.treeFiles = 200;
  scale.grown = {100, 1000};
  return scale;
}

const std::vector<WorkloadInfo>& workloads() {
  static const std::vector<WorkloadInfo> all = {
      {'a', "One large item appended in calls of 64 KiB",
       "session, making the file, writing, commit, closing"},
      {'b', "The large item read in calls of 64 KiB, page cache warm",
       "session, opening, reading, closing"},
      {'c', "Items of 100 bytes created and committed",
       "session, making the file, items in the order of their names, commit, closing"},
      {'d', "A store opened and one of its items read",
       "opening, reading, closing; the first time with the session, then without"},
      {'e', "All items read by name in random order", "reading alone, once, just opened"},
      {'f', "All names enumerated", "enumerating alone, once, just opened"},
      {'g', "One item added to a store and committed",
       "opening, adding, commit; the first time with the session, then without"},
      {'h', "A store in memory made one buffer, and that opened and read",
       "made: the buffer alone, the items are there; read: opening, every item"},
      {'i', "Two threads read a large item each", "opening, reading, closing"},
      {'k', "Nested stores with an item each, made and walked",
       "made: all as in c; walked: session, opening, naming every member, closing"},
      {'l', "A tree of files packed and unpacked by the command", "the whole process"},
      {'m', "A large item read at any place, page cache warm",
       "64 KiB: session, opening, reading, closing; at random: reading alone, the item is open and "
       "its length is known"},
      {'n', "Growth: what an item costs among more and more",
       "create: all as in c; find and enumerate as in e and f"},
      {'o', "The sizes of all items listed", "listing alone, of an open store, the second time"},
  };
  return all;
}

std::vector<Case> makeCases(const Scale& scale, const std::string& letters) {
  std::vector<Case> all;
  addLargeCases(scale, all);
  addAnywhereCases(scale, all);
  addSmallCases(scale, all);
  addImageCases(scale, all);
  addNestedCases(scale, all);
  addArchiveCases(scale, all);
  addGrowthCases(scale, all);
  std::vector<Case> wanted;
  for (Case& one : all)
    if (letters.find(one.workload) != std::string::npos) wanted.push_back(std::move(one));
  std::stable_sort(wanted.begin(), wanted.end(), [](const Case& left, const Case& right) {
    return left.workload < right.workload;
  });
  return wanted;
}

}  // namespace bench
