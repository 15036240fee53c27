// SPDX-License-Identifier: LGPL-2.1-or-later
#include "measure.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numeric>

namespace bench
{

// Between neighbours where the place falls between two values.
static double
quantile(const std::vector<double> &sorted, double place)
{
  double at = place * static_cast<double>(sorted.size() - 1);
  auto below = static_cast<std::size_t>(at);
  auto above = std::min(below + 1, sorted.size() - 1);
  return sorted[below] + (at - static_cast<double>(below)) * (sorted[above] - sorted[below]);
}

Spread
spreadOf(std::vector<double> values)
{
  if (values.empty())
    return {NAN, NAN, NAN};
  std::sort(values.begin(), values.end());
  return {quantile(values, 0.25), quantile(values, 0.5), quantile(values, 0.75)};
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
  // The first one warms up; of what takes very long it is enough of a measure.
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

// Some turns are longer than a slice because one operation is; they get fewer rounds.
static unsigned
affordableRounds(double roundSeconds, std::size_t contenders, const Effort &effort)
{
  double wanted = effort.slice * static_cast<double>(contenders) * effort.rounds;
  double affordable = std::clamp(1.5 * wanted / roundSeconds, 0.0, 1e6);
  return std::clamp(static_cast<unsigned>(affordable), std::min(effort.leastRounds, effort.rounds),
                    effort.rounds);
}

// Every contender's batches of one round, contender `first` beginning each time.
static std::vector<double>
playRound(const std::vector<Contender> &contenders, const std::vector<Turn> &turns,
          std::size_t first, unsigned batches)
{
  std::vector<std::vector<double>> seconds(contenders.size());
  for (unsigned batch = 0; batch < batches; batch++)
    for (std::size_t turn = 0; turn < contenders.size(); turn++) {
      auto i = (first + turn) % contenders.size();
      auto operations = static_cast<double>(turns[i].times * contenders[i].operations);
      seconds[i].push_back(timed(contenders[i], turns[i].times) / operations);
    }

  std::vector<double> medians;
  for (auto &of : seconds)
    medians.push_back(spreadOf(std::move(of)).median);
  return medians;
}

std::vector<Timing>
takeTurns(const std::vector<Contender> &contenders, const Effort &effort)
{
  std::vector<Timing> timings;
  std::vector<Turn> turns;
  double batchSeconds = 0;
  for (const auto &contender : contenders) {
    timings.push_back({contender.name, {}});
    turns.push_back(fillSlice(contender, effort.slice / effort.batches));
    batchSeconds += turns.back().seconds;
  }

  double wanted = effort.slice * static_cast<double>(contenders.size());
  auto batches = static_cast<unsigned>(
      std::clamp(std::round(wanted / batchSeconds), 1.0, static_cast<double>(effort.batches)));
  auto rounds = affordableRounds(batchSeconds * batches, contenders.size(), effort);
  for (unsigned round = 0; round < rounds; round++) {
    auto medians = playRound(contenders, turns, round % contenders.size(), batches);
    for (std::size_t i = 0; i < contenders.size(); i++)
      timings[i].seconds.push_back(medians[i]);
  }
  return timings;
}

std::vector<Timing>
takeTurns(const Duel &duel, const Effort &effort)
{
  auto contenders = duel.names.size();
  double wanted = effort.slice * static_cast<double>(contenders);
  std::vector<std::vector<double>> seconds;
  auto run = [&](std::size_t batches, std::size_t first) {
    seconds.assign(contenders, {});
    duel.run(batches, first, seconds);
    double total = 0;
    for (const auto &of : seconds)
      total = std::accumulate(of.begin(), of.end(), total);
    return total * static_cast<double>(duel.operations);
  };

  // The first one warms up; of what takes very long it is enough of a measure.
  std::size_t batches = 1;
  double taken = run(batches, 0);
  if (taken <= 32 * wanted)
    taken = run(batches, 0);
  while (taken < wanted / 4) {
    double more = std::min(wanted / taken, 16.0);
    batches = static_cast<std::size_t>(std::ceil(static_cast<double>(batches) * more));
    taken = run(batches, 0);
  }
  double fitting = std::max(1.0, std::round(static_cast<double>(batches) * wanted / taken));
  taken *= fitting / static_cast<double>(batches);

  std::vector<Timing> timings;
  for (const auto &name : duel.names)
    timings.push_back({name, {}});
  auto rounds = affordableRounds(taken, contenders, effort);
  for (unsigned round = 0; round < rounds; round++) {
    run(static_cast<std::size_t>(fitting), round % contenders);
    for (std::size_t i = 0; i < contenders; i++)
      timings[i].seconds.push_back(spreadOf(seconds[i]).median);
  }
  return timings;
}

Spread
timesFaster(const Timing &mine, const Timing &other)
{
  std::vector<double> ratios;
  for (std::size_t i = 0; i < mine.seconds.size(); i++)
    ratios.push_back(other.seconds[i] / mine.seconds[i]);
  return spreadOf(ratios);
}

} // namespace bench
