// Session::rewrite: a store file written anew beside itself, which then takes its place.
#include <algorithm>
#include <utility>
#include <vector>

#include "engine.h"
#include "host/linux/replacement.h"
#include "hxcrate/session.hpp"
#include "opening.h"

namespace hxcrate {

namespace {

constexpr std::size_t kPiece = std::size_t{256} << 10;

// Copies what stays of one store into another, by the order of the names: so the new file depends
// on nothing else.
class MemberCopy {
 public:
  MemberCopy(const Store& source, Store& target, const RewriteOptions& options)
      : source_(source), options_(options), buffer_(kPiece) {
    open_.push_back({"", &target, {}});
  }

  void run() {
    requireListed(source_, "");
    for (const ListedMember& member : source_.list("", {.isSorted = true})) {
      const bool isInDropped = !dropped_.empty() && member.path.starts_with(dropped_);
      if (isInDropped) continue;
      if (options_.keeps && !options_.keeps(member)) {
        dropped_ = member.path + "/";
      } else {
        copy(member);
      }
    }
  }

 private:
  struct OpenStore {
    std::string prefix;  // of the paths in it, as they were
    Store* store;        // of the new file
    std::unique_ptr<Store> owned;
  };

  void copy(const ListedMember& member) {
    while (!member.path.starts_with(open_.back().prefix))
      open_.pop_back();
    const std::string name = nameOf(member);
    Store& container = *open_.back().store;
    if (member.kind == MemberKind::item) return copyItem(member.path, container.create(name));
    requireListed(source_.openStore(member.path), member.path);
    auto nested = std::make_unique<Store>(container.createStore(name));
    Store* const store = nested.get();
    open_.push_back({member.path + "/", store, std::move(nested)});
  }

  std::string nameOf(const ListedMember& member) const {
    if (!options_.rename) return member.path.substr(open_.back().prefix.size());
    std::string name = options_.rename(member);
    if (name.find('/') != name.npos) refuse(Errc::badName, member, "its new name holds a \"/\"");
    if (open_.back().store->exists(name)) refuse(Errc::exists, member, "as " + name);
    return name;
  }

  void requireListed(const Store& store, const std::string& path) const {
    if (store.countHidden() == 0) return;
    throw Error(Errc::damaged, source_.path(), path, "it has members that no listing shows");
  }

  [[noreturn]] void refuse(Errc code, const ListedMember& member, const std::string& why) const {
    throw Error(code, source_.path(), member.path, why);
  }

  void copyItem(const std::string& path, Writer writer) {
    Reader reader = source_.read(path);
    while (const std::size_t count = reader.read(buffer_))
      writer.write(std::span(buffer_).first(count));
    writer.close();
  }

  const Store& source_;
  const RewriteOptions& options_;
  std::vector<std::byte> buffer_;
  std::vector<OpenStore> open_;  // from the whole store on down
  std::string dropped_;          // how the paths in the store begin that was left out last
};

[[noreturn]] void fail(const std::string& path, const char* operation, int error,
                       bool hasHappened) {
  const std::error_code reason(error, std::system_category());
  throw Error(Errc::fileFailed, path, "",
              FileFailure{operation, path, -1, reason, !hasHappened, hasHappened});
}

}  // namespace

// The update of the file that nobody makes keeps everybody else away from it.
void Session::rewrite(const FilePath& path, const RewriteOptions& options) {
  const Store source = open(path, Mode::update, {.lockWait = options.lockWait});
  const hxhost::OpenedFile old = source.opening_->openedFile();
  hxhost::Replacement replacement(old.ops, old.file);
  if (const int error = replacement.create()) fail(path.text(), "make its new file", error, false);
  const std::int32_t pageSize = options.pageSize != 0 ? options.pageSize : source.pageSize();
  Store target = createIn(replacement.number(), path, {.pageSize = pageSize},
                          Durability::none);  // it is synced below, as a whole
  MemberCopy(source, target, options).run();
  target.close();
  source.opening_->abandon();  // its close would write a directory, and a journal of the old file
  bool hasHappened = false;
  const auto durability = engine()->options().durability == Durability::full
                              ? hxhost::Durability::full
                              : hxhost::Durability::none;
  const int error = replacement.deliver(durability, hasHappened);
  if (error != 0) fail(path.text(), "replace", error, hasHappened);
}

}  // namespace hxcrate
