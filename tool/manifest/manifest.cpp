#include "manifest.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <vector>

namespace tool {

namespace {

// What the library keeps of a line: a record, and another for each of its keywords.
constexpr std::size_t kLineWeight = 256;
constexpr std::size_t kMostWords = 64;  // of a line; it compares each of them with all others
constexpr std::size_t kMostWeight = 2 * Manifest::kMostBytes;

std::string_view takeUntil(std::string_view& rest, std::string_view ends) {
  const std::size_t length = std::min(rest.find_first_of(ends), rest.size());
  const std::string_view taken = rest.substr(0, length);
  rest.remove_prefix(std::min(length + 1, rest.size()));
  return taken;
}

// What the library would take too much memory or time for. It copies what "/set" says into every
// line behind it, goes through all lines of a path for each of them, and takes a line whose path
// has no slash to lie in the folder of the line before.
class WeightLimit {
 public:
  void require(std::string_view text) {
    if (text.size() > Manifest::kMostBytes) throw ManifestError("a manifest of too many bytes");
    while (!text.empty())
      weigh(takeLine(text));
    std::ranges::sort(paths_);
    for (std::size_t i = kMostLines; i < paths_.size(); ++i)
      if (paths_[i] == paths_[i - kMostLines]) throw ManifestError("too many lines for one path");
  }

 private:
  static constexpr std::size_t kLongest = 65536;  // as the library has it
  static constexpr std::size_t kMostLines = 64;   // of one path

  // With those that continue it, as the library joins them.
  std::string_view takeLine(std::string_view& text) {
    line_.clear();
    for (bool isContinued = true; isContinued && !text.empty();) {
      const std::string_view piece = takeUntil(text, "\n");
      line_ += piece;
      isContinued = (piece.size() - (piece.find_last_not_of('\\') + 1)) % 2 == 1;
      if (isContinued) line_.pop_back();
      if (line_.size() > kLongest) throw ManifestError("a line of too many bytes");
      weight_ += kLineWeight;
    }
    const std::string_view line = line_;
    return line.substr(std::min(line.find_first_not_of(" \t"), line.size()));
  }

  void weigh(std::string_view line) {
    const bool isSet = line.starts_with("/set");
    if (!line.empty() && std::string_view("/#\r").find(line[0]) == line.npos)
      notePath(line.substr(0, line.find_first_of(" \t\r")));
    for (std::size_t words = 0; !line.empty();) {
      const std::string_view word = takeUntil(line, " \t\r");
      if (word.empty()) continue;
      if (++words > kMostWords) throw ManifestError("a line of too many words");
      if (isSet) noteSet(word);
    }
    weight_ += setWeight_;
    if (weight_ > kMostWeight) throw ManifestError("a manifest of too many lines");
  }

  // So none is the last word of its line either, as others write them.
  void notePath(std::string_view path) {
    if (path != "." && !path.starts_with("./")) {
      throw ManifestError("a path that does not begin with \"./\"");
    }
    for (std::size_t at = 0; (at = path.find('\\', at)) != path.npos; at += 4) {
      const std::string_view digits = path.substr(at + 1, 3);
      if (digits.size() < 3 || digits[0] > '3' ||
          digits.find_first_not_of("01234567") != digits.npos)
        throw ManifestError("a backslash in a path without three octal digits");
    }
    paths_.push_back(std::hash<std::string_view>()(unescape(path).c_str()));
  }

  // An older value of the keyword goes.
  void noteSet(std::string_view word) {
    std::size_t& weight = set_[std::string(word.substr(0, word.find('=')))];
    setWeight_ += kLineWeight / 4 + word.size() - weight;
    weight = kLineWeight / 4 + word.size();
    if (set_.size() > kMostWords) throw ManifestError("too many keywords are set for all lines");
  }

  std::string line_;
  std::map<std::string, std::size_t> set_;
  std::size_t setWeight_ = 0;
  std::size_t weight_ = 0;
  std::vector<std::size_t> paths_;  // hashes
};

// The library passes over checksums with capital letters.
std::string lowerChecksums(std::string_view text) {
  std::string lowered(text);
  for (const std::string_view keyword : {" sha256=", " sha256digest="}) {
    std::size_t at = 0;
    while ((at = lowered.find(keyword, at)) != lowered.npos) {
      for (at += keyword.size(); at < lowered.size() && lowered[at] > ' '; ++at)
        if (lowered[at] >= 'A' && lowered[at] <= 'F') lowered[at] += 'a' - 'A';
    }
  }
  return lowered;
}

ManifestError errorOf(const ArchiveHandle& subject) {
  return ManifestError(archiveErrorOf(subject.get()));
}

}  // namespace

Manifest::Manifest(std::span<const std::byte> bytes) {
  const std::string_view written(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  WeightLimit().require(written);
  const std::string text = lowerChecksums(written);
  const ArchiveHandle reader = own(archive_read_new());
  if (bytes.empty()) return;
  // Nothing is looked at on the disk.
  if (archive_read_support_format_mtree(reader.get()) != ARCHIVE_OK ||
      archive_read_set_options(reader.get(), "mtree:!checkfs") != ARCHIVE_OK ||
      archive_read_open_memory(reader.get(), text.data(), text.size()) != ARCHIVE_OK) {
    throw errorOf(reader);
  }
  archive_entry* entry = nullptr;
  int result = ARCHIVE_OK;
  while ((result = archive_read_next_header(reader.get(), &entry)) >= ARCHIVE_WARN &&
         result != ARCHIVE_EOF) {
    add(entry);
  }
  if (result != ARCHIVE_EOF) throw errorOf(reader);
}

// Files of one number, on one device, are one.
void Manifest::add(archive_entry* entry) {
  const char* const written = archive_entry_pathname(entry);
  const std::optional<std::string> path = pathInside(written == nullptr ? "/" : written);
  std::optional<MemberAttributes> member = attributesOf(entry);
  if (!path || !member || path == kManifestName) return;
  if (member->type == MemberAttributes::Type::file && archive_entry_ino_is_set(entry)) {
    const std::pair id(archive_entry_dev(entry), archive_entry_ino64(entry));
    const auto [file, isFirst] = files_.try_emplace({id.first, id.second}, *path);
    if (!isFirst) {
      member->type = MemberAttributes::Type::hardLink;
      member->target = file->second;
    }
  }
  members_.insert_or_assign(*path, *std::move(member));
}

const MemberAttributes* Manifest::find(std::string_view path) const {
  const auto found = members_.find(path);
  return found == members_.end() ? nullptr : &found->second;
}

ManifestWriter::ManifestWriter() : writer_(own(archive_write_new())) {
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

void ManifestWriter::require(bool succeeded) const {
  if (!succeeded) throw errorOf(writer_);
}

void ManifestWriter::add(const std::string& path, const MemberAttributes& member) {
  const EntryHandle entry = own(archive_entry_new());
  archive_entry_set_pathname(entry.get(), path.empty() ? "." : ("./" + path).c_str());
  describe(entry.get(), member);
  if (member.isFile()) {
    const auto fresh = static_cast<std::int64_t>(numbers_.size()) + 1;
    const auto target = numbers_.find(member.target);
    const bool isLink = member.type == MemberAttributes::Type::hardLink && target != numbers_.end();
    const auto number = numbers_.emplace(path, isLink ? target->second : fresh).first->second;
    archive_entry_set_ino64(entry.get(), number);
  }
  require(archive_write_header(writer_.get(), entry.get()) == ARCHIVE_OK);
}

void ManifestWriter::addBytes(std::span<const std::byte> bytes) {
  const la_ssize_t taken = archive_write_data(writer_.get(), bytes.data(), bytes.size());
  require(taken == static_cast<la_ssize_t>(bytes.size()));
}

std::string ManifestWriter::finish() {
  require(archive_write_close(writer_.get()) == ARCHIVE_OK);
  text_.replace(0, text_.find('\n') + 1, kOwnManifest);
  return std::move(text_);
}

}  // namespace tool
