#include "host/linux/failure_log.h"

#include <algorithm>
#include <new>
#include <utility>

namespace hxhost {
namespace {

constexpr size_t kMostKept = 64;

}  // namespace

FailureTicket FailureLog::record(FailureTicket failure, std::string_view path) noexcept try {
  const std::lock_guard guard(mutex_);
  failure.number = ++count_;
  // The names of operations are short enough to need no memory.
  entries_.push_back(
      {failure.number, {failure.error, failure.operation, failure.offset, {}, false}});
  if (entries_.size() > kMostKept) entries_.pop_front();
  entries_.back().failure.path = path;
  return failure;
} catch (const std::bad_alloc&) {
  return failure;
}

void FailureLog::conclude(const FailureTicket& ticket, std::string_view path,
                          bool rolledBack) noexcept {
  if (markRolledBack(ticket, rolledBack)) return;
  markRolledBack(record(ticket, path), rolledBack);
}

bool FailureLog::markRolledBack(const FailureTicket& ticket, bool rolledBack) noexcept {
  const std::lock_guard guard(mutex_);
  const auto entry = find(ticket);
  if (entry == entries_.end()) return false;
  entry->failure.rolledBack = rolledBack;
  return true;
}

bool FailureLog::holds(const FailureTicket& ticket) noexcept {
  const std::lock_guard guard(mutex_);
  return find(ticket) != entries_.end();
}

std::optional<FileFailure> FailureLog::take() {
  const std::lock_guard guard(mutex_);
  return take(entries_.begin());
}

std::optional<FileFailure> FailureLog::take(std::string_view path) {
  const std::lock_guard guard(mutex_);
  return take(std::find_if(entries_.begin(), entries_.end(),
                           [&](const Entry& entry) { return entry.failure.path == path; }));
}

std::list<FailureLog::Entry>::iterator FailureLog::find(const FailureTicket& ticket) {
  return std::find_if(entries_.begin(), entries_.end(),
                      [&](const Entry& entry) { return entry.number == ticket.number; });
}

std::optional<FileFailure> FailureLog::take(std::list<Entry>::iterator entry) {
  if (entry == entries_.end()) return std::nullopt;
  std::optional<FileFailure> taken(std::move(entry->failure));
  entries_.erase(entry);
  return taken;
}

}  // namespace hxhost
