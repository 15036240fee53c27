// SPDX-License-Identifier: LGPL-2.1-or-later
#include "report.h"

#include <glib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bench
{

namespace
{

template <typename... Arguments>
std::string
format(const char *text, Arguments... arguments)
{
  g_autofree char *formatted = g_strdup_printf(text, arguments...);
  return formatted;
}

std::string
secondsText(double seconds)
{
  if (seconds < 999.5e-9)
    return format("%.1f ns", seconds * 1e9);
  if (seconds < 999.5e-6)
    return format("%.2f us", seconds * 1e6);
  if (seconds < 999.5e-3)
    return format("%.2f ms", seconds * 1e3);
  return format("%.2f s", seconds);
}

std::string
spreadText(const Spread &spread)
{
  if (spread.low == spread.high)
    return format("%.4g", spread.median);
  int digits = spread.median < 0.1 ? 4 : spread.median < 10 ? 2 : spread.median < 1000 ? 1 : 0;
  return format("%.*f (%.*f..%.*f)", digits, spread.median, digits, spread.low, digits,
                spread.high);
}

std::string
parameterText(const std::string &name, const Value &value)
{
  if (const auto *text = std::get_if<std::string>(&value))
    return *text;
  auto number = std::get<std::int64_t>(value);
  return name == "size" ? sizeText(number) : std::to_string(number);
}

std::string
timingText(const Timing &timing, std::int64_t bytes)
{
  double median = spreadOf(timing.seconds).median;
  std::string text = timing.name + " " + secondsText(median);
  if (bytes > 0)
    text += format(" %.1f MB/s", static_cast<double>(bytes) / median / 1e6);
  return text;
}

void
printRow(const Row &row)
{
  for (const auto &[name, value] : row.parameters)
    std::printf("%-*s ", name == "size" ? 8 : 10, parameterText(name, value).c_str());
  for (const auto &timing : row.timings)
    std::printf("| %s ", timingText(timing, row.bytes).c_str());
  for (const auto &ratio : row.ratios)
    std::printf("| %s/%s %s ", ratio.subject.c_str(), ratio.yardstick.c_str(),
                spreadText(ratio.spread).c_str());
  for (const auto &figure : row.figures)
    std::printf("| %s %s ", figure.name.c_str(), spreadText(figure.spread).c_str());
  std::printf("\n");
  std::fflush(stdout);
}

// ---- JSON ----

std::string
quoted(const std::string &text)
{
  std::string json = "\"";
  for (char c : text)
    if (c == '"' || c == '\\')
      json += std::string("\\") + c;
    else if (static_cast<unsigned char>(c) < 0x20)
      json += format("\\u%04x", static_cast<unsigned>(c));
    else
      json += c;
  return json + "\"";
}

std::string
number(double value)
{
  if (!std::isfinite(value))
    return "null";
  char buffer[G_ASCII_DTOSTR_BUF_SIZE];
  return g_ascii_formatd(buffer, sizeof buffer, "%.6g", value);
}

std::string
json(const Value &value)
{
  const auto *text = std::get_if<std::string>(&value);
  return text ? quoted(*text) : std::to_string(std::get<std::int64_t>(value));
}

std::string
json(const Spread &spread)
{
  return "{\"low\": " + number(spread.low) + ", \"median\": " + number(spread.median) +
         ", \"high\": " + number(spread.high) + "}";
}

std::string
json(const Parameters &parameters)
{
  std::string text;
  for (const auto &[name, value] : parameters)
    text += (text.empty() ? "" : ", ") + quoted(name) + ": " + json(value);
  return "{" + text + "}";
}

std::string
json(const Timing &timing)
{
  std::string rounds;
  for (double seconds : timing.seconds)
    rounds += (rounds.empty() ? "" : ", ") + number(seconds);
  return "{\"name\": " + quoted(timing.name) + ", \"seconds\": " + json(spreadOf(timing.seconds)) +
         ", \"rounds\": [" + rounds + "]}";
}

std::string
json(const Ratio &ratio)
{
  return "{\"subject\": " + quoted(ratio.subject) + ", \"yardstick\": " + quoted(ratio.yardstick) +
         ", \"ratio\": " + json(ratio.spread) + "}";
}

std::string
json(const Figure &figure)
{
  return "{\"name\": " + quoted(figure.name) + ", \"value\": " + json(figure.spread) + "}";
}

std::string json(const Row &row);
std::string json(const Group &group);
std::string json(const Goal &goal);

template <typename Items>
std::string
jsonList(const Items &items, const char *separator = ", ")
{
  std::string text;
  for (const auto &item : items)
    text += (text.empty() ? "" : separator) + json(item);
  return "[" + text + "]";
}

std::string
json(const Row &row)
{
  return "\n      {\"parameters\": " + json(row.parameters) +
         ", \"bytes\": " + std::to_string(row.bytes) +
         ",\n       \"timings\": " + jsonList(row.timings, ",\n                   ") +
         ",\n       \"ratios\": " + jsonList(row.ratios) +
         ", \"figures\": " + jsonList(row.figures) + "}";
}

std::string
json(const Group &group)
{
  return "\n    {\"name\": " + quoted(group.name) + ", \"title\": " + quoted(group.title) +
         ",\n     \"method\": " + quoted(group.method) +
         ",\n     \"rows\": " + jsonList(group.rows, ",") + "}";
}

std::string
json(const Goal &goal)
{
  return "\n    {\"text\": " + quoted(goal.text) + ", \"sense\": \"" +
         (goal.atLeast ? "at least" : "at most") + "\", \"limit\": " + number(goal.limit) +
         ", \"stretch\": " + (goal.stretch ? number(*goal.stretch) : "null") +
         ", \"unit\": " + quoted(goal.unit) +
         ",\n     \"worst\": " + (goal.worst ? number(*goal.worst) : "null") +
         ", \"middle\": " + (goal.worst ? number(goal.middle) : "null") +
         ", \"where\": " + quoted(goal.where) + ", \"verdict\": " + quoted(goal.verdict()) + "}";
}

} // namespace

std::string
sizeText(std::int64_t bytes)
{
  if (bytes >= 1 << 20 && bytes % (1 << 20) == 0)
    return std::to_string(bytes >> 20) + " MiB";
  if (bytes >= 1 << 10 && bytes % (1 << 10) == 0)
    return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes) + " B";
}

Spread
exactly(double value)
{
  return {value, value, value};
}

std::vector<Ratio>
ratiosOf(const std::vector<Timing> &timings, const std::vector<Comparison> &comparisons)
{
  auto named = [&](const std::string &name) -> const Timing & {
    for (const auto &timing : timings)
      if (timing.name == name)
        return timing;
    g_error("no contender is named %s", name.c_str());
  };
  std::vector<Ratio> ratios;
  for (const auto &[subject, yardstick] : comparisons)
    ratios.push_back({subject, yardstick, timesFaster(named(subject), named(yardstick))});
  return ratios;
}

// ---- Row ----

std::int64_t
Row::number(const std::string &parameter) const
{
  for (const auto &[name, value] : parameters)
    if (const auto *found = std::get_if<std::int64_t>(&value); found && name == parameter)
      return *found;
  return 0;
}

std::string
Row::text(const std::string &parameter) const
{
  for (const auto &[name, value] : parameters)
    if (const auto *found = std::get_if<std::string>(&value); found && name == parameter)
      return *found;
  return "";
}

const Ratio *
Row::ratio(const std::string &subject, const std::string &yardstick) const
{
  for (const auto &ratio : ratios)
    if (ratio.subject == subject && ratio.yardstick == yardstick)
      return &ratio;
  return nullptr;
}

const Timing *
Row::timing(const std::string &name) const
{
  for (const auto &timing : timings)
    if (timing.name == name)
      return &timing;
  return nullptr;
}

const Figure *
Row::figure(const std::string &name) const
{
  for (const auto &figure : figures)
    if (figure.name == name)
      return &figure;
  return nullptr;
}

std::string
Row::label() const
{
  std::string text;
  for (const auto &[name, value] : parameters)
    text += (text.empty() ? "" : ", ") + parameterText(name, value);
  return text;
}

bool
Goal::reaches(double value) const
{
  return worst && (atLeast ? *worst >= value : *worst <= value);
}

const char *
Goal::verdict() const
{
  return stretch && reaches(*stretch) ? "stretch" : reaches(limit) ? "reached" : "MISSED";
}

// ---- Report ----

void
Report::begin(const std::string &name, const std::string &title, const std::string &method)
{
  _groups.push_back({name, title, method, {}});
  std::printf("\n== %s: %s\n   %s\n", name.c_str(), title.c_str(), method.c_str());
  std::fflush(stdout);
}

void
Report::add(Row row)
{
  printRow(row);
  _groups.back().rows.push_back(std::move(row));
}

bool
Report::wants(const Parameters &parameters) const
{
  auto has = [&](const std::string &wanted) {
    return std::any_of(parameters.begin(), parameters.end(), [&](const auto &parameter) {
      return parameterText(parameter.first, parameter.second) == wanted;
    });
  };
  return std::all_of(_selection.only.begin(), _selection.only.end(), has);
}

void
Report::addRace(Parameters parameters, std::int64_t bytes, std::vector<Timing> timings,
                std::vector<Comparison> comparisons)
{
  if (comparisons.empty())
    for (std::size_t i = 1; i < timings.size(); i++)
      comparisons.emplace_back(timings[0].name, timings[i].name);
  auto ratios = ratiosOf(timings, comparisons);
  add({std::move(parameters), bytes, std::move(timings), std::move(ratios), {}});
}

void
Report::race(Parameters parameters, std::int64_t bytes, const std::vector<Contender> &contenders,
             const std::vector<Comparison> &comparisons)
{
  addRace(std::move(parameters), bytes, takeTurns(contenders, _effort), comparisons);
}

void
Report::race(Parameters parameters, std::int64_t bytes, const Duel &duel,
             const std::vector<Comparison> &comparisons)
{
  addRace(std::move(parameters), bytes, takeTurns(duel, _effort), comparisons);
}

const Group *
Report::group(const std::string &name) const
{
  for (const auto &group : _groups)
    if (group.name == name)
      return &group;
  return nullptr;
}

// Goals whose groups did not run are left out.
void
Report::printGoals(const std::vector<Goal> &goals) const
{
  std::printf("\n== goals\n");
  for (const auto &goal : goals) {
    if (!goal.worst)
      continue;
    std::printf("%-8s %s: %s %g%s", goal.verdict(), goal.text.c_str(),
                goal.atLeast ? "at least" : "at most", goal.limit, goal.unit.c_str());
    if (goal.stretch)
      std::printf(" (stretch %g%s)", *goal.stretch, goal.unit.c_str());
    std::printf("; worst %.3g%s (%s), middle %.3g%s\n", *goal.worst, goal.unit.c_str(),
                goal.where.c_str(), goal.middle, goal.unit.c_str());
  }
}

bool
Report::writeJson(const std::string &path, const Parameters &machine,
                  const std::vector<Goal> &goals) const
{
  std::string text =
      "{\n  \"quick\": " + std::string(_effort.quick ? "true" : "false") +
      ", \"rounds\": " + std::to_string(_effort.rounds) + ", \"slice\": " + number(_effort.slice) +
      ",\n  \"machine\": " + json(machine) + ",\n  \"goals\": " + jsonList(goals, ",") +
      ",\n  \"groups\": " + jsonList(_groups, ",") + "\n}\n";
  return g_file_set_contents(path.c_str(), text.data(), static_cast<gssize>(text.size()), nullptr);
}

} // namespace bench
