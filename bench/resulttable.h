#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace zubench {

/// The closing table: one row per case with its time, its floor or baseline,
/// the ratio of the two, the goal and whether the goal holds. Not thread safe.
class ResultTable {
 public:
  /// A row comparing `time` with `base` (both nanoseconds, NaN when not
  /// measured). `maxRatio` 0 means there is no goal: the ratio is reported.
  void addRatio(const std::string& what, double time, const std::string& baseName, double base,
                double maxRatio);
  /// A row given as text; `holds` is "yes", "no" or "-".
  void addText(const std::string& what, const std::string& time, const std::string& base,
               const std::string& ratio, const std::string& goal, const std::string& holds);
  /// A heading row.
  void addSection(const std::string& title);

  void print(std::ostream& out) const;
  /// Number of rows whose goal does not hold.
  int failures() const;

 private:
  struct Row {
    std::string what, time, base, ratio, goal, holds;
    bool section;
  };
  std::vector<Row> rows_;
};

/// "123 ns", "45.6 us", "7.89 ms" or "n/a" for NaN.
std::string formatDuration(double nanoseconds);
/// `value` with `decimals` digits after the point.
std::string formatNumber(double value, int decimals);

}  // namespace zubench
