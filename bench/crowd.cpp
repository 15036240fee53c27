// SPDX-License-Identifier: LGPL-2.1-or-later
// Many channels in one process, most of which wait.
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"
#include "worker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>
#include <sys/resource.h>

namespace bench
{

namespace
{

constexpr Stages kinds[] = {Stages::none, Stages::both, Stages::bare};
constexpr Transport transports[] = {Transport::unixSocket, Transport::tcp};

// Pairs of channels in a main context of their own, so that only the contender that runs is
// polled. Every channel always has a receive in flight, as a server's idle channels have.
class Crowd
{
public:
  Crowd(Transport transport, Stages stages) : _transport(transport), _stages(stages) {}
  Crowd(const Crowd &) = delete;
  Crowd &operator=(const Crowd &) = delete;

  ~Crowd()
  {
    enter([this] {
      for (auto &member : _members)
        member->pair.shutDown(*member->sockets);
      for (auto &member : _members)
        while (member->pair.armed())
          g_main_context_iteration(_context, TRUE);
      settle();
    });
    _members.clear();
    g_main_context_unref(_context);
  }

  void
  growTo(std::size_t pairs)
  {
    enter([=, this] {
      while (_members.size() < pairs) {
        _members.push_back(std::make_unique<Member>(connectSockets(_transport), _stages));
        _members.back()->pair.arm();
      }
      settle();
    });
  }

  // Round trips on `pairs` pairs at once, from pair `first` on.
  void
  run(GBytes *message, std::size_t first, std::size_t pairs, std::size_t times)
  {
    enter([=, this] {
      auto unfinished = pairs;
      for (std::size_t i = first; i < first + pairs; i++)
        _members[i]->pair.start(message, times, &unfinished);
      while (unfinished > 0)
        g_main_context_iteration(_context, TRUE);
    });
  }

  // `busy` of the pairs make round trips.
  Contender
  contender(const std::string &name, GBytes *message, std::size_t busy)
  {
    return {name, [=, this](std::size_t times) { run(message, 0, busy, times); }, busy};
  }

private:
  struct Member {
    Member(const Sockets &connected, Stages stages)
        : sockets(connected),
          pair(streamsOn(connected, stages), stages == Stages::bare ? framesGio : framesZelgvc)
    {
    }

    Sockets sockets;
    AsyncPair pair;
  };

  template <typename Task>
  void
  enter(Task task)
  {
    g_main_context_push_thread_default(_context);
    task();
    g_main_context_pop_thread_default(_context);
  }

  // Lets what is due happen, the first poll of a new channel say.
  void
  settle()
  {
    while (g_main_context_iteration(_context, FALSE))
      ;
  }

  Transport _transport;
  Stages _stages;
  GMainContext *_context = g_main_context_new();
  std::vector<std::unique_ptr<Member>> _members;
};

// How many descriptors this process may have open, once it has asked for as many as it can get.
std::size_t
raiseDescriptorLimit(std::size_t wanted)
{
  rlimit limit = {wanted, wanted};
  if (setrlimit(RLIMIT_NOFILE, &limit) == 0)
    return wanted;
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur;
}

SharedBytes
smallMessage()
{
  return SharedBytes(g_bytes_new_static("0123456789abcdef0123456789abcdef"
                                        "0123456789abcdef0123456789abcdef",
                                        64));
}

// ---- Messages a second ----

constexpr std::size_t few = 10;

struct Size {
  std::size_t channels;
  bool allBusy;
};

constexpr Size sizes[] = {{1000, false}, {5000, false}, {5000, true}, {20000, false}};

// All busy is shown for plain channels alone, and the largest crowd is nothing to do by hand. The
// quick run is for what the first goal needs.
bool
isShown(Stages stages, const Size &size, bool quick)
{
  if (quick && size.channels != 5000)
    return false;
  return stages == Stages::none ||
         (!size.allBusy && (stages == Stages::both || size.channels <= 5000));
}

void
raceCrowds(Report &report, Transport transport, Stages stages, std::size_t most)
{
  auto message = smallMessage();
  Crowd small(transport, stages);
  Crowd large(transport, stages);
  for (const auto &size : sizes) {
    auto allBusy = size.allBusy;
    auto channels = std::min(size.channels, most);
    if (!isShown(stages, size, report.effort().quick) || channels < size.channels / 2)
      continue;
    Parameters parameters = {{"transport", transportName(transport)},
                             {"kind", stagesName(stages)},
                             {"busy", allBusy ? "all busy" : "10 busy"},
                             {"channels", static_cast<std::int64_t>(channels)}};
    if (!report.wants(parameters))
      continue;
    small.growTo(few / 2);
    large.growTo(channels / 2);
    report.race(parameters, 0,
                {large.contender("crowd", message.get(), (allBusy ? channels : few) / 2),
                 small.contender("10 channels", message.get(), few / 2)});
  }
}

} // namespace

void
measureCrowd(Report &report)
{
  report.begin(
      "crowd", "Many channels in one process",
      "Asynchronous round trips of 64 bytes on 10 channels, or on all, while the others wait for a "
      "message, beside a process that has only 10. Both ends are in one main loop and both are "
      "counted; each crowd has a main context of its own. gio: frames by hand on bare sockets. "
      "An operation is one round trip.");
  auto descriptors = raiseDescriptorLimit(21000);
  auto most = (descriptors - few - 200) / 2 * 2;
  if (most < 20000)
    std::printf("%zu channels at most: there are %zu descriptors\n", most, descriptors);
  for (auto transport : transports)
    for (auto stages : kinds)
      raceCrowds(report, transport, stages, most);
}

// ---- Memory ----

static double
heapBytes()
{
  auto info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd);
}

// Prints the bytes of heap of each channel: idle, and after messages of 64 B and of 1 MiB.
int
memoryWorker(int argc, char **argv)
{
  must(argc == 2, nullptr, "memory KIND PAIRS");
  auto pairs = static_cast<std::size_t>(std::atol(argv[1]));
  auto kind = *std::find_if(std::begin(kinds), std::end(kinds) - 1, [&](Stages stages) {
    return std::string(argv[0]) == stagesName(stages);
  });
  // mallinfo2() counts the first arena only.
  mallopt(M_ARENA_MAX, 1);

  auto large = repeated(corpus("source"), 1 << 20);
  SharedBytes messages[] = {smallMessage(),
                            SharedBytes(g_bytes_new_static(large.data(), large.size()))};
  Crowd crowd(Transport::unixSocket, kind);
  // The first channels of a process set up what all of them share: that is not counted.
  crowd.growTo(1);
  for (const auto &message : messages)
    crowd.run(message.get(), 0, 1, 1);

  double before = heapBytes();
  auto perChannel = [&] { return (heapBytes() - before) / static_cast<double>(2 * pairs); };
  crowd.growTo(pairs + 1);
  std::printf("%.0f", perChannel());
  for (const auto &message : messages) {
    for (std::size_t i = 1; i <= pairs; i++)
      crowd.run(message.get(), i, 1, 1);
    std::printf(" %.0f", perChannel());
  }
  std::printf("\n");
  return 0;
}

void
measureMemory(Report &report)
{
  report.begin(
      "memory", "Memory of a channel at rest",
      "KiB of heap in use (mallinfo2) by which a fresh process grows for each of 400 channels, its "
      "socket connection included; every channel has a receive in flight. idle: before the first "
      "message; after N: each channel has sent and received a message of N bytes of C source, one "
      "pair of channels after the other. gio: a bare GSocketConnection with frames by hand. Slices "
      "come from malloc.");
  for (auto kind : kinds) {
    Parameters parameters = {{"kind", stagesName(kind)}};
    if (!report.wants(parameters))
      continue;
    auto output = runWorker({"env", "G_SLICE=always-malloc"}, {"memory", stagesName(kind), "200"});
    double bytes[3];
    must(output.success &&
             std::sscanf(output.out.c_str(), "%lf %lf %lf", &bytes[0], &bytes[1], &bytes[2]) == 3,
         nullptr, output.errors.c_str());
    std::vector<Figure> figures;
    for (const char *name : {"idle, KiB", "after 64 B, KiB", "after 1 MiB, KiB"})
      figures.push_back({name, exactly(bytes[figures.size()] / 1024)});
    report.add({parameters, 0, {}, {}, figures});
  }
}

} // namespace bench
