#include "checksum_list.h"

#include <algorithm>
#include <span>
#include <utility>

#include "tool/files/byte_pump.h"
#include "tool/trees/list_file.h"
#include "tool/trees/store_walk.h"

namespace tool {

namespace {

constexpr std::pair<char, char> kEscapes[] = {{'\\', '\\'}, {'\n', 'n'}, {'\r', 'r'}};

std::string escapeAsSums(std::string_view path) {
  std::string escaped;
  for (const char c : path) {
    const auto* escape = std::find_if(std::begin(kEscapes), std::end(kEscapes),
                                      [&](const auto& pair) { return pair.first == c; });
    if (escape != std::end(kEscapes)) escaped += '\\';
    escaped += escape != std::end(kEscapes) ? escape->second : c;
  }
  return escaped;
}

std::optional<std::string> unescapeAsSums(std::string_view escaped) {
  std::string path;
  for (std::size_t i = 0; i < escaped.size(); ++i) {
    if (escaped[i] != '\\') {
      path += escaped[i];
      continue;
    }
    const char next = ++i < escaped.size() ? escaped[i] : '\0';
    const auto* escape = std::find_if(std::begin(kEscapes), std::end(kEscapes),
                                      [&](const auto& pair) { return pair.second == next; });
    if (escape == std::end(kEscapes)) return std::nullopt;
    path += escape->first;
  }
  return path;
}

std::optional<Sha256::Digest> parseHex(std::string_view text) {
  Sha256::Digest digest{};
  if (text.size() != 2 * digest.size()) return std::nullopt;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::size_t value =
        std::string_view("0123456789abcdef")
            .find(static_cast<char>(text[i] >= 'A' && text[i] <= 'F' ? text[i] - 'A' + 'a'
                                                                     : text[i]));
    if (value == std::string_view::npos) return std::nullopt;
    digest[i / 2] = static_cast<std::uint8_t>(digest[i / 2] * 16u + value);
  }
  return digest;
}

// One line without its end: a backslash where the name is escaped, the sum, a blank, a blank or
// an asterisk, the name. Returns what keeps it from being one; null: nothing.
const char* parseLine(std::string_view line, ChecksumList& list) {
  constexpr std::size_t kHexLength = 2 * SHA256_DIGEST_SIZE;
  const bool isEscaped = line.starts_with('\\');
  if (isEscaped) line.remove_prefix(1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.empty() || line.starts_with('#')) return nullptr;
  const auto digest = parseHex(line.substr(0, kHexLength));
  if (!digest) return "it does not begin with a checksum (SHA-256)";
  line.remove_prefix(kHexLength);
  if (!line.starts_with("  ") && !line.starts_with(" *")) return "no two blanks and name follow";
  line.remove_prefix(2);
  const auto path = isEscaped ? unescapeAsSums(line) : std::optional<std::string>(line);
  if (!path || path->empty()) return "its name can't be read";
  const bool isRelative = path->starts_with("./");
  const auto [known, isNew] =
      list.try_emplace(isRelative ? path->substr(2) : *path, ExpectedItem{*digest});
  return isNew || known->second.sha256 == digest ? nullptr : "another line has another checksum";
}

}  // namespace

std::string formatChecksum(const Sha256::Digest& digest, std::string_view path) {
  const std::string escaped = escapeAsSums(path);
  return (escaped == path ? "" : "\\") + toHex(digest) + "  " + escaped + "\n";
}

ChecksumList parseChecksums(std::string_view text,
                            const std::function<void(std::size_t, const char*)>& onFault) {
  ChecksumList list;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    if (const char* fault = parseLine(text.substr(0, length), list)) onFault(number, fault);
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return list;
}

ChecksumList checksumsOf(const Manifest& manifest) {
  ChecksumList list;
  for (const auto& [path, member] : manifest.members()) {
    if (member.isFile()) list.emplace(path, ExpectedItem{member.sha256, member.size});
  }
  return list;
}

std::string readText(const std::string& path) {
  const std::string name = path == "-" ? "standard input" : path;
  const Descriptor file = openList(path);
  std::string text;
  BytePump(nullptr).move(BytePump::kEverything, takeFrom(file, name),
                         [&](std::span<const std::byte> bytes) {
                           text.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
                           if (text.size() <= Manifest::kMostBytes) return;
                           throw Failure(ExitCode::inputOutput, name, "", "too long for a list");
                         });
  return text;
}

std::optional<Manifest> readManifest(const hxcrate::Store& store, std::string_view beginning) {
  auto item = openIfThere([&] { return store.read(kManifestName); });
  if (!item) return std::nullopt;
  const auto refuse = [&](const std::string& reason) -> Failure {
    return {ExitCode::damaged, store.path(), std::string(kManifestName), reason};
  };
  if (item->size() > static_cast<std::int64_t>(Manifest::kMostBytes)) {
    throw refuse("too long for a manifest");
  }
  try {
    const std::string text = item->readText();
    if (!text.starts_with(beginning)) return std::nullopt;
    return Manifest(std::as_bytes(std::span(text)));
  } catch (const ManifestError& error) {
    throw refuse(error.what());
  }
}

std::optional<Manifest> readOwnManifest(const hxcrate::Store& store, ExitCode& outcome) {
  try {
    return readManifest(store, kOwnManifest);
  } catch (const hxcrate::Error& error) {
    complain(error);
    outcome = worse(outcome, exitCodeOf(error));
  } catch (const Failure& failure) {
    failure.print();
    outcome = worse(outcome, failure.code());
  }
  return std::nullopt;
}

}  // namespace tool
