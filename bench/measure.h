// SPDX-License-Identifier: LGPL-2.1-or-later
// How everything here is measured: contenders take turns in one process, round by round. Results
// are rows of JSON on standard output, with the time of each round, so that run.py can compare
// contenders within a round.
#pragma once

#include "tests/support/values.h"

#include <cstdint>
#include <functional>
#include <map>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace bench
{

using support::BytesRef;
using support::Ref;

// Ends the program if a call failed: a benchmark of failing calls measures nothing.
inline void
must(bool success, const GError *error, const char *what)
{
  if (!success)
    g_error("%s: %s", what, error ? error->message : "failed");
}

// Converts all of `in`; returns the size of the output.
std::size_t convert(GConverter *converter, std::span<const std::uint8_t> in,
                    std::span<std::uint8_t> out);

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

// The value of a parameter: a text, or a number.
struct Value {
  Value(const char *text) : text(text), json('"' + this->text + '"') {}
  Value(const std::string &text) : Value(text.c_str()) {}
  Value(std::int64_t number) : text(std::to_string(number)), json(text) {}

  std::string text;
  std::string json;
};

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
