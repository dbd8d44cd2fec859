// The library's readers, writers and entries, owned.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <locale.h>

#include <memory>
#include <new>
#include <string>

namespace tool {

struct ArchiveCloser {
  void operator()(archive* either) const { archive_free(either); }
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};
using ArchiveHandle = std::unique_ptr<archive, ArchiveCloser>;
using EntryHandle = std::unique_ptr<archive_entry, ArchiveCloser>;

// `made` by one of the library's functions, which give null when there is no memory.
template <typename Made>
std::unique_ptr<Made, ArchiveCloser> own(Made* made) {
  if (made == nullptr) throw std::bad_alloc();
  return std::unique_ptr<Made, ArchiveCloser>(made);
}

// What the library says went wrong last.
inline std::string archiveErrorOf(archive* subject) {
  const char* text = archive_error_string(subject);
  return text == nullptr ? "it failed" : text;
}

// Names are bytes. The library takes those of some formats for text in the locale's characters, so
// as long as this lives they are those of `locale` in this thread, whatever locale the user has.
class CharacterLocale {
 public:
  explicit CharacterLocale(const char* locale = "C.UTF-8")
      : mine_(::newlocale(LC_CTYPE_MASK, locale, nullptr)),
        before_(mine_ != nullptr ? ::uselocale(mine_) : nullptr) {}
  ~CharacterLocale() {
    if (mine_ == nullptr) return;
    ::uselocale(before_);
    ::freelocale(mine_);
  }
  CharacterLocale(const CharacterLocale&) = delete;
  CharacterLocale& operator=(const CharacterLocale&) = delete;

 private:
  locale_t mine_;
  locale_t before_;
};

}  // namespace tool
