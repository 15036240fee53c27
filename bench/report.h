// SPDX-License-Identifier: LGPL-2.1-or-later
// What was measured: rows in groups, printed as a table as they come and written as JSON at the
// end.
#pragma once

#include "measure.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>
#include <variant>

namespace bench
{

using Value = std::variant<std::int64_t, std::string>;
using Parameters = std::vector<std::pair<std::string, Value>>;

// How many times faster `subject` was than `yardstick`.
struct Ratio {
  std::string subject;
  std::string yardstick;
  Spread spread;
};

// A figure that is not a time: bytes of memory, instructions, percent.
struct Figure {
  std::string name;
  Spread spread;
};

struct Row {
  Parameters parameters;
  std::int64_t bytes = 0; // of message an operation moves; 0 where a rate says nothing
  std::vector<Timing> timings;
  std::vector<Ratio> ratios;
  std::vector<Figure> figures;

  // A parameter; 0 or empty where the row has no such parameter or it is of the other kind.
  std::int64_t number(const std::string &parameter) const;
  std::string text(const std::string &parameter) const;
  const Ratio *ratio(const std::string &subject, const std::string &yardstick) const;
  const Timing *timing(const std::string &name) const;
  const Figure *figure(const std::string &name) const;
  std::string label() const;
};

struct Group {
  std::string name;
  std::string title;
  std::string method;
  std::deque<Row> rows;
};

// A goal and how it was met. Only the worst row counts; the middle one says how typical it is.
struct Goal {
  std::string text;
  bool atLeast; // else at most
  double limit;
  std::string unit;
  std::optional<double> worst; // none where it was not measured
  double middle = 0;
  std::string where; // the worst row
  std::optional<double> stretch = {};

  bool reaches(double value) const;
  // "MISSED", "reached" or, beyond the stretch goal, "stretch".
  const char *verdict() const;
};

// Describes the measurement.
struct Selection {
  std::vector<std::string> only; // rows that have all of these among their parameters
  std::string other;             // the folder of another build of the library
  std::string otherName;
};

// The subject and the yardstick of a ratio, by name.
using Comparison = std::pair<std::string, std::string>;

class Report
{
public:
  Report(const Effort &effort, Selection selection)
      : _effort(effort), _selection(std::move(selection))
  {
  }

  const Selection &
  selection() const
  {
    return _selection;
  }

  const Effort &
  effort() const
  {
    return _effort;
  }

  void begin(const std::string &name, const std::string &title, const std::string &method);
  void add(Row row);
  const Group *group(const std::string &name) const;

  // FALSE for a row that was not asked for.
  bool wants(const Parameters &parameters) const;

  // Measures, compares, the first contender with all others if nothing is said, and adds the row.
  void race(Parameters parameters, std::int64_t bytes, const std::vector<Contender> &contenders,
            const std::vector<Comparison> &comparisons = {});
  void race(Parameters parameters, std::int64_t bytes, const Duel &duel,
            const std::vector<Comparison> &comparisons = {});

  void printGoals(const std::vector<Goal> &goals) const;
  // FALSE where the file cannot be written.
  bool writeJson(const std::string &path, const Parameters &machine,
                 const std::vector<Goal> &goals) const;

private:
  void addRace(Parameters parameters, std::int64_t bytes, std::vector<Timing> timings,
               std::vector<Comparison> comparisons);

  Effort _effort;
  Selection _selection;
  std::deque<Group> _groups;
};

// A figure that was taken once.
Spread exactly(double value);

std::vector<Ratio> ratiosOf(const std::vector<Timing> &timings,
                            const std::vector<Comparison> &comparisons);

// "64 KiB" and the like; what is no whole multiple stays in bytes.
std::string sizeText(std::int64_t bytes);

} // namespace bench
