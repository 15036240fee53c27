// SPDX-License-Identifier: LGPL-2.1-or-later
// Rows that need a process of their own: many channels of which most wait, memory at rest, and
// small messages whose system calls run.py counts or which run on another build of the library.
#include "asyncends.h"
#include "corpora.h"

#include <malloc.h>

namespace bench
{

namespace
{

// Pairs of channels in a main context of their own, so that only the contender that runs is
// polled. Every channel always has a receive in flight, as a server's idle channels have; so a
// crowd lives as long as its process.
class Crowd
{
public:
  Crowd(std::string transport, std::string stages)
      : _transport(std::move(transport)), _stages(std::move(stages))
  {
  }

  void
  growTo(std::size_t pairs)
  {
    g_main_context_push_thread_default(_context);
    while (_pairs.size() < pairs) {
      _pairs.push_back(
          std::make_unique<AsyncPair>(streamsOn(connectSockets(_transport), _stages),
                                      _stages == "by hand" ? framesByHand : framesZelgvc));
      _pairs.back()->arm();
    }
    while (g_main_context_iteration(_context, FALSE)) // the first poll of each new channel
      ;
    g_main_context_pop_thread_default(_context);
  }

  // Round trips on `pairs` pairs at once, from pair `first` on.
  void
  run(GBytes *message, std::size_t first, std::size_t pairs, std::size_t times)
  {
    g_main_context_push_thread_default(_context);
    auto unfinished = pairs;
    for (std::size_t i = first; i < first + pairs; i++)
      _pairs[i]->start(message, times, &unfinished);
    while (unfinished > 0)
      g_main_context_iteration(_context, TRUE);
    g_main_context_pop_thread_default(_context);
  }

private:
  std::string _transport;
  std::string _stages;
  GMainContext *_context = g_main_context_new();
  std::vector<std::unique_ptr<AsyncPair>> _pairs;
};

GBytes *
smallMessage()
{
  return g_bytes_new_static("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef", 64);
}

} // namespace

// The values are a transport, stages, how many channels are busy ("all" or 10) and how many there
// are.
void
measureCrowd(const Report &report)
{
  must(report.values.size() == 4, nullptr, "crowd TRANSPORT STAGES BUSY CHANNELS");
  constexpr std::size_t few = 10;
  auto channels = static_cast<std::size_t>(std::stoul(report.values[3]));

  // A pair is two channels.
  auto *small = new Crowd(report.values[0], report.values[1]);
  auto *large = new Crowd(report.values[0], report.values[1]);
  small->growTo(few / 2);
  large->growTo(channels / 2);
  auto busy = (report.values[2] == "all" ? channels : few) / 2;
  auto contender = [message = smallMessage()](const char *name, Crowd *crowd, std::size_t pairs) {
    auto run = [=](std::size_t times) { crowd->run(message, 0, pairs, times); };
    return Contender{name, run, pairs};
  };
  report.race({{"transport", report.values[0]},
               {"stages", report.values[1]},
               {"busy", report.values[2]},
               {"channels", static_cast<std::int64_t>(channels)}},
              {contender("crowd", large, busy), contender("10 channels", small, few / 2)});
}

// ---- Memory ----

static double
heapBytes()
{
  auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

// The value is the stages. Prints the heap of each channel: idle, and after messages of 64 B
// and of 1 MiB.
void
measureMemory(const Report &report)
{
  must(report.values.size() == 1, nullptr, "memory STAGES");
  mallopt(M_ARENA_MAX, 1); // mallinfo2() counts the first arena only

  constexpr std::size_t pairs = 200;
  auto large = source(1 << 20);
  const std::pair<const char *, GBytes *> messages[] = {
      {"after 64 B, KiB", smallMessage()},
      {"after 1 MiB, KiB", g_bytes_new_static(large.data(), large.size())}};
  auto *crowd = new Crowd("unix", report.values[0]);
  // The first channels of a process set up what all of them share: that is not counted.
  crowd->growTo(1);
  for (const auto &[name, message] : messages)
    crowd->run(message, 0, 1, 1);

  double before = heapBytes();
  auto perChannel = [&] { return (heapBytes() - before) / (2 * pairs) / 1024; };
  crowd->growTo(pairs + 1);
  Figures figures = {{"idle, KiB", perChannel()}};
  for (const auto &[name, message] : messages) {
    for (std::size_t i = 1; i <= pairs; i++)
      crowd->run(message, i, 1, 1);
    figures[name] = perChannel();
  }
  report.race({{"stages", report.values[0]}}, {}, figures);
}

// ---- Small messages ----

static Contender
makeWork(const std::string &what, const std::string &stages, GBytes *message)
{
  constexpr std::size_t frames = 16; // of a burst
  auto sockets = connectSockets("unix");
  if (what == "blocking burst")
    return burst("seconds", makeLink(sockets, stages), {message}, frames);
  auto pair = std::make_shared<AsyncPair>(streamsOn(sockets, stages), framesZelgvc);
  if (what == "async burst")
    return {"seconds", repeat([=] { pair->burst(message, frames); }), frames};
  must(what == "async round trip", nullptr, "no such work");
  return {"seconds", [=](std::size_t times) { pair->roundTrips(message, times); }};
}

// The values are what is done, the stages, and how often. Without the last it is timed.
void
measureWork(const Report &report)
{
  must(report.values.size() == 2 || report.values.size() == 3, nullptr, "work WHAT STAGES [TIMES]");
  auto contender = makeWork(report.values[0], report.values[1], smallMessage());
  if (report.values.size() == 3)
    contender.run(std::stoul(report.values[2]) / contender.operations);
  else
    report.race({{"what", report.values[0]}, {"stages", report.values[1]}}, {contender});
}

} // namespace bench
