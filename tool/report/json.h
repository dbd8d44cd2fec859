// What the command prints under --json: one object, on standard output.
//
// Objects stand in one line; each element of an array begins a line of its own, so that line tools
// see one member or one finding a line. The order of the fields is fixed. Numbers are integers, and
// sizes and offsets are bytes.
//
// Names in a store are bytes and may be no UTF-8. A name is a string, {"name": "tea"}; when it is
// no UTF-8, each byte that is part of no character stands there as U+0080 to U+00FF, and a second
// field holds all its bytes in hexadecimal: {"name": "t\u00ff", "nameBytes": "74ff"}. So the second
// field is what counts where there is one.
#pragma once

#include <cstdint>
#include <string_view>

#include "tool/files/output.h"

namespace tool {

// Writes an object as it is told; keeps nothing of it but where it stands. The caller begins and
// ends in pairs. What stands in an object has a key, what stands in an array has none.
class JsonWriter {
 public:
  // Begins the outermost object. `output` outlives the writer.
  explicit JsonWriter(Output& output) : output_(output) { beginObject(); }

  void beginObject(std::string_view key = {});
  void endObject() { end("}"); }
  void beginArray(std::string_view key);
  void endArray() { end("]"); }

  void writeNumber(std::string_view key, std::int64_t value);
  void writeFlag(std::string_view key, bool value);
  // UTF-8 that the program itself has made.
  void writeText(std::string_view key, std::string_view text);
  // A name, or several with "/" between them: the field `key`, and `key` + "Bytes" where needed.
  void writeName(std::string_view key, std::string_view bytes);

  // Ends the outermost object and the output.
  void finish();

 private:
  // What comes before a value, and the value or its bracket.
  void begin(std::string_view key, std::string_view value);
  void end(std::string_view bracket);

  Output& output_;
  bool isFirst_ = true;  // of its object or array
  bool hasBegun_ = false;
};

}  // namespace tool
