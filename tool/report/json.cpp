#include "json.h"

#include <fmt/format.h>

#include <string>

#include "utf8.h"

namespace tool {

namespace {

// One character or a byte that is none. What a terminal might obey, or show as something else, is
// escaped; all of that is below U+10000.
void appendCharacter(std::string& text, std::string_view bytes) {
  const std::size_t length = measureCharacter(bytes);
  if (length == 0) {
    text += fmt::format("\\u{:04x}", static_cast<unsigned char>(bytes.front()));
  } else if (isControl(bytes, length) || isDeceptive(bytes, length)) {
    text += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(decodeCharacter(bytes, length)));
  } else {
    if (bytes == "\"" || bytes == "\\") text += '\\';
    text += bytes;
  }
}

struct Quoted {
  std::string text;
  bool isWhole = true;  // all of it was UTF-8
};

Quoted quote(std::string_view bytes) {
  Quoted quoted{"\""};
  while (!bytes.empty()) {
    const std::size_t length = measureCharacter(bytes);
    quoted.isWhole = quoted.isWhole && length > 0;
    appendCharacter(quoted.text, bytes.substr(0, length > 0 ? length : 1));
    bytes.remove_prefix(length > 0 ? length : 1);
  }
  quoted.text += '"';
  return quoted;
}

}  // namespace

void JsonWriter::beginObject(std::string_view key) {
  begin(key, "{");
  isFirst_ = true;
}

void JsonWriter::beginArray(std::string_view key) {
  begin(key, "[");
  isFirst_ = true;
}

void JsonWriter::writeNumber(std::string_view key, std::int64_t value) {
  begin(key, fmt::to_string(value));
}

void JsonWriter::writeFlag(std::string_view key, bool value) {
  begin(key, value ? "true" : "false");
}

void JsonWriter::writeText(std::string_view key, std::string_view text) {
  begin(key, quote(text).text);
}

void JsonWriter::writeName(std::string_view key, std::string_view bytes) {
  const Quoted quoted = quote(bytes);
  begin(key, quoted.text);
  if (quoted.isWhole) return;
  std::string hex;
  for (const char byte : bytes)
    hex += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  writeText(std::string(key) + "Bytes", hex);
}

void JsonWriter::finish() {
  endObject();
  output_.write("\n");
  output_.finish();
}

void JsonWriter::begin(std::string_view key, std::string_view value) {
  if (!isFirst_) output_.write(key.empty() ? "," : ", ");
  if (key.empty() && hasBegun_) output_.write("\n");
  hasBegun_ = true;
  if (!key.empty()) output_.write("\"" + std::string(key) + "\": ");
  output_.write(value);
  isFirst_ = false;
}

void JsonWriter::end(std::string_view bracket) {
  output_.write(bracket);
  isFirst_ = false;
}

}  // namespace tool
