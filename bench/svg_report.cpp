#include <algorithm>
#include <cstdio>

#include "bench/report.h"

namespace bench {

namespace {

constexpr double kWidth = 760;
constexpr double kLeft = 130;     // of the bars
constexpr double kLongest = 450;  // bar
constexpr double kLine = 20;      // from bar to bar
constexpr double kBar = 13;
constexpr double kHead = 34;  // above the bars of one metric

// A bar longer than so many of our longest is cut, else the others could not be seen.
constexpr double kCutAt = 4;

constexpr const char* kStyle =
    "text{font:12px system-ui,sans-serif;fill:#24292f}.ground{fill:#fff}.head{font-weight:600}"
    ".ours{fill:#0969da}.plain{fill:#8c959f}.rival{fill:#c9a26b}"
    ".spread{stroke:#24292f;stroke-width:1.5}.cut{stroke:#fff;stroke-width:3}"
    "@media(prefers-color-scheme:dark){text{fill:#e6edf3}.ground{fill:#0d1117}"
    ".ours{fill:#4493f8}.plain{fill:#6e7681}.rival{fill:#a5834f}.spread{stroke:#e6edf3}"
    ".cut{stroke:#0d1117}}";

std::string format(const char* pattern, double first, double second = 0, double third = 0,
                   double fourth = 0) {
  char text[160];
  std::snprintf(text, sizeof text, pattern, first, second, third, fourth);
  return text;
}

bool isOurs(const EngineInfo& engine) {
  return engine.name.rfind("hxcrate", 0) == 0;
}

const char* classOf(const EngineInfo& engine) {
  if (isOurs(engine)) return "ours";
  return engine.name.rfind("plain", 0) == 0 ? "plain" : "rival";
}

// The figure that the longest bar stands for.
double scaleOf(const Results& results, const Row& row) {
  double most = 0;
  double ours = 0;
  for (std::size_t i = 0; i < row.cells.size(); ++i) {
    if (row.cells[i].seconds.empty()) continue;
    const double figure = figuresOf(row.metric, row.cells[i]).median;
    most = std::max(most, figure);
    if (isOurs(results.engines[i])) ours = std::max(ours, figure);
  }
  return ours > 0 ? std::min(most, ours * kCutAt) : most;
}

std::string textAt(double x, double y, const std::string& text, const std::string& attributes) {
  return format("<text x=\"%.1f\" y=\"%.1f\" ", x, y) + attributes + ">" + text + "</text>\n";
}

std::string barOf(const EngineInfo& engine, const Metric& metric, const Cell& cell, double scale,
                  double y) {
  const Spread spread = figuresOf(metric, cell);
  const auto lengthOf = [&](double figure) { return std::min(figure / scale, 1.0) * kLongest; };
  const double length = lengthOf(spread.median);
  std::string bar = textAt(kLeft - 8, y + kBar - 2, engine.name, "text-anchor=\"end\"") +
                    "<rect class=\"" + classOf(engine) +
                    format("\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\"/>\n", kLeft, y,
                           std::max(length, 1.0), kBar);
  double end = std::max(length, 1.0);
  if (spread.median > scale * 1.001) {
    const double x = kLeft + kLongest - 24;
    bar +=
        format("<path class=\"cut\" d=\"M%.1f %.1fL%.1f %.1f\"/>\n", x, y + kBar + 2, x + 7, y - 2);
  } else {
    const double middle = y + kBar / 2;
    end = std::max(end, lengthOf(spread.most));
    bar += format("<path class=\"spread\" d=\"M%.1f %.1fH%.1f\"/>\n",
                  kLeft + lengthOf(spread.least), middle, kLeft + lengthOf(spread.most));
  }
  return bar + textAt(kLeft + end + 7, y + kBar - 2,
                      formatFigure(spread.median) + " " + metric.unit.name, "");
}

}  // namespace

std::string svgReport(const Results& results, const WorkloadInfo& workload) {
  double y = 30;
  std::string body = textAt(12, 22, workload.title, "class=\"head\" style=\"font-size:14px\"");
  for (const Row& row : results.rows) {
    if (row.workload != workload.letter) continue;
    const double scale = scaleOf(results, row);
    body += textAt(12, y + kHead - 12,
                   row.metric.title +
                       (row.metric.unit.isRate ? " (longer is better)" : " (shorter is better)"),
                   "class=\"head\"");
    y += kHead;
    for (std::size_t i = 0; i < row.cells.size(); ++i) {
      if (row.cells[i].seconds.empty()) continue;
      body += barOf(results.engines[i], row.metric, row.cells[i], scale, y);
      y += kLine;
    }
  }
  const double height = y + 12;
  return format(
             "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 %.0f %.0f\" "
             "width=\"%.0f\" height=\"%.0f\">\n",
             kWidth, height, kWidth, height) +
         "<style>" + kStyle + "</style>\n" +
         format("<rect class=\"ground\" width=\"%.0f\" height=\"%.0f\"/>\n", kWidth, height) +
         body + "</svg>\n";
}

}  // namespace bench
