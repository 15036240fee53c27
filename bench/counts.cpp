// SPDX-License-Identifier: LGPL-2.1-or-later
// Work for a fresh process, of which instructions or system calls are counted, or which runs on
// another build of the library.
#include "asyncends.h"
#include "groups.h"
#include "worker.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

namespace bench
{

namespace
{

constexpr gsize messageSize = 64;
constexpr std::size_t frames = 16; // of a burst

Contender
blockingFrames(GBytes *message, std::unique_ptr<Link> made)
{
  std::shared_ptr<Link> link = std::move(made);
  return {"", repeat([=] { runBurst(*link, message, frames); }), frames};
}

Sockets
unixSockets()
{
  return connectSockets(Transport::unixSocket);
}

std::shared_ptr<AsyncPair>
asyncPair(Stages stages)
{
  return std::make_shared<AsyncPair>(streamsOn(unixSockets(), stages),
                                     stages == Stages::bare ? framesGio : framesZelgvc);
}

template <Stages stages>
Contender
asyncFrames(GBytes *message)
{
  auto pair = asyncPair(stages);
  return {"", repeat([=] { pair->burst(message, frames); }), frames};
}

template <Stages stages>
Contender
asyncRoundTrips(GBytes *message)
{
  auto pair = asyncPair(stages);
  return {"", [=](std::size_t times) { pair->roundTrips(message, times); }};
}

Contender
conversions(GBytes *message, GConverter *made)
{
  std::shared_ptr<GConverter> converter(made, g_object_unref);
  auto once = [=] {
    guint8 out[4 * messageSize];
    convert(converter.get(), g_bytes_get_data(message, nullptr), messageSize, out, sizeof out);
  };
  once(); // the encryptor's IV record
  return {"", repeat(once)};
}

GConverter *
makeEncryptor()
{
  SharedBytes key(g_bytes_new_static("0123456789abcdef0123456789abcdef", 32));
  return G_CONVERTER(gvc_encryptor_new(key.get()));
}

struct Work {
  const char *what;
  const char *who;
  Contender (*make)(GBytes *message);
};

constexpr Work works[] = {
    {"blocking frame", "plain",
     [](GBytes *m) { return blockingFrames(m, linkZelgvc(unixSockets(), Stages::none)); }},
    {"blocking frame", "both",
     [](GBytes *m) { return blockingFrames(m, linkZelgvc(unixSockets(), Stages::both)); }},
    {"blocking frame", "gathering",
     [](GBytes *m) { return blockingFrames(m, linkGathering(unixSockets())); }},
    {"async frame", "plain", asyncFrames<Stages::none>},
    {"async frame", "both", asyncFrames<Stages::both>},
    {"async frame", "gio", asyncFrames<Stages::bare>},
    {"async round trip", "plain", asyncRoundTrips<Stages::none>},
    {"async round trip", "both", asyncRoundTrips<Stages::both>},
    {"async round trip", "gio", asyncRoundTrips<Stages::bare>},
    {"converter call", "encryptor", [](GBytes *m) { return conversions(m, makeEncryptor()); }},
    {"converter call", "compressor",
     [](GBytes *m) { return conversions(m, G_CONVERTER(gvc_compressor_new())); }},
};

using Counts = std::map<std::string, double>;

// Counts the calls of a whole process that does the work `times` times; empty if that fails.
using Count = Counts (*)(std::size_t work, std::size_t times);

Counts
countInstructions(std::size_t work, std::size_t times)
{
  auto output = runWorker({"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"},
                          {"work", std::to_string(work), std::to_string(times)});
  auto *found = std::strstr(output.errors.c_str(), "Collected : ");
  if (!output.success || !found) {
    std::printf("callgrind: %s\n", output.errors.c_str());
    return {};
  }
  return {{"instructions", std::strtod(found + std::strlen("Collected : "), nullptr)}};
}

// A main context wakes itself by an eventfd, with write and read; sockets have calls of their own.
const char *
kindOf(const std::string &call)
{
  auto begins = [&](const char *with) { return call.starts_with(with); };
  if (call == "write" || call == "read")
    return "wakes";
  if (begins("send") || begins("writev"))
    return "sends";
  if (begins("recv") || begins("readv"))
    return "receives";
  if (begins("poll") || begins("ppoll") || begins("epoll_wait") || begins("epoll_pwait"))
    return "waits";
  return "other";
}

Counts
countCalls(std::size_t work, std::size_t times)
{
  auto output = runWorker({"strace", "-f", "-qq", "-c", "-U", "calls,name"},
                          {"work", std::to_string(work), std::to_string(times)});
  Counts counts = {{"sends", 0}, {"receives", 0}, {"waits", 0}, {"wakes", 0}, {"other", 0}};
  double all = 0;
  const char *line = output.errors.c_str();
  for (; line; line = std::strchr(line + 1, '\n')) {
    long calls;
    char name[64];
    if (std::sscanf(line, "%ld %63s", &calls, name) != 2 || std::strcmp(name, "total") == 0)
      continue;
    counts[kindOf(name)] += static_cast<double>(calls);
    all += static_cast<double>(calls);
  }
  if (!output.success || all == 0) {
    std::printf("strace: %s\n", output.errors.c_str());
    return {};
  }
  return counts;
}

// Two runs of different length differ by the cost of the operations alone.
void
addCounts(Report &report, const char *tool, Count count, std::size_t many, bool converters)
{
  g_autofree char *program = g_find_program_in_path(tool);
  if (!program) {
    std::printf("skipped: %s is not installed\n", tool);
    return;
  }
  constexpr std::size_t few = 160;
  for (std::size_t i = 0; i < std::size(works); i++) {
    Parameters parameters = {{"what", works[i].what}, {"who", works[i].who}};
    bool call = std::strcmp(works[i].what, "converter call") == 0;
    if ((call && !converters) || !report.wants(parameters))
      continue;
    auto less = count(i, few);
    auto more = count(i, many);
    if (less.empty() || more.empty())
      continue;
    std::vector<Figure> figures;
    // To hundredths: a signal or a timer more in one of the runs is not the message's.
    for (const auto &[name, value] : more) {
      double each = (value - less[name]) / static_cast<double>(many - few);
      figures.push_back({name, exactly(std::round(each * 100) / 100)});
    }
    report.add({parameters, 0, {}, {}, figures});
  }
}

Contender
makeWork(const char *index)
{
  static const SharedBytes message(
      g_bytes_new_static("int main(void) { return printf(\"%d\\n\", 42) < 0; } "
                         "/* sixty-four */",
                         messageSize));
  auto at = static_cast<std::size_t>(std::atol(index));
  must(at < std::size(works), nullptr, "no such work");
  return works[at].make(message.get());
}

} // namespace

// Does the work as often as asked, or prints the seconds that one operation takes.
int
workWorker(int argc, char **argv)
{
  must(argc == 1 || argc == 2, nullptr, "work WORK [TIMES]");
  auto contender = makeWork(argv[0]);
  if (argc == 2) {
    contender.run(static_cast<std::size_t>(std::atol(argv[1])) / contender.operations);
    return 0;
  }
  auto timings = takeTurns({contender}, {.rounds = 9});
  std::printf("%.9g\n", spreadOf(timings[0].seconds).median);
  return 0;
}

void
measureCalls(Report &report)
{
  report.begin(
      "calls", "System calls of a small message",
      "System calls for a message of 64 bytes as strace counts them: the difference between two "
      "runs of different length, divided by the messages between them. Frames come in bursts of "
      "16: all are sent and then received, in one thread, over a Unix socket; a round trip is two "
      "frames. sends, receives: of sockets, in all forms; waits: poll and epoll_wait; wakes: of a "
      "main context by itself, write and read. gathering, gio: frames by hand.");
  addCounts(report, "strace", countCalls, 1120, false);
}

void
measureInstructions(Report &report)
{
  report.begin(
      "instructions", "Instructions of a small message",
      "User-space instructions for a message of 64 bytes as callgrind counts them: the difference "
      "between two runs of different length, divided by the messages between them. Frames come in "
      "bursts of 16: all are sent and then received, in one thread, over a Unix socket; a round "
      "trip is two frames. The kernel is not counted, and valgrind offers the ciphers an older "
      "processor.");
  addCounts(report, "valgrind", countInstructions, report.effort().quick ? 480 : 4000, true);
}

// ---- Two builds of the library ----

void
measureBuilds(Report &report)
{
  const auto &[only, other, name] = report.selection();
  if (other.empty()) {
    std::printf("\n== builds: skipped, there is no other build\n");
    return;
  }
  report.begin("builds", "This build of the library beside another",
               "Messages of 64 bytes as in the counts of system calls. The two builds take turns, "
               "each time in a fresh process.");
  for (std::size_t i = 0; i < std::size(works); i++) {
    Parameters parameters = {{"what", works[i].what}, {"who", works[i].who}};
    if (!report.wants(parameters))
      continue;
    std::vector<Timing> timings = {{"zelgvc", {}}, {name, {}}};
    auto launcher = std::vector<std::string>{"env", "LD_LIBRARY_PATH=" + other};
    for (unsigned round = 0; round < report.effort().rounds; round++)
      for (unsigned turn = 0; turn < 2; turn++) {
        auto who = (round + turn) % 2;
        auto output = runWorker(who == 0 ? std::vector<std::string>{} : launcher,
                                {"work", std::to_string(i)});
        must(output.success, nullptr, output.errors.c_str());
        timings[who].seconds.push_back(std::strtod(output.out.c_str(), nullptr));
      }
    auto ratios = ratiosOf(timings, {{"zelgvc", name}});
    report.add({parameters, 0, timings, ratios, {}});
  }
}

} // namespace bench
