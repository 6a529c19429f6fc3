// The pieces the plant view's pages are made of: escaped text, the page
// frame with its style (all inline: a station often has no internet, so a
// page names no file from elsewhere), and charts drawn on the server as SVG.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "resultsdb/results_analytics.h"

namespace tavrix::plant {

// Text made safe inside HTML elements and quoted attributes.
std::string Html(std::string_view text);
// Text made safe as one component of a URL's query or path.
std::string Url(std::string_view text);

// A whole page: `title`, the navigation (with `section` marked), `body`
// (HTML already), and the script `script` when given (inline).
std::string Page(std::string_view title, std::string_view section, std::string_view body,
                 std::string_view script = {});

// A number as a page shows it: up to `digits` significant digits.
std::string Number(double value, int digits = 6);
// "97.5%"; "-" when nothing was tested.
std::string Percent(int part, int whole);

// The readings of one check in the order they were taken, the limits drawn
// as lines, failed readings in red.
std::string ValuesChart(const std::vector<CheckReading>& readings, std::optional<double> lower,
                        std::optional<double> upper);
// How the readings fall into `bins` equal classes between the smallest and
// largest of the readings and the limits, the limits drawn.
std::string Histogram(const std::vector<CheckReading>& readings, std::optional<double> lower,
                      std::optional<double> upper, int bins = 20);

// One bar a row, its length the fraction `value` (0..1), labelled.
struct Bar {
  std::string label;
  double value = 0;
  std::string note;  // shown after the bar ("12 of 13")
};
std::string Bars(const std::vector<Bar>& bars);

}  // namespace tavrix::plant
