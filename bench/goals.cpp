// SPDX-License-Identifier: LGPL-2.1-or-later
#include "groups.h"

#include <algorithm>
#include <cmath>

namespace bench
{

namespace
{

// A figure of a row and the row's name.
struct Sample {
  double value;
  std::string where;
};

using Samples = std::vector<Sample>;

// What `figureOf` finds in the rows of a group; it answers NAN for rows that do not count.
template <typename FigureOf>
Samples
samplesOf(const Report &report, const char *group, FigureOf figureOf)
{
  Samples samples;
  if (const auto *found = report.group(group))
    for (const auto &row : found->rows)
      if (double value = figureOf(row); std::isfinite(value))
        samples.push_back({value, row.label()});
  return samples;
}

Goal
judge(std::string text, bool atLeast, double limit, std::string unit, Samples samples)
{
  Goal goal{std::move(text), atLeast, limit, std::move(unit), {}, 0, ""};
  if (samples.empty())
    return goal;
  std::sort(samples.begin(), samples.end(),
            [](const auto &a, const auto &b) { return a.value < b.value; });
  const auto &worst = atLeast ? samples.front() : samples.back();
  goal.worst = worst.value;
  goal.where = worst.where;
  goal.middle = samples[samples.size() / 2].value;
  return goal;
}

double
ratioOf(const Row &row, const char *subject, const char *yardstick)
{
  const auto *ratio = row.ratio(subject, yardstick);
  return ratio ? ratio->spread.median : NAN;
}

Goal
cipherGoal(const Report &report, const char *direction, bool small, double limit)
{
  auto samples = samplesOf(report, "ciphers", [=](const Row &row) {
    bool counts = small ? row.number("size") == 64 : row.number("size") >= 4096;
    return counts && row.text("direction") == direction ? ratioOf(row, "zelgvc", "libgcrypt") : NAN;
  });
  std::string who = std::string(direction) == "encrypt" ? "Encryptor" : "Decryptor";
  return judge(who + " beside bare libgcrypt, records of " + (small ? "64 B" : "4 KiB and more"),
               true, limit, "", samples);
}

Goal
converterGoal(const Report &report, const char *direction)
{
  auto samples = samplesOf(report, "converters", [=](const Row &row) {
    bool counts = row.number("size") >= 4096 && row.text("direction") == direction;
    return counts ? ratioOf(row, "zelgvc", "codec") : NAN;
  });
  std::string who = std::string(direction) == "compress" ? "Compressor" : "Decompressor";
  return judge(who + " beside the bare codec, blocks of 4 KiB and more", true, 0.97, "", samples);
}

// One sample: the geometric mean.
Samples
meanOf(const Samples &samples)
{
  if (samples.empty())
    return {};
  double logarithms = 0;
  for (const auto &sample : samples)
    logarithms += std::log(sample.value);
  auto count = samples.size();
  return {{std::exp(logarithms / static_cast<double>(count)),
           "mean of " + std::to_string(count) + " rows"}};
}

struct Sizes {
  std::int64_t least;
  std::int64_t most;
};

constexpr Sizes largeBlocks{4096, INT64_MAX};

// The rows of the codec on one half of the corpora.
struct CodecRows {
  const Report &report;
  std::string half;

  template <typename FigureOf>
  Samples
  samples(const char *direction, Sizes sizes, FigureOf figureOf) const
  {
    return samplesOf(report, "codec", [&](const Row &row) {
      bool counts = row.text("half") == half && row.text("direction") == direction &&
                    row.number("size") >= sizes.least && row.number("size") <= sizes.most;
      return counts ? figureOf(row) : NAN;
    });
  }

  Samples
  ratios(const char *direction, Sizes sizes, const char *subject, const char *yardstick) const
  {
    return samples(direction, sizes,
                   [=](const Row &row) { return ratioOf(row, subject, yardstick); });
  }

  // A geometric mean and a least row over large blocks, and a least row over small ones.
  void
  judgeSpeed(std::vector<Goal> &goals, const char *direction, const std::string &what,
             double meanLimit, double leastLimit, const char *subject, const char *yardstick) const
  {
    auto large = ratios(direction, largeBlocks, subject, yardstick);
    auto name = what + " (" + half + " half), blocks of ";
    goals.push_back(
        judge(name + "4 KiB and more, geometric mean", true, meanLimit, "", meanOf(large)));
    goals.push_back(judge(name + "4 KiB and more, each", true, leastLimit, "", large));
    goals.push_back(judge(name + "64 B to 1 KiB, each", true, 1, "",
                          ratios(direction, {64, 1024}, subject, yardstick)));
  }

  std::vector<Goal>
  goals() const
  {
    std::vector<Goal> goals;
    judgeSpeed(goals, "encode", "Encoding beside liblzo2", 1.25, 1, "codec", "lzo");
    judgeSpeed(goals, "decode", "Decoding our streams beside liblzo2", 2.8, 1.6, "codec", "lzo");
    judgeSpeed(goals, "decode", "Decoding liblzo2's beside liblzo2", 2.8, 1.6, "codec on lzo's",
               "lzo on lzo's");
    goals.push_back(judge("Encoded size over that of liblzo2 (" + half + " half), each", false, 100,
                          " %", samples("encode", {0, INT64_MAX}, [](const Row &row) {
                            return 100 * row.figure("codec size %")->spread.median /
                                   row.figure("lzo size %")->spread.median;
                          })));
    goals.push_back(judge("Decoding beside LZ4 on its own streams (" + half +
                              " half), blocks of 4 KiB and more, geometric mean",
                          true, 0.75, "", meanOf(ratios("decode", largeBlocks, "codec", "lz4"))));
    return goals;
  }
};

// By how many percent the dearest of the sizes from 64 KiB on is above the cheapest.
Goal
flatnessGoal(const Report &report, const char *stages)
{
  double least = INFINITY;
  double most = 0;
  std::string where;
  int sizes = 0;
  samplesOf(report, "perbyte", [&](const Row &row) {
    if (row.text("stages") != stages || row.number("size") < 65536)
      return NAN;
    double cost = spreadOf(row.timings.front().seconds).median;
    least = std::min(least, cost);
    if (cost > most)
      where = row.label();
    most = std::max(most, cost);
    sizes++;
    return NAN;
  });
  Samples samples;
  if (sizes > 1)
    samples.push_back({(most / least - 1) * 100, where});
  return judge(std::string("Cost per byte from 64 KiB on, dearest size over cheapest, ") + stages,
               false, 15, " %", samples);
}

// A goal and beyond it the stretch goal.
struct Limits {
  double goal;
  std::optional<double> stretch = {};
};

// The ratio of two contenders in the rows of a group for which `counts` holds.
template <typename Counts>
Goal
raceGoal(const Report &report, const char *group, const char *subject, const char *yardstick,
         std::string text, Limits limits, Counts counts)
{
  auto samples = samplesOf(report, group, [=](const Row &row) {
    return counts(row) ? ratioOf(row, subject, yardstick) : NAN;
  });
  auto goal = judge(std::move(text), true, limits.goal, "", samples);
  goal.stretch = limits.stretch;
  return goal;
}

// A figure of the rows of one kind, which must not be larger than the limit.
Goal
figureGoal(const Report &report, const char *group, const char *parameter, const char *kind,
           const char *figure, std::string text, Limits limits, const char *unit)
{
  auto samples = samplesOf(report, group, [=](const Row &row) {
    const auto *found = row.text(parameter) == kind ? row.figure(figure) : nullptr;
    return found ? found->spread.median : NAN;
  });
  auto goal = judge(std::move(text), false, limits.goal, unit, samples);
  goal.stretch = limits.stretch;
  return goal;
}

std::vector<Goal>
messageGoals(const Report &report)
{
  auto small = [](const Row &row) { return row.number("size") <= 1024; };
  auto sized = [](std::int64_t size) {
    return [=](const Row &row) { return row.number("size") == size; };
  };
  auto oneWay = [](const Row &row) {
    return row.text("mode") == "one way" && row.number("size") <= 4096;
  };
  auto blocking = [](const Row &row) { return row.text("mode") == "blocking"; };
  return {
      raceGoal(report, "blocking", "zelgvc", "gathering",
               "Blocking frames of 64 B and 1 KiB beside one gathering write by hand", {0.95, 1.0},
               small),
      raceGoal(report, "blocking", "both", "two writes",
               "Blocking frames of 64 B through both stages beside two plain writes by hand",
               {1.0, 1.3}, sized(64)),
      raceGoal(report, "blocking", "both", "two writes",
               "Blocking frames of 1 KiB through both stages beside two plain writes by hand",
               {1.0, 1.3}, sized(1024)),
      raceGoal(report, "channels", "plain", "tls",
               "One way, 16 B to 4 KiB, plain, beside GTlsConnection", {1.0, 1.5}, oneWay),
      raceGoal(report, "channels", "both", "tls",
               "One way, 16 B to 4 KiB, both stages, beside GTlsConnection", {1.0, 1.5}, oneWay),
      raceGoal(report, "async", "zelgvc", "gio",
               "Asynchronous frames of 64 B beside frames by hand", {2.2, 3},
               [](const Row &row) { return row.number("size") == 64; }),
      raceGoal(report, "strings", "zelgvc", "GDataInputStream",
               "Asynchronous strings of 16 B to 1 KiB beside GDataInputStream, plain and staged",
               {0.5, 0.8}, [=](const Row &row) { return !blocking(row); }),
      raceGoal(report, "strings", "zelgvc", "GDataInputStream",
               "Blocking strings of 1 KiB beside GDataInputStream, plain and staged", {0.5, 0.8},
               blocking),
      raceGoal(report, "stages", "both", "conversions",
               "64 KiB through both stages in one thread beside the sum of its four conversions",
               {0.95, 0.98}, sized(65536)),
      figureGoal(report, "memory", "kind", "both", "after 1 MiB, KiB",
                 "Memory of a channel with both stages at rest after messages of 1 MiB", {48, 24},
                 " KiB"),
  };
}

// Bursts of frames; a round trip waits in between, which takes receives that find nothing.
std::vector<Goal>
callGoals(const Report &report)
{
  auto goal = [&](const char *who, const char *figure, double limit) {
    auto samples = samplesOf(report, "calls", [=](const Row &row) {
      bool counts = row.text("who") == who && row.text("what") != "async round trip";
      const auto *found = counts ? row.figure(figure) : nullptr;
      return found ? found->spread.median : NAN;
    });
    return judge(std::string("System calls of a frame in a burst, ") + who + ": " + figure, false,
                 limit, "", samples);
  };
  return {goal("plain", "sends", 1), goal("plain", "receives", 2), goal("both", "sends", 1),
          goal("both", "receives", 1)};
}

// The limit of the last one is what a channel took when each wait had a source of its own.
std::vector<Goal>
crowdGoals(const Report &report)
{
  auto waiting = [&](const char *channels, Sizes sizes, Limits limits) {
    return raceGoal(
        report, "crowd", "crowd", "10 channels",
        std::string("10 busy of ") + channels + ", plain and both stages, beside 10 of 10", limits,
        [=](const Row &row) {
          return row.number("channels") >= sizes.least && row.number("channels") <= sizes.most &&
                 row.text("busy") == "10 busy" && row.text("kind") != "gio";
        });
  };
  return {
      waiting("5000 channels", {5000, 5000}, {0.8, 0.95}),
      waiting("20000 channels, or as many as there are descriptors for", {10000, 20000},
              {0.6, 0.9}),
      raceGoal(report, "crowd", "crowd", "10 channels",
               "All of 5000 plain channels busy beside all of 10", {0.5, 0.8},
               [](const Row &row) { return row.text("busy") == "all busy"; }),
      raceGoal(report, "builds", "zelgvc", "no epoll",
               "Asynchronous round trips of 64 B on one plain channel beside a build without epoll",
               {1.0, 1.2},
               [](const Row &row) {
                 return row.text("what") == "async round trip" && row.text("who") == "plain";
               }),
      figureGoal(report, "memory", "kind", "plain", "idle, KiB",
                 "Memory of an idle plain channel with a read in flight", {2.115}, " KiB"),
  };
}

Goal
smallBlockGoal(const Report &report)
{
  auto samples = samplesOf(report, "converters", [](const Row &row) {
    bool counts = row.number("size") == 4 && row.text("direction") == "compress";
    return counts ? spreadOf(row.timing("zelgvc")->seconds).median * 1e9 : NAN;
  });
  return judge("Compressing 4 bytes", false, 60, " ns", samples);
}

} // namespace

std::vector<Goal>
goalsOf(const Report &report)
{
  std::vector<Goal> goals;
  for (const auto &more :
       {messageGoals(report), callGoals(report), crowdGoals(report),
        std::vector<Goal>{
            cipherGoal(report, "encrypt", false, 0.97),
            cipherGoal(report, "encrypt", true, 0.7),
            cipherGoal(report, "decrypt", false, 0.95),
            cipherGoal(report, "decrypt", true, 0.7),
            converterGoal(report, "compress"),
            converterGoal(report, "decompress"),
            smallBlockGoal(report),
            flatnessGoal(report, "plain"),
            flatnessGoal(report, "both"),
        },
        CodecRows{report, "tuning"}.goals(), CodecRows{report, "judging"}.goals()})
    goals.insert(goals.end(), more.begin(), more.end());
  return goals;
}

} // namespace bench
