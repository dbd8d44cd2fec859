// Items as Python holds them: for reading at any place, and for writing at their end.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <hxcrate/crate.hpp>
#include <memory>
#include <span>
#include <string_view>

#include "held_tree.h"

namespace hxpython {

namespace py = pybind11;

// Opens what it stands for itself; so do the others.
class ViewHandle final : public Handle {
 public:
  ViewHandle(std::shared_ptr<HeldTree> tree, hxcrate::View view)
      : Handle(std::move(tree)), view_(std::make_shared<hxcrate::View>(std::move(view))) {
    enlist();
  }
  ~ViewHandle() override {
    if (!retire()) leak(std::move(view_));
  }

  std::int64_t size() const;
  std::string path() const;
  std::size_t readInto(std::span<std::byte> buffer, std::int64_t offset) const;
  // `count` bytes from there on, or as many as there are; below 0: all of them.
  py::bytes read(std::int64_t count, std::int64_t offset) const;

  bool isOpen() const;
  // Throws BufferError while a page of it is in use.
  void close();

  // The pages of an item that lies in memory, each a memoryview.
  py::list pages() const;
  // The memoryview of one that lies there in one piece, or None.
  py::object contiguous() const;

 private:
  void shut() noexcept override;
  hxcrate::View& view() const;  // throws closed
  py::object expose(std::span<const std::byte> page) const;

  std::shared_ptr<hxcrate::View> view_;  // shared with the pages that are in use
  bool isShut_ = false;                  // where those keep it open
};

// A page that memoryviews show. Keeps the view, and what the bytes lie in, for as long.
class Page {
 public:
  Page(std::shared_ptr<HeldTree> tree, std::shared_ptr<hxcrate::View> view,
       std::span<const std::byte> bytes)
      : tree_(std::move(tree)), view_(std::move(view)), bytes_(bytes) {}
  ~Page();
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;

  std::span<const std::byte> bytes() const { return bytes_; }

 private:
  std::shared_ptr<HeldTree> tree_;
  std::shared_ptr<hxcrate::View> view_;
  std::span<const std::byte> bytes_;
};

class WriterHandle final : public Handle {
 public:
  WriterHandle(std::shared_ptr<HeldTree> tree, hxcrate::Writer writer)
      : Handle(std::move(tree)), writer_(std::move(writer)) {
    enlist();
  }
  ~WriterHandle() override {
    if (!retire()) leak(std::move(writer_));
  }

  // Returns how many bytes that were: all of them.
  std::size_t write(py::handle buffer);
  std::int64_t size() const;
  bool isOpen() const;
  void close();

 private:
  void shut() noexcept override;
  bool isWriting() const noexcept override { return writer_.isOpen(); }

  hxcrate::Writer writer_;
};

// How another process opens it: path, whether it is mapped and accepts damage, and the `place` in
// it; None: a store in memory, or one that is open for update, is this process's alone.
py::object describeReopening(const Handle& self, const std::string& place);

void defineItems(py::module_& module);

}  // namespace hxpython
