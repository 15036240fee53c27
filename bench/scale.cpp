// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"
#include "corpora.h"
#include "echo.h"
#include "groups.h"
#include "worker.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace bench
{

namespace
{

enum class Kind { bare, plain, both };

const char *
kindName(Kind kind)
{
  return kind == Kind::bare ? "gio" : kind == Kind::plain ? "plain" : "both";
}

// One channel to the echo process with a receive in flight at all times, as a server's idle
// channels have.
class Client
{
public:
  Client(const EchoProcess &echo, Kind kind, std::size_t *unfinished)
      : _unfinished(unfinished), _connection(echo.connect())
  {
    auto *stream = G_IO_STREAM(_connection.get());
    if (kind != Kind::bare) {
      _channel = makeChannel(_connection.get(), kind == Kind::both ? Stages::both : Stages::none);
      stream = G_IO_STREAM(_channel.get());
    }
    auto make = kind == Kind::bare ? asyncGio : asyncZelgvc;
    _end = make(g_io_stream_get_input_stream(stream), g_io_stream_get_output_stream(stream));
    _end->receive(answered, this);
  }

  // Never taken down: an operation is in flight. The process ends with it.
  ~Client() = delete;

  // Sends `message` `times` times, each behind the answer to the one before.
  void
  start(GBytes *message, std::size_t times)
  {
    _message = message;
    _left = times;
    next();
  }

private:
  void
  next()
  {
    _pending = 2;
    _end->send(_message, sent, this);
  }

  void
  finishStep()
  {
    if (--_pending > 0)
      return;
    if (--_left > 0)
      next();
    else
      --*_unfinished;
  }

  static void
  sent(void *user_data)
  {
    static_cast<Client *>(user_data)->finishStep();
  }

  static void
  answered(const void *, gsize size, void *user_data)
  {
    auto *self = static_cast<Client *>(user_data);
    must(self->_pending > 0 && size == g_bytes_get_size(self->_message), nullptr,
         "an answer of another length, or to nothing");
    self->_end->receive(answered, self);
    self->finishStep();
  }

  std::size_t *_unfinished;
  Object<GSocketConnection> _connection;
  Object<GvcConnection> _channel;
  std::unique_ptr<AsyncEnd> _end;
  GBytes *_message = nullptr;
  std::size_t _left = 0;
  int _pending = 0;
};

// The channels of one kind, in a main context of their own: those of the contenders that are not
// running must not be polled along.
class Crowd
{
public:
  explicit Crowd(Kind kind) : _kind(kind) {}

  void
  growTo(std::size_t count, const EchoProcess &echo)
  {
    g_main_context_push_thread_default(_context);
    while (_clients.size() < count)
      _clients.push_back(new Client(echo, _kind, &_unfinished));
    g_main_context_pop_thread_default(_context);
  }

  void
  run(GBytes *message, std::size_t count, std::size_t times)
  {
    g_main_context_push_thread_default(_context);
    _unfinished = count;
    for (std::size_t i = 0; i < count; i++)
      _clients[i]->start(message, times);
    while (_unfinished > 0)
      g_main_context_iteration(_context, TRUE);
    g_main_context_pop_thread_default(_context);
  }

  // Lets what is due happen, the first poll of a new channel say.
  void
  settle()
  {
    g_main_context_push_thread_default(_context);
    while (g_main_context_iteration(_context, FALSE))
      ;
    g_main_context_pop_thread_default(_context);
  }

private:
  Kind _kind;
  GMainContext *_context = g_main_context_new();
  std::vector<Client *> _clients;
  std::size_t _unfinished = 0;
};

} // namespace

// ---- Messages a second ----

void
measureScale(Report &report)
{
  report.begin(
      "scale", "Many channels in one process",
      "Asynchronous round trips of 64 bytes over loopback TCP on all channels at once, in one main "
      "loop; a second process echoes the bytes. gio: frames by hand on bare sockets. An operation "
      "is one round trip on one channel.");
  std::vector<std::size_t> counts = {1, 10, 100, 1000, 5000};
  if (report.effort().quick)
    counts = {1, 100, 1000};
  // A descriptor each, of three kinds, and some for everything else.
  auto most = (raiseDescriptorLimit() - 500) / 3;

  EchoProcess echo;
  SharedBytes message(g_bytes_new_static("0123456789abcdef0123456789abcdef"
                                         "0123456789abcdef0123456789abcdef",
                                         64));
  Crowd plain(Kind::plain);
  Crowd both(Kind::both);
  Crowd gio(Kind::bare);
  for (auto count : counts) {
    if (count > most) {
      std::printf("no room for %zu channels of each kind: %lu at most\n", count, most);
      continue;
    }
    std::vector<Contender> contenders;
    for (auto &[name, crowd] :
         {std::pair<const char *, Crowd *>{"plain", &plain}, {"both", &both}, {"gio", &gio}}) {
      crowd->growTo(count, echo);
      contenders.push_back({name,
                            [&, crowd = crowd, count](std::size_t times) {
                              crowd->run(message.get(), count, times);
                            },
                            count});
    }
    auto timings = takeTurns(contenders, report.effort());
    auto ratios = ratiosOf(timings, "plain", {"gio"});
    ratios.push_back(ratiosOf(timings, "both", {"gio"}).front());
    report.add({{{"channels", static_cast<std::int64_t>(count)}}, 0, timings, ratios, {}});
  }
}

// ---- Memory ----

namespace
{

double
residentBytes()
{
  unsigned long total = 0;
  unsigned long resident = 0;
  FILE *file = std::fopen("/proc/self/statm", "r");
  bool found = file && std::fscanf(file, "%lu %lu", &total, &resident) == 2;
  if (file)
    std::fclose(file);
  must(found, nullptr, "/proc/self/statm");
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

// Sizes of the messages that a channel is used with, each after the one before.
constexpr std::size_t usedWith[] = {64, 4096, 65536};

} // namespace

// Prints the resident bytes of each channel: idle, and used with messages of each size.
int
memoryWorker(int argc, char **argv)
{
  must(argc == 2, nullptr, "memory KIND CHANNELS");
  std::string name = argv[0];
  auto count = static_cast<std::size_t>(std::atol(argv[1]));
  raiseDescriptorLimit();
  auto kind = Kind::both;
  for (auto each : {Kind::bare, Kind::plain})
    if (name == kindName(each))
      kind = each;

  EchoProcess echo;
  auto text = repeated(corpus("source"), usedWith[2]);
  Crowd crowd(kind);
  // What the first channel of a process sets up is not a channel's.
  SharedBytes first(g_bytes_new_static(text.data(), 64));
  crowd.growTo(1, echo);
  crowd.run(first.get(), 1, 1);

  double before = residentBytes();
  auto perChannel = [&] { return (residentBytes() - before) / static_cast<double>(count); };
  crowd.growTo(count + 1, echo);
  crowd.settle();
  std::printf("%.0f", perChannel());
  for (auto size : usedWith) {
    SharedBytes message(g_bytes_new_static(text.data(), size));
    crowd.run(message.get(), count + 1, 1);
    std::printf(" %.0f", perChannel());
  }
  std::printf("\n");
  return 0;
}

void
measureMemory(Report &report)
{
  report.begin(
      "memory", "Resident memory of a channel",
      "KiB of resident memory by which a fresh process grows for each channel, divided by their "
      "number; every channel has a receive in flight. used N: after a round trip of N bytes "
      "of "
      "C source on each channel, each size after the one before, all at once. gio: a bare "
      "GSocketConnection with frames by hand.");
  int count = report.effort().quick ? 1000 : 5000;
  for (auto kind : {Kind::bare, Kind::plain, Kind::both}) {
    unsigned runs = kind == Kind::both && !report.effort().quick ? 3 : 1;

    std::vector<double> figures[4];
    for (unsigned run = 0; run < runs; run++) {
      auto output = runWorker({}, {"memory", kindName(kind), std::to_string(count)});
      double value[4];
      must(output.success && std::sscanf(output.out.c_str(), "%lf %lf %lf %lf", &value[0],
                                         &value[1], &value[2], &value[3]) == 4,
           nullptr, output.errors.c_str());
      for (int i = 0; i < 4; i++)
        figures[i].push_back(value[i] / 1024);
    }
    report.add({{{"kind", kindName(kind)}, {"channels", static_cast<std::int64_t>(count)}},
                0,
                {},
                {},
                {{"idle, KiB", spreadOf(figures[0])},
                 {"used 64 B, KiB", spreadOf(figures[1])},
                 {"used 4 KiB, KiB", spreadOf(figures[2])},
                 {"used 64 KiB, KiB", spreadOf(figures[3])}}});
  }
}

} // namespace bench
