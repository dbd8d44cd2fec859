// How members are gone through.
#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <utility>

namespace hxcrate {

// An input iterator over what a walk shows, one after the other. Holds the store as well, wherever
// that is moved. Movable, not copyable; what was moved from is at the end, where ++ does nothing.
template <typename Value, typename Walk>
class ShownIterator {
 public:
  using value_type = Value;
  using difference_type = std::ptrdiff_t;
  using iterator_concept = std::input_iterator_tag;

  ShownIterator(ShownIterator&&) noexcept = default;
  ShownIterator& operator=(ShownIterator&&) noexcept = default;

  // Stays until the iterator moves on, and is its own: copy what is to stay longer.
  const Value& operator*() const& noexcept { return shown_; }
  const Value* operator->() const& noexcept { return &shown_; }
  const Value& operator*() const&& = delete;
  const Value* operator->() const&& = delete;
  ShownIterator& operator++() {
    if (walk_ != nullptr && !showNext(*walk_, shown_)) walk_.reset();
    return *this;
  }
  void operator++(int) { ++*this; }
  bool operator==(std::default_sentinel_t) const noexcept { return walk_ == nullptr; }

 private:
  friend class Listing;
  friend class MemberRange;
  explicit ShownIterator(std::shared_ptr<Walk> walk) : walk_(std::move(walk)) { ++*this; }

  std::shared_ptr<Walk> walk_;  // nobody else's; null at the end
  Value shown_{};
};

}  // namespace hxcrate
