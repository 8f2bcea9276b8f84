#include "resulttable.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iomanip>

namespace zubench {

std::string formatNumber(double value, int decimals) {
  char text[64];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

std::string formatDuration(double ns) {
  if (std::isnan(ns)) return "n/a";
  if (ns < 1e3) return formatNumber(ns, 1) + " ns";
  if (ns < 1e6) return formatNumber(ns / 1e3, 2) + " us";
  if (ns < 1e9) return formatNumber(ns / 1e6, 2) + " ms";
  return formatNumber(ns / 1e9, 2) + " s";
}

void ResultTable::addRatio(const std::string& what, double time, const std::string& baseName,
                           double base, double maxRatio) {
  const double ratio = time / base;
  const bool measured = !std::isnan(ratio);
  std::string holds = "-";
  if (maxRatio > 0) holds = !measured ? "n/a" : ratio <= maxRatio ? "yes" : "no";
  rows_.push_back(Row{what, formatDuration(time), baseName + " " + formatDuration(base),
                      measured ? formatNumber(ratio, 2) : "n/a",
                      maxRatio > 0 ? "<= " + formatNumber(maxRatio, 1) : "report", holds, false});
}

void ResultTable::addText(const std::string& what, const std::string& time, const std::string& base,
                          const std::string& ratio, const std::string& goal,
                          const std::string& holds) {
  rows_.push_back(Row{what, time, base, ratio, goal, holds, false});
}

void ResultTable::addSection(const std::string& title) {
  rows_.push_back(Row{title, "", "", "", "", "", true});
}

int ResultTable::failures() const {
  return static_cast<int>(
      std::count_if(rows_.begin(), rows_.end(), [](const Row& row) { return row.holds == "no"; }));
}

void ResultTable::print(std::ostream& out) const {
  const Row header{"case", "time", "floor or baseline", "ratio", "goal", "holds", false};
  std::size_t width[5] = {0, 0, 0, 0, 0};
  auto widen = [&width](const Row& row) {
    if (row.section) return;
    const std::string* cells[5] = {&row.what, &row.time, &row.base, &row.ratio, &row.goal};
    for (int i = 0; i < 5; ++i) width[i] = std::max(width[i], cells[i]->size());
  };
  widen(header);
  for (const Row& row : rows_) widen(row);

  auto printRow = [&](const Row& row) {
    if (row.section) {
      out << "\n" << row.what << "\n";
      return;
    }
    out << std::left << std::setw(static_cast<int>(width[0])) << row.what << "  " << std::right
        << std::setw(static_cast<int>(width[1])) << row.time << "  " << std::left
        << std::setw(static_cast<int>(width[2])) << row.base << "  " << std::right
        << std::setw(static_cast<int>(width[3])) << row.ratio << "  " << std::left
        << std::setw(static_cast<int>(width[4])) << row.goal << "  " << row.holds << "\n";
  };
  printRow(header);
  for (const Row& row : rows_) printRow(row);
}

}  // namespace zubench
