#include "manifest.h"

#include <archive.h>
#include <archive_entry.h>

#include <algorithm>
#include <array>
#include <memory>

namespace tool {

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

// What the library keeps of a line: a record, and another for each of its keywords.
constexpr std::size_t kLineWeight = 256;
constexpr std::size_t kMostWords = 64;  // of a line; it compares each of them with all others
constexpr std::size_t kMostWeight = 2 * Manifest::kMostBytes;

struct FreeReader {
  void operator()(archive* reader) const { archive_read_free(reader); }
};
struct FreeEntry {
  void operator()(archive_entry* entry) const { archive_entry_free(entry); }
};

std::string_view textOf(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

std::string_view takeUntil(std::string_view& rest, std::string_view ends) {
  const std::size_t length = std::min(rest.find_first_of(ends), rest.size());
  const std::string_view taken = rest.substr(0, length);
  rest.remove_prefix(std::min(length + 1, rest.size()));
  return taken;
}

// The library writes names of users and groups escaped, and reads them as they stand there.
std::string unescape(std::string_view text) {
  std::string plain;
  const auto isDigit = [](char c) { return c >= '0' && c <= '7'; };
  while (!text.empty()) {
    const bool isEscape = text[0] == '\\' && text.size() > 3 &&
                          std::all_of(text.begin() + 1, text.begin() + 4, isDigit);
    plain += isEscape
                 ? static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + text[3] - '0')
                 : text[0];
    text.remove_prefix(isEscape ? 4 : 1);
  }
  return plain;
}

// The library copies what "/set" says into every line behind it, so that a short text could take
// any amount of memory, and a line of many words any amount of time.
class WeightLimit {
 public:
  void require(std::string_view text) {
    if (text.size() > Manifest::kMostBytes) throw ManifestError("a manifest of too many bytes");
    while (!text.empty()) {
      const std::string_view line = takeUntil(text, "\n");
      weigh(line);
      isContinued_ = line.ends_with('\\');
    }
  }

 private:
  void weigh(std::string_view line) {
    if (!isContinued_) {
      words_ = 0;
      isSet_ = line.starts_with("/set");
    }
    while (!line.empty()) {
      const std::string_view word = takeUntil(line, " \t\r");
      if (word.empty()) continue;
      if (++words_ > kMostWords) throw ManifestError("a line of too many words");
      if (isSet_) note(word);
    }
    weight_ += kLineWeight + setWeight_;
    if (weight_ > kMostWeight) throw ManifestError("a manifest of too many lines");
  }

  // An older value of the keyword goes.
  void note(std::string_view word) {
    std::size_t& weight = set_[word.substr(0, word.find('='))];
    setWeight_ += kLineWeight / 4 + word.size() - weight;
    weight = kLineWeight / 4 + word.size();
    if (set_.size() > kMostWords) throw ManifestError("too many keywords are set for all lines");
  }

  std::map<std::string_view, std::size_t> set_;
  std::size_t setWeight_ = 0;
  std::size_t weight_ = 0;
  std::size_t words_ = 0;
  bool isContinued_ = false;
  bool isSet_ = false;
};

// Inside the store; nothing for one that leads elsewhere.
std::optional<std::string> pathInside(std::string_view written) {
  if (written == ".") return "";
  if (written.starts_with("./")) written.remove_prefix(2);
  for (std::string_view rest = written; !rest.empty();) {
    const std::string_view name = takeUntil(rest, "/");
    if (name.empty() || name == "." || name == "..") return std::nullopt;
  }
  if (written.empty() || written.ends_with('/')) return std::nullopt;
  return std::string(written);
}

std::optional<MemberAttributes::Type> typeOf(archive_entry* entry) {
  using Type = MemberAttributes::Type;
  switch (archive_entry_filetype(entry)) {
    case AE_IFREG:
      return Type::file;
    case AE_IFDIR:
      return Type::folder;
    case AE_IFLNK:
      return Type::symbolicLink;
    default:
      return std::nullopt;
  }
}

std::optional<std::int64_t> modifiedOf(archive_entry* entry) {
  std::int64_t time = 0;
  if (!archive_entry_mtime_is_set(entry) ||
      __builtin_mul_overflow(archive_entry_mtime(entry), kNanoseconds, &time) ||
      __builtin_add_overflow(time, archive_entry_mtime_nsec(entry), &time)) {
    return std::nullopt;
  }
  return time;
}

std::optional<Sha256::Digest> sha256Of(archive_entry* entry) {
  Sha256::Digest digest{};
  const unsigned char* bytes = archive_entry_digest(entry, ARCHIVE_ENTRY_DIGEST_SHA256);
  if (bytes != nullptr) std::copy_n(bytes, digest.size(), digest.begin());
  if (digest == Sha256::Digest{}) return std::nullopt;
  return digest;
}

MemberAttributes attributesOf(archive_entry* entry, MemberAttributes::Type type) {
  MemberAttributes member{.type = type,
                          .mode = archive_entry_perm(entry),
                          .uid = archive_entry_uid(entry),
                          .gid = archive_entry_gid(entry),
                          .user = unescape(textOf(archive_entry_uname(entry))),
                          .group = unescape(textOf(archive_entry_gname(entry))),
                          .modified = modifiedOf(entry)};
  if (type == MemberAttributes::Type::symbolicLink)
    member.target = textOf(archive_entry_symlink(entry));
  if (type == MemberAttributes::Type::file) {
    member.size = archive_entry_size(entry);
    member.sha256 = sha256Of(entry);
  }
  return member;
}

ManifestError errorOf(archive* subject) {
  return ManifestError(std::string(textOf(archive_error_string(subject))));
}

}  // namespace

Manifest::Manifest(std::span<const std::byte> bytes) {
  WeightLimit().require({reinterpret_cast<const char*>(bytes.data()), bytes.size()});
  const std::unique_ptr<archive, FreeReader> reader(archive_read_new());
  if (!reader) throw std::bad_alloc();
  if (bytes.empty()) return;
  // Nothing is looked at on the disk.
  if (archive_read_support_format_mtree(reader.get()) != ARCHIVE_OK ||
      archive_read_set_options(reader.get(), "mtree:!checkfs") != ARCHIVE_OK ||
      archive_read_open_memory(reader.get(), bytes.data(), bytes.size()) != ARCHIVE_OK) {
    throw errorOf(reader.get());
  }
  archive_entry* entry = nullptr;
  int result = ARCHIVE_OK;
  while ((result = archive_read_next_header(reader.get(), &entry)) >= ARCHIVE_WARN &&
         result != ARCHIVE_EOF) {
    add(entry);
  }
  if (result != ARCHIVE_EOF) throw errorOf(reader.get());
}

// Files of one number, on one device, are one.
void Manifest::add(archive_entry* entry) {
  const std::optional<std::string> path = pathInside(textOf(archive_entry_pathname(entry)));
  const std::optional<MemberAttributes::Type> type = typeOf(entry);
  if (!path || !type || path == kManifestName) return;
  MemberAttributes member = attributesOf(entry, *type);
  if (type == MemberAttributes::Type::file && archive_entry_ino_is_set(entry)) {
    const std::pair id(archive_entry_dev(entry), archive_entry_ino64(entry));
    const auto [file, isFirst] = files_.try_emplace({id.first, id.second}, *path);
    if (!isFirst) {
      member.type = MemberAttributes::Type::hardLink;
      member.target = file->second;
    }
  }
  members_.insert_or_assign(*path, std::move(member));
}

const MemberAttributes* Manifest::find(std::string_view path) const {
  const auto found = members_.find(path);
  return found == members_.end() ? nullptr : &found->second;
}

void ManifestWriter::Free::operator()(archive* writer) const {
  archive_write_free(writer);
}

ManifestWriter::ManifestWriter() : writer_(archive_write_new()) {
  if (!writer_) throw std::bad_alloc();
  const auto append = [](archive*, void* text, const void* bytes, std::size_t count) {
    static_cast<std::string*>(text)->append(static_cast<const char*>(bytes), count);
    return static_cast<la_ssize_t>(count);
  };
  require(archive_write_set_format_mtree(writer_.get()) == ARCHIVE_OK);
  require(archive_write_set_options(writer_.get(),
                                    "mtree:!all,mtree:type,mtree:mode,mtree:uid,mtree:gid,mtree:"
                                    "uname,mtree:gname,mtree:time,mtree:size,mtree:link,mtree:"
                                    "inode,mtree:sha256") == ARCHIVE_OK);
  require(archive_write_set_bytes_in_last_block(writer_.get(), 1) == ARCHIVE_OK);
  require(archive_write_open(writer_.get(), &text_, nullptr, append, nullptr) == ARCHIVE_OK);
}

ManifestWriter::~ManifestWriter() = default;

void ManifestWriter::require(bool succeeded) const {
  if (!succeeded) throw errorOf(writer_.get());
}

void ManifestWriter::add(const std::string& path, const MemberAttributes& member) {
  using Type = MemberAttributes::Type;
  const std::unique_ptr<archive_entry, FreeEntry> entry(archive_entry_new());
  if (!entry) throw std::bad_alloc();
  archive_entry* const to = entry.get();
  archive_entry_set_pathname(to, path.empty() ? "." : ("./" + path).c_str());
  archive_entry_set_filetype(to, member.type == Type::folder         ? AE_IFDIR
                                 : member.type == Type::symbolicLink ? AE_IFLNK
                                                                     : AE_IFREG);
  archive_entry_set_perm(to, member.mode);
  archive_entry_set_uid(to, member.uid);
  archive_entry_set_gid(to, member.gid);
  if (!member.user.empty()) archive_entry_set_uname(to, member.user.c_str());
  if (!member.group.empty()) archive_entry_set_gname(to, member.group.c_str());
  if (member.type == Type::symbolicLink) archive_entry_set_symlink(to, member.target.c_str());
  if (member.modified) {
    const std::int64_t fraction = (*member.modified % kNanoseconds + kNanoseconds) % kNanoseconds;
    archive_entry_set_mtime(to, (*member.modified - fraction) / kNanoseconds,
                            static_cast<long>(fraction));
  }
  if (member.isFile()) {
    archive_entry_set_size(to, member.size);
    const auto fresh = static_cast<std::int64_t>(numbers_.size()) + 1;
    const auto target = numbers_.find(member.target);
    const bool isLink = member.type == Type::hardLink && target != numbers_.end();
    archive_entry_set_ino64(to,
                            numbers_.emplace(path, isLink ? target->second : fresh).first->second);
  }
  require(archive_write_header(writer_.get(), to) == ARCHIVE_OK);
}

void ManifestWriter::addBytes(std::span<const std::byte> bytes) {
  const la_ssize_t taken = archive_write_data(writer_.get(), bytes.data(), bytes.size());
  require(taken == static_cast<la_ssize_t>(bytes.size()));
}

std::string ManifestWriter::finish() {
  require(archive_write_close(writer_.get()) == ARCHIVE_OK);
  return std::move(text_);
}

}  // namespace tool
