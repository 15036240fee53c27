// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "interrupt.h"
#include "measure.h"
#include "output.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace
{
struct PingOptions {
  int count = 10;
  int size = 32;
  double interval = 0.1;
  gboolean json = FALSE;
};
} // namespace

// One round trip, in seconds.
static double
round_trip(Channel &channel, std::vector<char> &message, guint64 number)
{
  if (!message.empty())
    std::memcpy(message.data(), &number, std::min(message.size(), sizeof number));
  auto begun = g_get_monotonic_time();
  channel.put(message.data(), message.size());
  auto answer = channel.need(std::max(static_cast<guint32>(message.size()), control_limit));
  auto ended = g_get_monotonic_time();

  gsize size;
  auto *data = g_bytes_get_data(answer.get(), &size);
  if (size != message.size() || (size > 0 && std::memcmp(data, message.data(), size) != 0))
    fail(Exit::protocol, "%s answers with something else than it was sent", channel.peer().c_str());
  return static_cast<double>(ended - begun) / G_USEC_PER_SEC;
}

// The smallest value that this part of the values does not exceed.
static double
percentile(const std::vector<double> &sorted, double part)
{
  auto rank = std::ceil(part * static_cast<double>(sorted.size()));
  return sorted[static_cast<gsize>(std::max(rank, 1.0)) - 1];
}

static constexpr struct {
  const char *name;
  double part;
} percentiles[] = {{"p50", 0.5}, {"p90", 0.9}, {"p95", 0.95}, {"p99", 0.99}, {"p99.9", 0.999}};

static void
print_summary(const PingOptions &options, const Stages &stages, Channel &channel,
              std::vector<double> times)
{
  std::sort(times.begin(), times.end());
  double sum = 0;
  for (auto time : times)
    sum += time;
  auto mean = sum / static_cast<double>(times.size());

  if (options.json) {
    JsonLine line;
    line.add("stages", stages.text()).add("size", options.size);
    line.add("count", static_cast<guint64>(times.size()));
    line.add("min", times.front()).add("mean", mean);
    for (auto &each : percentiles)
      line.add(each.name, percentile(times, each.part));
    line.add("max", times.back()).add("wire-bytes-sent", channel.wire_sent());
    line.add("wire-bytes-received", channel.wire_received());
    line.print();
    return;
  }
  output_line("%" G_GSIZE_FORMAT " round trips of %d bytes, %s", times.size(), options.size,
              stages.text().c_str());
  output_line("  %-6s %12s", "min", human_latency(times.front()).c_str());
  output_line("  %-6s %12s", "mean", human_latency(mean).c_str());
  for (auto &each : percentiles)
    output_line("  %-6s %12s", each.name, human_latency(percentile(times, each.part)).c_str());
  output_line("  %-6s %12s", "max", human_latency(times.back()).c_str());
}

// Waits for the next turn. False if the user interrupts.
static bool
pause_for(double seconds)
{
  return wait_for(-1, 0, interrupt_soon(), static_cast<int>(seconds * 1000));
}

static std::vector<double>
measure(Channel &channel, const PingOptions &options)
{
  std::vector<char> message(static_cast<gsize>(options.size), '.');
  std::vector<double> times;
  double sum = 0;

  for (int i = 0; options.count == 0 || i < options.count; i++) {
    if (i > 0 && !pause_for(options.interval))
      break;
    try {
      times.push_back(round_trip(channel, message, static_cast<guint64>(i)));
    } catch (const Failure &failure) {
      if (failure.code != Exit::interrupted || times.empty())
        throw;
      break;
    }
    sum += times.back();
    progress_draw("round trip " + std::to_string(i + 1) + ": " + human_latency(times.back()) +
                  ", mean " + human_latency(sum / (i + 1)));
  }
  return times;
}

Exit
run_ping(CommandLine &line)
{
  PingOptions options;
  line.add("count", G_OPTION_ARG_INT, &options.count,
           "Stop after this many round trips, 0 for never (default 10)", "N", 'c');
  line.add("interval", G_OPTION_ARG_DOUBLE, &options.interval,
           "Wait this long between round trips (default 0.1)", "SECONDS", 'i');
  line.add("size", G_OPTION_ARG_INT, &options.size, "Bytes in a message (default 32)", "N", 's');
  line.add("json", G_OPTION_ARG_NONE, &options.json, "Print one JSON object, times in seconds");
  line.add_stages();
  line.add_timeout();
  auto arguments = line.parse(1, 1);
  if (options.count < 0 || options.size < 0 || options.size > static_cast<int>(message_limit) ||
      !(options.interval >= 0) || options.interval > 86400)
    fail(Exit::usage, "a count, a size (up to 64 MiB) and an interval are not negative");

  Channel channel(connect_to(Address::parse(arguments[0]), line.timeout), line.stages,
                  line.timeout);
  greet_serve(channel, ping_service, static_cast<guint64>(options.size));
  auto times = measure(channel, options);
  if (!interrupted())
    channel.close();
  print_summary(options, line.stages, channel, times);
  return interrupted() ? Exit::interrupted : Exit::ok;
}
