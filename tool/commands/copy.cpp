// hxcrate copy: a store's contents in a new file, without what is unused.

#include <memory>
#include <string>
#include <vector>

#include "tool/command_line.h"
#include "tool/files/byte_pump.h"
#include "tool/files/copied_file.h"
#include "tool/files/inspected_store.h"
#include "tool/files/new_store.h"
#include "tool/files/write_limits.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

struct CopyOptions {
  std::string store;
  std::string target;
  SelectionOptions selected;
  std::int64_t maxBytes = kUnlimited;
  std::int64_t wait = 0;  // seconds
  bool dryRun = false;
  NewStore::Options made;
};

// Goes into every store that it gives, in the order of the names, so that the copy depends on
// nothing else.
class KeptMembers {
 public:
  KeptMembers(const Selection& selection, hxcrate::Store start)
      : walk_(std::move(start), &selection) {}

  StoreWalk::Event next() {
    if (isStore_) walk_.enter();
    const StoreWalk::Event event = walk_.next();
    isStore_ = event == StoreWalk::Event::store;
    return event;
  }

  const StoreWalk& walk() const { return walk_; }

 private:
  StoreWalk walk_;
  bool isStore_ = false;
};

SizeForecast forecastOf(KeptMembers members, const OwnBytes& limit) {
  SizeForecast forecast;
  for (auto event = members.next(); event != StoreWalk::Event::end; event = members.next()) {
    if (event == StoreWalk::Event::store) forecast.addStore();
    if (event == StoreWalk::Event::item) forecast.addItem(members.walk().itemSize());
    limit.require(members.walk().container(), forecast.bytes());
  }
  return forecast;
}

void copyMembers(KeptMembers members, hxcrate::Store& target, Progress& progress) {
  StoreBuilder builder(target);
  BytePump pump(&progress);
  for (auto event = members.next(); event != StoreWalk::Event::end; event = members.next()) {
    throwIfInterrupted();
    if (event == StoreWalk::Event::leave) {
      builder.leave();
    } else if (event == StoreWalk::Event::store) {
      builder.enter(members.walk().name());
    } else {
      hxcrate::Reader reader = members.walk().container().read(members.walk().name());
      hxcrate::Writer writer = builder.create(members.walk().name());
      pump.move(BytePump::kEverything, takeFrom(reader), giveTo(writer));
      writer.close();
    }
  }
}

// All or nothing: what can't be read whole is not copied.
ExitCode copy(const CopyOptions& options) {
  const NewStore target(options.target);
  const CopiedFile source(options.store);
  NewStore::Options made = options.made;
  made.copyOf = source.rights();
  hxcrate::Session session(waitingFor(options.wait));
  const hxcrate::Store held = session.open(options.store);  // read twice, and the same both times
  const Selection selection(options.selected);
  const auto members = [&] {
    return KeptMembers(selection, source.require(session.open(options.store)));
  };
  const SizeForecast forecast = forecastOf(members(), OwnBytes(options.maxBytes));
  if (options.dryRun) {
    target.announce(forecast, made);
    return ExitCode::fine;
  }
  Progress progress("copying");
  progress.expect(forecast.bytes(), forecast.items());
  target.make(forecast, made,
              [&](hxcrate::Store& store) { copyMembers(members(), store, progress); });
  return ExitCode::fine;
}

}  // namespace

void addCopy(CommandLine& line) {
  const auto options = std::make_shared<CopyOptions>();
  CLI::App& words =
      line.add("copy", "Copy what STORE holds into the new file NEW, without unused space",
               "  hxcrate copy docs.st small.st\n"
               "  hxcrate copy --encoding hxmok1/be/utf-8 docs.st foreign.st\n"
               "  hxcrate copy --for reading docs.st /var/www/html/docs.st\n"
               "  hxcrate copy --exclude 'images/*' --exclude '*.bak' docs.st text.st",
               [options] { return seeLostMembers(options->store, copy(*options)); });
  explain(words,
          "The bytes of items stay what they are, whatever the encoding: numbers in them keep the\n"
          "order of bytes that they were written in.");
  addStore(words, options->store);
  addFile(words, "NEW", options->target, "the store file to make");
  addPageSize(words, options->made.pageSize, kPageSizeMeaning);
  addEncoding(words, options->made.encoding, "as a machine of this encoding would write it");
  words
      .add_option("--for", options->made.use,
                  "\"reading\": all records in front, for reading far away")
      ->check(CLI::IsMember({"reading"}))
      ->type_name("USE");
  addSelection(words, options->selected);
  addCount(words, "--max-bytes", options->maxBytes, "refuse to copy more bytes of items");
  addWait(words, options->wait);
  addDryRun(words, options->dryRun);
}

}  // namespace tool
