// SPDX-License-Identifier: LGPL-2.1-or-later
// Many channels in one process, most of which wait: round trips a second, and memory.
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"

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
    enter([=, this] {
      while (_pairs.size() < pairs) {
        _sockets.push_back(connectSockets(_transport));
        _pairs.push_back(
            std::make_unique<AsyncPair>(streamsOn(_sockets.back(), _stages),
                                        _stages == "by hand" ? framesByHand : framesZelgvc));
        _pairs.back()->arm();
      }
      while (g_main_context_iteration(_context, FALSE)) // the first poll of each new channel
        ;
    });
  }

  // Round trips on `pairs` pairs at once, from pair `first` on.
  void
  run(GBytes *message, std::size_t first, std::size_t pairs, std::size_t times)
  {
    enter([=, this] {
      auto unfinished = pairs;
      for (std::size_t i = first; i < first + pairs; i++)
        _pairs[i]->start(message, times, &unfinished);
      while (unfinished > 0)
        g_main_context_iteration(_context, TRUE);
    });
  }

private:
  template <typename Task>
  void
  enter(Task task)
  {
    g_main_context_push_thread_default(_context);
    task();
    g_main_context_pop_thread_default(_context);
  }

  std::string _transport;
  std::string _stages;
  GMainContext *_context = g_main_context_new();
  std::vector<Sockets> _sockets;
  std::vector<std::unique_ptr<AsyncPair>> _pairs;
};

GBytes *
smallMessage()
{
  return g_bytes_new_static("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef", 64);
}

} // namespace

// The arguments are a transport, stages, how many channels are busy ("all" or 10) and how many
// there are.
void
measureCrowd(const Report &report, const std::vector<std::string> &arguments)
{
  must(arguments.size() == 4, nullptr, "crowd TRANSPORT STAGES BUSY CHANNELS");
  constexpr std::size_t few = 10;
  auto channels = static_cast<std::size_t>(std::stoul(arguments[3]));

  // A pair is two channels.
  auto *small = new Crowd(arguments[0], arguments[1]);
  auto *large = new Crowd(arguments[0], arguments[1]);
  small->growTo(few / 2);
  large->growTo(channels / 2);
  auto busy = (arguments[2] == "all" ? channels : few) / 2;
  auto contender = [message = smallMessage()](const char *name, Crowd *crowd, std::size_t pairs) {
    auto run = [=](std::size_t times) { crowd->run(message, 0, pairs, times); };
    return Contender{name, run, pairs};
  };
  report.race({{"transport", arguments[0]},
               {"stages", arguments[1]},
               {"busy", arguments[2]},
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

// The argument is the stages. Prints the heap of each channel: idle, and after messages of 64 B
// and of 1 MiB.
void
measureMemory(const Report &report, const std::vector<std::string> &arguments)
{
  must(arguments.size() == 1, nullptr, "memory STAGES");
  mallopt(M_ARENA_MAX, 1); // mallinfo2() counts the first arena only

  constexpr std::size_t pairs = 200;
  auto large = source(1 << 20);
  const std::pair<const char *, GBytes *> messages[] = {
      {"after 64 B, KiB", smallMessage()},
      {"after 1 MiB, KiB", g_bytes_new_static(large.data(), large.size())}};
  auto *crowd = new Crowd("unix", arguments[0]);
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
  report.race({{"stages", arguments[0]}}, {}, figures);
}

} // namespace bench
