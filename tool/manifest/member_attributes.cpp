#include "member_attributes.h"

#include <algorithm>

namespace tool {

namespace {

constexpr std::int64_t kNanoseconds = 1'000'000'000;

std::string_view textOf(const char* text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
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

}  // namespace

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

std::optional<MemberAttributes> attributesOf(archive_entry* entry) {
  using Type = MemberAttributes::Type;
  const std::optional<Type> type = typeOf(entry);
  if (!type) return std::nullopt;
  MemberAttributes member{.type = *type,
                          .mode = archive_entry_perm(entry),
                          .uid = archive_entry_uid(entry),
                          .gid = archive_entry_gid(entry),
                          // The library writes them escaped, and reads them as they stand there.
                          .user = unescape(textOf(archive_entry_uname(entry))),
                          .group = unescape(textOf(archive_entry_gname(entry))),
                          .modified = modifiedOf(entry)};
  if (type == Type::symbolicLink) member.target = textOf(archive_entry_symlink(entry));
  if (type == Type::file) {
    member.size = archive_entry_size(entry);
    member.sha256 = sha256Of(entry);
  }
  return member;
}

void describe(archive_entry* entry, const MemberAttributes& member) {
  using Type = MemberAttributes::Type;
  archive_entry_set_filetype(entry, member.type == Type::folder         ? AE_IFDIR
                                    : member.type == Type::symbolicLink ? AE_IFLNK
                                                                        : AE_IFREG);
  archive_entry_set_perm(entry, member.mode);
  archive_entry_set_uid(entry, member.uid);
  archive_entry_set_gid(entry, member.gid);
  if (!member.user.empty()) archive_entry_set_uname(entry, member.user.c_str());
  if (!member.group.empty()) archive_entry_set_gname(entry, member.group.c_str());
  if (member.type == Type::symbolicLink) archive_entry_set_symlink(entry, member.target.c_str());
  if (member.isFile()) archive_entry_set_size(entry, member.size);
  if (member.modified) {
    const std::int64_t fraction = (*member.modified % kNanoseconds + kNanoseconds) % kNanoseconds;
    archive_entry_set_mtime(entry, (*member.modified - fraction) / kNanoseconds,
                            static_cast<long>(fraction));
  }
}

std::optional<std::string> pathInside(std::string_view written) {
  if (written.starts_with('/') || written.empty()) return std::nullopt;
  std::string path;
  while (!written.empty()) {
    const std::size_t length = std::min(written.find('/'), written.size());
    const std::string_view name = written.substr(0, length);
    written.remove_prefix(std::min(length + 1, written.size()));
    if (name == "..") return std::nullopt;
    if (name.empty() || name == ".") continue;
    if (!path.empty()) path += '/';
    path += name;
  }
  return path;
}

}  // namespace tool
