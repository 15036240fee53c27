// SPDX-License-Identifier: LGPL-2.1-or-later
#include "measure.h"
#include "interrupt.h"
#include "output.h"

#include <sys/resource.h>

double
cpu_seconds()
{
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void
greet_serve(Channel &channel, const char *service, guint64 largest)
{
  auto limit = channel.greet(service, Control()).number("limit", message_limit);
  if (largest > limit)
    fail(Exit::partly,
         "%s has many callers and takes messages of at most %" G_GUINT64_FORMAT " bytes",
         channel.peer().c_str(), limit);
}

static guint32
next_random(guint32 &state)
{
  state ^= state << 13;
  state ^= state >> 17;
  state ^= state << 5;
  return state;
}

static void
make_text(std::vector<char> &data)
{
  static const char *const words[] = {"channel", "a",    "message", "of",   "the",    "peer",
                                      "and",     "each", "record",  "that", "stream", "is",
                                      "block",   "key",  "between", "to",   "frame",  "length"};
  guint32 state = 1;
  for (gsize at = 0; at < data.size();) {
    for (auto *word = words[next_random(state) % G_N_ELEMENTS(words)]; *word && at < data.size();)
      data[at++] = *word++;
    if (at < data.size())
      data[at++] = next_random(state) % 12 == 0 ? '\n' : ' ';
  }
}

bool
make_data(const std::string &kind, std::vector<char> &data)
{
  guint32 state = 1;
  if (kind == "text")
    make_text(data);
  else if (kind == "random")
    for (auto &byte : data)
      byte = static_cast<char>(next_random(state) >> 24);
  else if (kind != "zero")
    return false;
  return true;
}

namespace
{
// Counts from its construction on.
class Meter
{
public:
  Meter(const std::string &label, guint64 wire)
      : label(label), begun(g_get_monotonic_time()), cpu(cpu_seconds()), wire(wire)
  {
  }

  double
  elapsed() const
  {
    return static_cast<double>(g_get_monotonic_time() - begun) / G_USEC_PER_SEC;
  }

  void
  count(gsize size)
  {
    result.messages++;
    result.bytes += size;
    if (!label.empty() && progress_due())
      progress_draw(label + ": " + human_rate(static_cast<double>(result.bytes) / elapsed()) +
                    ", " + std::to_string(result.messages) + " messages");
  }

  Measured
  end(guint64 wire_now)
  {
    result.seconds = elapsed();
    result.cpu = cpu_seconds() - cpu;
    result.wire = wire_now - wire;
    return result;
  }

private:
  std::string label;
  gint64 begun;
  double cpu;
  guint64 wire;
  Measured result;
};
} // namespace

Measured
send_messages(Channel &channel, const std::vector<char> &data, double seconds,
              const std::string &label)
{
  Meter meter(label, channel.wire_sent());
  Bytes bytes(g_bytes_new_static(data.data(), data.size()));

  while (meter.elapsed() < seconds) {
    if (interrupted())
      throw Failure{Exit::interrupted, "interrupted"};
    channel.put(bytes.get());
    meter.count(data.size());
  }
  auto result = meter.end(channel.wire_sent());
  channel.put("", 0);
  return result;
}

Measured
receive_messages(Channel &channel, guint64 size, const std::string &label)
{
  Meter meter(label, channel.wire_received());
  for (;;) {
    auto bytes = channel.need(static_cast<guint32>(size));
    auto arrived = g_bytes_get_size(bytes.get());
    if (arrived == 0)
      return meter.end(channel.wire_received());
    meter.count(arrived);
  }
}
