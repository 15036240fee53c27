// SPDX-License-Identifier: LGPL-2.1-or-later
#include "measure.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

namespace bench
{

constexpr unsigned leastRounds = 7;

static double
medianOf(std::vector<double> values)
{
  auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

static double
timed(const Contender &contender, std::size_t times)
{
  auto before = std::chrono::steady_clock::now();
  contender.run(times);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
}

// How a contender spends a turn.
struct Turn {
  std::size_t times;
  double seconds; // about
};

static Turn
fillSlice(const Contender &contender, double slice)
{
  // The first run warms up. If it takes very long, it is enough of a measure.
  if (double first = timed(contender, 1); first > 32 * slice)
    return {1, first};
  for (std::size_t times = 1;;) {
    double taken = timed(contender, times);
    double wanted = static_cast<double>(times) * slice / taken;
    if (taken >= slice / 4) {
      double chosen = std::max(1.0, std::round(wanted));
      return {static_cast<std::size_t>(chosen), chosen * taken / static_cast<double>(times)};
    }
    times = static_cast<std::size_t>(std::ceil(std::min(wanted, static_cast<double>(times) * 16)));
  }
}

// All batches of one round; contender `first` begins each of them.
static void
playRound(const std::vector<Contender> &contenders, const std::vector<Turn> &turns,
          std::size_t first, unsigned batches, std::vector<std::vector<double>> &rounds)
{
  std::vector<std::vector<double>> seconds(contenders.size());
  for (unsigned batch = 0; batch < batches; batch++)
    for (std::size_t turn = 0; turn < contenders.size(); turn++) {
      auto i = (first + turn) % contenders.size();
      auto operations = static_cast<double>(turns[i].times * contenders[i].operations);
      seconds[i].push_back(timed(contenders[i], turns[i].times) / operations);
    }
  for (std::size_t i = 0; i < contenders.size(); i++)
    rounds[i].push_back(medianOf(std::move(seconds[i])));
}

// Seconds per operation of each contender, round by round. Every contender warms up and finds how
// often it must run to fill its slice. A round counts as the median of its batches, which leaves
// out interruptions by other programs.
static std::vector<std::vector<double>>
takeTurns(const std::vector<Contender> &contenders, const Effort &effort)
{
  std::vector<Turn> turns;
  double batchSeconds = 0;
  for (const auto &contender : contenders) {
    turns.push_back(fillSlice(contender, effort.slice / effort.batches));
    batchSeconds += turns.back().seconds;
  }

  double wanted = effort.slice * static_cast<double>(contenders.size());
  double batches = std::clamp(std::round(wanted / batchSeconds), 1.0, 1.0 * effort.batches);
  double affordable = std::min(1.5 * wanted * effort.rounds / (batchSeconds * batches), 1e6);
  auto count = std::clamp(static_cast<unsigned>(affordable), std::min(leastRounds, effort.rounds),
                          effort.rounds);
  std::vector<std::vector<double>> rounds(contenders.size());
  for (unsigned round = 0; round < count; round++)
    playRound(contenders, turns, round % contenders.size(), static_cast<unsigned>(batches), rounds);
  return rounds;
}

// ---- Rows ----

// The items as JSON, with commas between them. Names and values need no escapes.
template <typename Items, typename Json>
static std::string
joined(const Items &items, Json json)
{
  std::string text;
  for (const auto &item : items)
    text += (text.empty() ? "" : ", ") + json(item);
  return text;
}

static std::string
member(const std::string &name, const std::string &json)
{
  return '"' + name + "\": " + json;
}

static std::string
number(double value)
{
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

void
Report::race(const Parameters &parameters, const std::vector<Contender> &contenders,
             const Figures &figures) const
{
  auto has = [&](const std::string &wanted) {
    return std::ranges::any_of(parameters,
                               [&](const auto &item) { return item.second.text == wanted; });
  };
  if (!std::ranges::all_of(values, has))
    return;
  auto rounds =
      contenders.empty() ? std::vector<std::vector<double>>() : takeTurns(contenders, effort);
  auto row =
      joined(parameters, [](const auto &item) { return member(item.first, item.second.json); });
  auto seconds = joined(contenders, [&, i = 0U](const Contender &contender) mutable {
    return member(contender.name, '[' + joined(rounds[i++], number) + ']');
  });
  auto others = joined(
      figures, [](const auto &figure) { return member(figure.first, number(figure.second)); });
  std::printf("{\"group\": \"%s\", %s, \"seconds\": {%s}, \"figures\": {%s}}\n", _group.c_str(),
              row.c_str(), seconds.c_str(), others.c_str());
  std::fflush(stdout);
}

std::size_t
convert(GConverter *converter, std::span<const std::uint8_t> in, std::span<std::uint8_t> out)
{
  gsize nread, written;
  GError *error = nullptr;
  auto result = g_converter_convert(converter, in.data(), in.size(), out.data(), out.size(),
                                    G_CONVERTER_NO_FLAGS, &nread, &written, &error);
  must(result == G_CONVERTER_CONVERTED, error, "convert");
  return written;
}

} // namespace bench
