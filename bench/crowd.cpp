// SPDX-License-Identifier: LGPL-2.1-or-later
// Many channels in one process, most of which wait: messages a second, and memory.
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"

#include <algorithm>
#include <cstdlib>
#include <malloc.h>
#include <sys/resource.h>

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
  Crowd(Transport transport, Stages stages) : _transport(transport), _stages(stages) {}

  void
  growTo(std::size_t pairs)
  {
    enter([=, this] {
      while (_pairs.size() < pairs) {
        auto make = _stages == Stages::bare ? framesByHand : framesZelgvc;
        _sockets.push_back(connectSockets(_transport));
        _pairs.push_back(std::make_unique<AsyncPair>(streamsOn(_sockets.back(), _stages), make));
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

  Contender
  contender(const std::string &name, GBytes *message, std::size_t busy)
  {
    return {name, [=, this](std::size_t times) { run(message, 0, busy, times); }, busy};
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

  Transport _transport;
  Stages _stages;
  GMainContext *_context = g_main_context_new();
  std::vector<Sockets> _sockets;
  std::vector<std::unique_ptr<AsyncPair>> _pairs;
};

GBytes *
smallMessage()
{
  static const char text[65] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";
  return g_bytes_new_static(text, 64);
}

Stages
stagesNamed(const std::string &name)
{
  for (auto stages : {Stages::bare, Stages::none, Stages::both})
    if (name == stagesName(stages))
      return stages;
  g_error("no such stages: %s", name.c_str());
}

} // namespace

// The arguments are a transport, stages, how many channels are busy ("all" or a number) and how
// many there are. Prints nothing if the process may not open descriptors for as many.
void
measureCrowd(const Report &report, const std::vector<std::string> &arguments)
{
  must(arguments.size() == 4, nullptr, "crowd TRANSPORT STAGES BUSY CHANNELS");
  constexpr std::size_t few = 10;
  auto transport = arguments[0] == "tcp" ? Transport::tcp : Transport::unixSocket;
  auto stages = stagesNamed(arguments[1]);
  auto channels = static_cast<std::size_t>(std::atol(arguments[3].c_str()));
  constexpr rlim_t others = 200;
  rlimit limit = {channels + others, channels + others};
  if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur < channels / 2 + others)
    return;
  channels = std::min(channels, (limit.rlim_cur - others) / 2 * 2);

  // A pair is two channels.
  auto *small = new Crowd(transport, stages);
  auto *large = new Crowd(transport, stages);
  bool allBusy = arguments[2] == "all";
  small->growTo(few / 2);
  large->growTo(channels / 2);
  auto *message = smallMessage();
  report.race({{"transport", arguments[0]},
               {"stages", arguments[1]},
               {"busy", allBusy ? "all" : "10"},
               {"channels", static_cast<std::int64_t>(channels)}},
              {large->contender("crowd", message, (allBusy ? channels : few) / 2),
               small->contender("10 channels", message, few / 2)});
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
  // mallinfo2() counts the first arena only.
  mallopt(M_ARENA_MAX, 1);

  constexpr std::size_t pairs = 200;
  auto large = source(1 << 20);
  const std::pair<const char *, GBytes *> messages[] = {
      {"after 64 B, KiB", smallMessage()},
      {"after 1 MiB, KiB", g_bytes_new_static(large.data(), large.size())}};
  auto *crowd = new Crowd(Transport::unixSocket, stagesNamed(arguments[0]));
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
  report.print({{"stages", arguments[0]}}, figures);
}

} // namespace bench
