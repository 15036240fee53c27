// SPDX-License-Identifier: LGPL-2.1-or-later
// How everything here is measured: contenders take turns in one process, round by round. Results
// are rows of JSON on standard output, with the time of each round, so that report.py can compare
// contenders within a round.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace bench
{

// How much work goes into a figure.
struct Effort {
  bool quick = false;
  unsigned rounds = 31; // fewer if a turn takes longer than its slice
  double slice = 0.002; // seconds of a round for each contender
  unsigned batches = 8; // in which contenders take turns within a round
};

// One way to do what is measured. run(n) does it n times, each with this many operations.
struct Contender {
  std::string name;
  std::function<void(std::size_t)> run;
  std::size_t operations = 1;
};

// Runs `once` as often as asked.
template <typename Once>
std::function<void(std::size_t)>
repeat(Once once)
{
  return [once](std::size_t times) mutable {
    for (std::size_t i = 0; i < times; i++)
      once();
  };
}

using Value = std::variant<std::int64_t, std::string>;
using Parameters = std::vector<std::pair<std::string, Value>>;
using Figures = std::map<std::string, double>;

// The rows of one group.
class Report
{
public:
  Report(std::string group, const Effort &effort, std::vector<std::string> only)
      : _group(std::move(group)), _effort(effort), _only(std::move(only))
  {
  }

  const Effort &
  effort() const
  {
    return _effort;
  }

  // False for a row that was not asked for.
  bool wants(const Parameters &parameters) const;

  // Measures and prints a row, if it is wanted. `figures` are values that are not times.
  void race(const Parameters &parameters, const std::vector<Contender> &contenders,
            const Figures &figures = {}) const;

private:
  std::string _group;
  Effort _effort;
  std::vector<std::string> _only;
};

} // namespace bench
