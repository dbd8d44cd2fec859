#include "host/linux/replacement.h"

#include <cerrno>

namespace hxhost {

Replacement::~Replacement() {
  if (!name_.empty()) ops_.remove(replaced_.directory.number(), name_, file_.number());
}

int Replacement::create() {
  const int number = ops_.createUnfinished(replaced_.directory.number(), name_);
  if (number < 0) return -number;
  file_ = Descriptor(ops_, number);
  return ops_.copyAccess(replaced_.descriptor.number(), number);
}

// First the bytes; also that a journal of the other is gone, which would be a stranger's to this.
// Nobody makes one of this before its name is on disk, where it would be a stranger's to the other:
// until its descriptor is closed it is locked.
int Replacement::deliver(Durability durability, bool& hasHappened) {
  const int directory = replaced_.directory.number();
  const bool isFull = durability == Durability::full;
  int error = isFull ? ops_.sync(file_.number()) : 0;
  if (error == 0 && isFull) error = ops_.syncDirectory(directory);
  if (error == 0) error = ops_.lock(file_.number(), LockPart::kBytes, LockKind::kExclusive);
  if (error != 0) return error;
  FileInfo there{};
  error = ops_.inspectName(directory, nameOf(replaced_.path), there);
  if (error == 0 && !isSameFile(there, replaced_.info)) error = ESTALE;
  if (error == 0) error = ops_.replace(directory, name_, file_.number(), nameOf(replaced_.path));
  if (error != 0) return error;
  name_.clear();
  hasHappened = true;
  return isFull ? ops_.syncDirectory(directory) : 0;
}

}  // namespace hxhost
