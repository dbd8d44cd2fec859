#include "map_picture.h"

#include <fmt/format.h>

#include <algorithm>

namespace tool {

namespace {

using hxcrate::ByteKind;

constexpr int kCell = 14;     // width and height of a cell, in pixels
constexpr int kRowStep = 16;  // from row to row
constexpr int kLeft = 120;    // where cells begin; offsets stand before them
constexpr int kTop = 64;      // where rows begin; the title stands above
constexpr int kLine = 20;     // of the text below
constexpr int kWidth = kLeft + kCell * static_cast<int>(ByteMap::kCellsPerRow) + 24;
constexpr std::size_t kOwnersShown = 10;
constexpr std::size_t kLongestName = 90;  // in bytes; longer ones are cut in front

// Told apart by those too who see few colours.
constexpr const char* kColours[hxcrate::kByteKinds] = {"#d55e00", "#e69f00", "#cc79a7",
                                                       "#0072b2", "#9fd3f5", "#d9d9d9"};
constexpr const char* kMeanings[hxcrate::kByteKinds] = {"header",
                                                        "entries: members' records",
                                                        "chunks: pages' records",
                                                        "data: what items hold",
                                                        "slack: room behind items' ends",
                                                        "unreachable: nobody's"};

// Text that XML takes as it is meant.
std::string quoteXml(const std::string& bytes) {
  std::string text;
  for (const char c : escape(bytes)) {
    switch (c) {
      case '&':
        text += "&amp;";
        break;
      case '<':
        text += "&lt;";
        break;
      case '>':
        text += "&gt;";
        break;
      case '"':
        text += "&quot;";
        break;
      default:
        text += c;
    }
  }
  return text;
}

std::string shorten(const std::string& path) {
  if (path.size() <= kLongestName) return path;
  std::size_t start = path.size() - kLongestName;
  while (start < path.size() && (static_cast<unsigned char>(path[start]) & 0xc0) == 0x80)
    ++start;
  return std::string("...").append(path, start);
}

std::string groupDigits(std::int64_t number) {
  std::string text = fmt::to_string(number);
  for (std::size_t at = text.size(); at > 3; at -= 3)
    text.insert(at - 3, 1, ' ');
  return text;
}

class Picture {
 public:
  Picture(const InspectedStore& store, const ByteMap& map) : store_(store), map_(map) {}

  std::string draw() {
    drawTitle();
    drawRows();
    y_ += kLine;
    drawLegend();
    y_ += kLine;
    drawOwners();
    return head() + body_ + "</svg>\n";
  }

 private:
  std::string head() const {
    return fmt::format(
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" "
        "viewBox=\"0 0 {0} {1}\" font-family=\"sans-serif\" font-size=\"13\" fill=\"#222\">\n"
        "<rect width=\"100%\" height=\"100%\" fill=\"#fff\"/>\n",
        kWidth, y_);
  }

  void drawTitle() {
    addText(24, 28, "font-size=\"18\"", shorten(store_.file().name()));
    addText(24, 48, "fill=\"#666\"",
            groupDigits(map_.length()) + " bytes; a cell is " + groupDigits(map_.bytesPerCell()) +
                ", a row " + groupDigits(map_.bytesPerCell() * ByteMap::kCellsPerRow) +
                "; in a cell the kinds are sorted");
  }

  void drawRows() {
    y_ = kTop;
    const auto& cells = map_.cells();
    for (std::size_t start = 0; start < cells.size(); start += ByteMap::kCellsPerRow) {
      addText(kLeft - 8, y_ + 11, "text-anchor=\"end\" font-size=\"11\" fill=\"#666\"",
              groupDigits(static_cast<std::int64_t>(start) * map_.bytesPerCell()));
      const std::size_t end = std::min(cells.size(), start + ByteMap::kCellsPerRow);
      for (std::size_t i = start; i < end; ++i)
        drawCell(i, kLeft + static_cast<int>(i - start) * kCell);
      y_ += kRowStep;
    }
  }

  // From left to right as much of each kind as there is; where in the cell it lies is not shown.
  void drawCell(std::size_t index, int x) {
    const MapCell& cell = map_.cells()[index];
    body_ += "<g><title>" + quoteLines(describe(index)) + "</title>";
    double left = x;
    for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind) {
      if (cell.bytes[kind] == 0) continue;
      const double width =
          kCell * static_cast<double>(cell.bytes[kind]) / static_cast<double>(map_.bytesPerCell());
      addBar(left, width, kColours[kind]);
      left += width;
    }
    body_ += "</g>\n";
  }

  std::string describe(std::size_t index) const {
    const MapCell& cell = map_.cells()[index];
    const std::int64_t start = static_cast<std::int64_t>(index) * map_.bytesPerCell();
    const std::int64_t end = std::min(start + map_.bytesPerCell(), map_.length());
    std::string text = fmt::format("bytes {} to {}", start, end - 1);
    for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind) {
      if (cell.bytes[kind] == 0) continue;
      text += fmt::format("\n{}: {}", nameOf(static_cast<ByteKind>(kind)), cell.bytes[kind]);
    }
    if (cell.member == hxcrate::kNoMember) return text;
    return text + "\nmostly of /" + store_.inspection().pathOf(cell.member);
  }

  void drawLegend() {
    for (std::size_t kind = 0; kind < hxcrate::kByteKinds; ++kind) {
      addBar(24, kCell, kColours[kind]);
      addText(48, y_ + 12, "", kMeanings[kind]);
      addText(420, y_ + 12, "text-anchor=\"end\"", groupDigits(map_.totals()[kind]));
      y_ += kLine;
    }
    addText(48, y_ + 12, "", "the whole file");
    addText(420, y_ + 12, "text-anchor=\"end\"", groupDigits(map_.length()));
    y_ += kLine;
  }

  void drawOwners() {
    addText(24, y_ + 12, "font-weight=\"bold\"", "What owns most, records and room included");
    y_ += kLine;
    for (const MapOwner& owner : map_.findLargestOwners(kOwnersShown)) {
      const std::string path = store_.inspection().pathOf(owner.member);
      addText(kLeft, y_ + 12, "text-anchor=\"end\"", groupDigits(owner.bytes));
      addText(kLeft + 16, y_ + 12, "", path.empty() ? "/" : shorten(path));
      y_ += kLine;
    }
    y_ += kLine;
  }

  void addBar(double x, double width, const char* colour) {
    body_ += fmt::format(R"(<rect x="{:.2f}" y="{}" width="{:.2f}" height="{}" fill="{}"/>)", x, y_,
                         width, kCell, colour);
  }

  void addText(int x, int y, const std::string& style, const std::string& text) {
    body_ += fmt::format("<text x=\"{}\" y=\"{}\" {}>{}</text>\n", x, y, style, quoteXml(text));
  }

  // Lines of a title stay lines.
  static std::string quoteLines(const std::string& text) {
    std::string quoted;
    for (std::size_t start = 0; start <= text.size();) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      if (start > 0) quoted += '\n';
      quoted += quoteXml(text.substr(start, end - start));
      start = end + 1;
    }
    return quoted;
  }

  const InspectedStore& store_;
  const ByteMap& map_;
  std::string body_;
  int y_ = 0;
};

}  // namespace

std::string drawMap(const InspectedStore& store, const ByteMap& map) {
  return Picture(store, map).draw();
}

}  // namespace tool
