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

Samples
messageSamples(const Report &report, const char *group, std::int64_t size, const char *yardstick)
{
  return samplesOf(report, group, [=](const Row &row) {
    return size == 0 || row.number("size") == size ? ratioOf(row, "zelgvc", yardstick) : NAN;
  });
}

Samples
stageSamples(const Report &report, const char *parameter)
{
  return samplesOf(report, "stages", [=](const Row &row) {
    return ratioOf(row, "both", row.text(parameter).c_str());
  });
}

} // namespace

std::vector<Goal>
goalsOf(const Report &report)
{
  std::vector<Goal> goals = {
      judge("Asynchronous frames of 64 B beside a filter that is not pollable", true, 15, "",
            messageSamples(report, "async", 64, "not pollable")),
      judge("Asynchronous frames of 64 B beside hand-written GIO", true, 0.8, "",
            messageSamples(report, "async", 64, "gio")),
      judge("Asynchronous strings beside a filter that is not pollable", true, 15, "",
            messageSamples(report, "strings", 0, "not pollable")),
      judge("Blocking frames beside hand-written GIO", true, 0.95, "",
            messageSamples(report, "blocking", 0, "gio")),
      cipherGoal(report, "encrypt", false, 0.97),
      cipherGoal(report, "encrypt", true, 0.7),
      cipherGoal(report, "decrypt", false, 0.95),
      cipherGoal(report, "decrypt", true, 0.7),
      converterGoal(report, "compress"),
      converterGoal(report, "decompress"),
      judge("Compressing 4 bytes", false, 60, " ns",
            samplesOf(report, "converters",
                      [](const Row &row) {
                        bool counts =
                            row.number("size") == 4 && row.text("direction") == "compress";
                        return counts ? spreadOf(row.timing("zelgvc")->seconds).median * 1e9 : NAN;
                      })),
      judge("Compressed and encrypted channel, 64 KiB, beside its slowest converter alone", true,
            0.8, "", stageSamples(report, "slowest converter")),
      judge("Compressed and encrypted channel, 64 KiB, beside the slower channel of one stage",
            true, 0.8, "", stageSamples(report, "slower channel")),
      judge("Memory of an idle channel with both stages, over 5000", false, 48, " KiB",
            samplesOf(report, "memory",
                      [](const Row &row) {
                        bool counts = row.text("kind") == "both" && row.number("channels") == 5000;
                        return counts ? row.figure("idle, KiB")->spread.median : NAN;
                      })),
      flatnessGoal(report, "plain"),
      flatnessGoal(report, "both"),
  };
  for (const char *half : {"tuning", "judging"})
    for (auto &goal : CodecRows{report, half}.goals())
      goals.push_back(std::move(goal));
  return goals;
}

} // namespace bench
