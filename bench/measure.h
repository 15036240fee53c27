// SPDX-License-Identifier: LGPL-2.1-or-later
// How everything here is measured: the contenders take turns, round by round, in one process, and
// what is compared is what they took in the same round.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace bench
{

// How much work goes into a figure.
struct Effort {
  bool quick = false;
  unsigned rounds = 31; // fewer, but not fewer than leastRounds, where a turn takes longer
  double slice = 0.002; // seconds of a round that each contender is meant to have
  unsigned leastRounds = 7;
  unsigned batches = 8; // in which it has them, taking turns

  // For contenders that start and stop a second thread at each turn, which must not count for much.
  Effort
  withLongTurns() const
  {
    return {quick, quick ? rounds : rounds / 2, slice * 6, leastRounds, 1};
  }
};

// One way to do what is measured; run(n) does it n times, or n times as many operations as it says.
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

// Seconds per operation, round by round.
struct Timing {
  std::string name;
  std::vector<double> seconds;
};

// The quartiles of a series.
struct Spread {
  double low;
  double median;
  double high;
};

Spread spreadOf(std::vector<double> values);

// Contenders of which each turn takes two threads that go by one plan. What they take depends on
// where the scheduler happens to have put the threads at that time.
// run(batches, first, seconds) lets each do that many batches, contender `first` beginning, and
// adds what each batch took for an operation to seconds[contender].
struct Duel {
  std::vector<std::string> names;
  std::size_t operations; // of a batch
  std::function<void(std::size_t batches, std::size_t first,
                     std::vector<std::vector<double>> &seconds)>
      run;
};

// Warms every contender up, finds how often it must run to fill a slice, and then lets them take
// turns, a batch of operations each, several in a round. A round counts for a contender as the
// median of its batches, so that what else the machine does in between is left out.
std::vector<Timing> takeTurns(const std::vector<Contender> &contenders, const Effort &effort);

std::vector<Timing> takeTurns(const Duel &duel, const Effort &effort);

// How many times faster `mine` was than `other`.
Spread timesFaster(const Timing &mine, const Timing &other);

} // namespace bench
