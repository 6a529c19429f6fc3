#include "plant_html.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace tavrix::plant {

namespace {

constexpr std::string_view kStyle = R"css(
body{font-family:sans-serif;margin:0;color:#222;background:#fafafa}
header{background:#234;color:#fff;padding:.5em 1em;display:flex;gap:1.5em;align-items:baseline}
header a{color:#cde;text-decoration:none}header a.on{color:#fff;font-weight:bold}
main{padding:1em}
table{border-collapse:collapse;background:#fff;font-size:.9em}
th,td{border:1px solid #ccc;padding:.2em .5em;text-align:left;vertical-align:top}
th{background:#eef}
tr.fail td{background:#fdd}td.fail,span.fail{color:#b00;font-weight:bold}
td.pass,span.pass{color:#070}
form.search{margin:.5em 0 1em 0}form.search input,form.search select{margin-right:.5em}
.figures td:first-child{font-weight:bold}
.cards{display:flex;flex-wrap:wrap;gap:1em}.card{background:#fff;border:1px solid #ccc;padding:.6em;min-width:22em}
.state-running{color:#070}.state-held{color:#a60}.state-ended{color:#777}.state-offline{color:#b00}
.msg{font-size:.85em;color:#444}.prompt{background:#ffd;padding:.3em}
.error{background:#fee;border:1px solid #c99;padding:1em}
)css";

}  // namespace

std::string Html(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        // Control characters would upset nothing in HTML, but a serial
        // number that holds one is shown as the terminal shows it.
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t') {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02X", static_cast<unsigned char>(c));
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out;
}

std::string Url(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

std::string Page(std::string_view title, std::string_view section, std::string_view body,
                 std::string_view script) {
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width\">"
      "<link rel=\"icon\" href=\"data:,\"><title>" +
      Html(title) + " - tavrix plant view</title><style>" + std::string(kStyle) +
      "</style></head><body><header><strong>tavrix plant view</strong>";
  for (const auto& [href, name] :
       {std::pair{"/live", "Live"}, std::pair{"/plant", "Plant"}, std::pair{"/units", "Results"},
        std::pair{"/analytics", "Analytics"}}) {
    page += std::string("<a href=\"") + href + "\"" + (section == name ? " class=\"on\"" : "") +
            ">" + name + "</a>";
  }
  page += "</header><main><h1>" + Html(title) + "</h1>\n" + std::string(body) + "</main>";
  if (!script.empty()) page += "<script>" + std::string(script) + "</script>";
  return page + "</body></html>\n";
}

std::string Number(double value, int digits) {
  if (!std::isfinite(value)) return "-";
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.*g", digits, value);
  return buf;
}

std::string Percent(int part, int whole) {
  if (whole <= 0) return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f%%", 100.0 * part / whole);
  return buf;
}

namespace {

constexpr double kWidth = 720;
constexpr double kHeight = 260;
constexpr double kLeft = 60;
constexpr double kRight = 10;
constexpr double kTop = 10;
constexpr double kBottom = 30;

std::string Fixed(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", v);
  return buf;
}

// The range a chart shows: the readings and the limits, with a margin.
std::pair<double, double> Range(const std::vector<CheckReading>& readings,
                                std::optional<double> lower, std::optional<double> upper) {
  double low = readings.empty() ? 0 : readings.front().value;
  double high = low;
  for (const auto& r : readings) {
    low = std::min(low, r.value);
    high = std::max(high, r.value);
  }
  if (lower) low = std::min(low, *lower);
  if (upper) high = std::max(high, *upper);
  if (high - low < 1e-12) {
    low -= 1;
    high += 1;
  }
  const double margin = (high - low) * 0.05;
  return {low - margin, high + margin};
}

std::string Svg(const std::string& label, const std::string& inner) {
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-label=\"" + Html(label) +
         "\" width=\"" + Fixed(kWidth) + "\" height=\"" + Fixed(kHeight) + "\" viewBox=\"0 0 " +
         Fixed(kWidth) + " " + Fixed(kHeight) +
         "\" style=\"background:#fff;border:1px solid #ccc\">" + inner + "</svg>";
}

std::string Text(double x, double y, const std::string& text, const char* anchor = "start") {
  return "<text x=\"" + Fixed(x) + "\" y=\"" + Fixed(y) + "\" font-size=\"11\" text-anchor=\"" +
         anchor + "\">" + Html(text) + "</text>";
}

std::string HLine(double y, const char* colour, const std::string& label) {
  return "<line x1=\"" + Fixed(kLeft) + "\" x2=\"" + Fixed(kWidth - kRight) + "\" y1=\"" +
         Fixed(y) + "\" y2=\"" + Fixed(y) + "\" stroke=\"" + colour +
         "\" stroke-dasharray=\"6 3\"/>" + Text(kWidth - kRight - 2, y - 3, label, "end");
}

}  // namespace

std::string ValuesChart(const std::vector<CheckReading>& readings, std::optional<double> lower,
                        std::optional<double> upper) {
  // Named values, not a structured binding: the lambdas below capture them.
  const auto range = Range(readings, lower, upper);
  const double low = range.first;
  const double high = range.second;
  const double plotW = kWidth - kLeft - kRight;
  const double plotH = kHeight - kTop - kBottom;
  auto y = [&](double v) { return kTop + plotH * (high - v) / (high - low); };
  const size_t n = readings.size();
  auto x = [&](size_t i) { return kLeft + (n > 1 ? plotW * i / (n - 1) : plotW / 2); };
  std::string inner;
  for (int t = 0; t <= 4; ++t) {
    const double v = low + (high - low) * t / 4;
    inner += "<line x1=\"" + Fixed(kLeft) + "\" x2=\"" + Fixed(kWidth - kRight) + "\" y1=\"" +
             Fixed(y(v)) + "\" y2=\"" + Fixed(y(v)) + "\" stroke=\"#eee\"/>" +
             Text(kLeft - 4, y(v) + 4, Number(v, 4), "end");
  }
  // The line through the readings, then a dot for each failed one; past a
  // few thousand readings the line alone (a page stays small).
  std::string points;
  for (size_t i = 0; i < n; ++i) points += Fixed(x(i)) + "," + Fixed(y(readings[i].value)) + " ";
  if (n > 0) {
    inner +=
        "<polyline fill=\"none\" stroke=\"#36c\" stroke-width=\"1\" points=\"" + points + "\"/>";
  }
  size_t dots = 0;
  for (size_t i = 0; i < n && dots < 2000; ++i) {
    if (readings[i].passed && n > 200) continue;
    ++dots;
    inner += "<circle cx=\"" + Fixed(x(i)) + "\" cy=\"" + Fixed(y(readings[i].value)) +
             "\" r=\"2.5\" fill=\"" + (readings[i].passed ? "#36c" : "#c00") + "\"/>";
  }
  if (lower) inner += HLine(y(*lower), "#c00", "lower " + Number(*lower));
  if (upper) inner += HLine(y(*upper), "#c00", "upper " + Number(*upper));
  if (n > 0) {
    inner += Text(kLeft, kHeight - 8, readings.front().endedAt);
    inner += Text(kWidth - kRight, kHeight - 8, readings.back().endedAt, "end");
  }
  return Svg("readings over time", inner);
}

std::string Histogram(const std::vector<CheckReading>& readings, std::optional<double> lower,
                      std::optional<double> upper, int bins) {
  // Named values, not a structured binding: the lambdas below capture them.
  const auto range = Range(readings, lower, upper);
  const double low = range.first;
  const double high = range.second;
  std::vector<size_t> counts(static_cast<size_t>(bins), 0);
  for (const auto& r : readings) {
    int b = static_cast<int>((r.value - low) / (high - low) * bins);
    counts[static_cast<size_t>(std::clamp(b, 0, bins - 1))]++;
  }
  const size_t most = std::max<size_t>(1, *std::max_element(counts.begin(), counts.end()));
  const double plotW = kWidth - kLeft - kRight;
  const double plotH = kHeight - kTop - kBottom;
  auto x = [&](double v) { return kLeft + plotW * (v - low) / (high - low); };
  std::string inner;
  const double barW = plotW / bins;
  for (int b = 0; b < bins; ++b) {
    const double h = plotH * counts[static_cast<size_t>(b)] / most;
    inner += "<rect x=\"" + Fixed(kLeft + b * barW + 1) + "\" y=\"" + Fixed(kTop + plotH - h) +
             "\" width=\"" + Fixed(std::max(1.0, barW - 2)) + "\" height=\"" + Fixed(h) +
             "\" fill=\"#69c\"><title>" + std::to_string(counts[static_cast<size_t>(b)]) +
             "</title></rect>";
  }
  inner += Text(kLeft - 4, kTop + 10, std::to_string(most), "end");
  inner += Text(kLeft - 4, kTop + plotH, "0", "end");
  for (const auto& [limit, name] : {std::pair{lower, "lower"}, std::pair{upper, "upper"}}) {
    if (!limit) continue;
    inner += "<line x1=\"" + Fixed(x(*limit)) + "\" x2=\"" + Fixed(x(*limit)) + "\" y1=\"" +
             Fixed(kTop) + "\" y2=\"" + Fixed(kTop + plotH) +
             "\" stroke=\"#c00\" stroke-dasharray=\"6 3\"/>" +
             Text(x(*limit), kHeight - 8, std::string(name) + " " + Number(*limit), "middle");
  }
  inner += Text(kLeft, kHeight - 20, Number(low, 4));
  inner += Text(kWidth - kRight, kHeight - 20, Number(high, 4), "end");
  return Svg("histogram", inner);
}

std::string Bars(const std::vector<Bar>& bars) {
  const double row = 18;
  const double labelW = 220;
  const double barMax = 360;
  const double height = std::max(row, row * bars.size() + 4);
  std::string inner;
  for (size_t i = 0; i < bars.size(); ++i) {
    const double y = 2 + i * row;
    const double v = std::clamp(bars[i].value, 0.0, 1.0);
    inner += Text(labelW - 6, y + 12, bars[i].label.substr(0, 40), "end");
    inner += "<rect x=\"" + Fixed(labelW) + "\" y=\"" + Fixed(y + 2) + "\" width=\"" +
             Fixed(barMax) + "\" height=\"" + Fixed(row - 5) + "\" fill=\"#eee\"/>";
    inner += "<rect x=\"" + Fixed(labelW) + "\" y=\"" + Fixed(y + 2) + "\" width=\"" +
             Fixed(barMax * v) + "\" height=\"" + Fixed(row - 5) + "\" fill=\"" +
             (v >= 0.95  ? "#4a4"
              : v >= 0.8 ? "#ca3"
                         : "#c44") +
             "\"/>";
    inner += Text(labelW + barMax + 6, y + 12, bars[i].note);
  }
  return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" aria-label=\"yield\" width=\"" +
         Fixed(kWidth) + "\" height=\"" + Fixed(height) + "\" viewBox=\"0 0 " + Fixed(kWidth) +
         " " + Fixed(height) + "\" style=\"background:#fff;border:1px solid #ccc\">" + inner +
         "</svg>";
}

}  // namespace tavrix::plant
