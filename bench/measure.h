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

// The rows of one group. Only rows are measured that have all `values` among their parameters.
class Report
{
public:
  Report(std::string group, const Effort &effort, std::vector<std::string> values)
      : effort(effort), values(std::move(values)), _group(std::move(group))
  {
  }

  // Measures and prints a row, if it is wanted. `figures` are values that are not times.
  void race(const Parameters &parameters, const std::vector<Contender> &contenders,
            const Figures &figures = {}) const;

  const Effort effort;
  const std::vector<std::string> values;

private:
  bool wants(const Parameters &parameters) const;

  std::string _group;
};

// The groups.
void measureBlocking(const Report &report);
void measureChannels(const Report &report);
void measureStages(const Report &report);
void measureAsync(const Report &report);
void measureStrings(const Report &report);
void measureCiphers(const Report &report);
void measureConverters(const Report &report);
void measureCodec(const Report &report);

// Rows that need a fresh process each, with all their parameters as values.
void measureCrowd(const Report &report);
void measureMemory(const Report &report);
void measureWork(const Report &report);

} // namespace bench
