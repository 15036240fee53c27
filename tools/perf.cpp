// SPDX-License-Identifier: LGPL-2.1-or-later
#include "address.h"
#include "command.h"
#include "measure.h"
#include "output.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace
{
struct PerfOptions {
  double seconds = 1;
  OptionText sizes, direction, data;
  gboolean json = FALSE;
};

struct Run {
  const char *direction;
  guint64 size;
  Measured here, there;
};
} // namespace

static std::vector<guint64>
parse_sizes(const char *text)
{
  std::vector<guint64> sizes;
  g_auto(GStrv) parts = g_strsplit(text ? text : "64,1024,16384,262144", ",", -1);
  auto **part = parts;
  // Of an empty text, g_strsplit() makes no part.
  do {
    guint64 size;
    if (!*part || !g_ascii_string_to_unsigned(*part, 10, 1, message_limit, &size, nullptr))
      fail(Exit::usage, "--sizes is a list of numbers from 1 to %u with commas between them",
           message_limit);
    sizes.push_back(size);
  } while (*++part);
  return sizes;
}

static std::vector<const char *>
parse_direction(const char *text)
{
  if (!text || std::strcmp(text, "both") == 0)
    return {"send", "receive"};
  if (std::strcmp(text, "send") == 0)
    return {"send"};
  if (std::strcmp(text, "receive") == 0)
    return {"receive"};
  fail(Exit::usage, "--direction is send, receive or both");
}

static Measured
read_report(Channel &channel)
{
  auto report = channel.need_control();
  Measured measured;
  measured.messages = report.number("messages");
  measured.bytes = report.number("bytes");
  measured.wire = report.number("wire");
  measured.seconds = report.real("seconds");
  measured.cpu = report.real("cpu");
  return measured;
}

static Run
measure(Channel &channel, const PerfOptions &options, const std::string &kind,
        const char *direction, guint64 size)
{
  Run run{direction, size, {}, {}};
  std::vector<char> data(size);
  make_data(kind, data);
  Control wanted;
  wanted.set("direction", std::string(direction)).set("size", size);
  wanted.set("seconds", options.seconds).set("data", kind);
  channel.put(wanted);

  auto label = std::string(direction) + " " + std::to_string(size);
  if (std::strcmp(direction, "send") == 0)
    run.here = send_messages(channel, data, options.seconds, label);
  else
    run.here = receive_messages(channel, size, label);
  run.there = read_report(channel);
  if (run.here.messages != run.there.messages || run.here.bytes != run.there.bytes)
    fail(Exit::protocol,
         "%s counted %" G_GUINT64_FORMAT " messages, here it were %" G_GUINT64_FORMAT,
         channel.peer().c_str(), run.there.messages, run.here.messages);
  return run;
}

// The time of the receiving side, which takes longer.
static double
duration(const Run &run)
{
  return std::max(run.here.seconds, run.there.seconds);
}

static void
print_json(const Run &run, const Stages &stages, const std::string &kind)
{
  JsonLine line;
  line.add("stages", stages.text()).add("data", kind).add("direction", run.direction);
  line.add("size", run.size).add("messages", run.here.messages).add("bytes", run.here.bytes);
  line.add("wire-bytes", run.here.wire).add("seconds", duration(run));
  line.add("bytes-per-second", static_cast<double>(run.here.bytes) / duration(run));
  line.add("cpu-seconds-here", run.here.cpu).add("cpu-seconds-there", run.there.cpu);
  line.print();
}

static void
print_row(const Run &run)
{
  auto bytes = static_cast<double>(run.here.bytes);
  output_line("%-9s %9" G_GUINT64_FORMAT " %10" G_GUINT64_FORMAT " %9.1f %15" G_GUINT64_FORMAT
              " %6.2f %9.2f %9.2f",
              run.direction, run.size, run.here.messages, bytes / duration(run) / 1e6,
              run.here.wire, static_cast<double>(run.here.wire) / bytes, run.here.cpu,
              run.there.cpu);
}

Exit
run_perf(CommandLine &line)
{
  PerfOptions options;
  line.add("sizes", G_OPTION_ARG_STRING, &options.sizes.value,
           "Bytes in a message (default 64,1024,16384,262144)", "N,N...", 's');
  line.add("direction", G_OPTION_ARG_STRING, &options.direction.value,
           "send, receive, or both, one after the other (default)", "DIRECTION", 'd');
  line.add("seconds", G_OPTION_ARG_DOUBLE, &options.seconds,
           "Duration of each measurement (default 1)", "SECONDS", 't');
  line.add("data", G_OPTION_ARG_STRING, &options.data.value,
           "Contents of the messages: text (default), random or zero", "KIND");
  line.add("json", G_OPTION_ARG_NONE, &options.json, "Print one JSON object per measurement");
  line.add_stages();
  line.add_timeout();
  auto arguments = line.parse(1, 1);
  auto sizes = parse_sizes(options.sizes);
  auto directions = parse_direction(options.direction);
  std::string kind = options.data.value ? options.data.value : "text";
  std::vector<char> nothing;
  if (!make_data(kind, nothing))
    fail(Exit::usage, "--data is text, random or zero");
  if (!(options.seconds > 0 && options.seconds <= 3600))
    fail(Exit::usage, "--seconds is a number above 0 and up to 3600");

  auto address = Address::parse(arguments[0]);
  Channel channel(connect_to(address, line.timeout), line.stages, line.timeout);
  greet_serve(channel, perf_service, *std::max_element(sizes.begin(), sizes.end()));
  if (!options.json)
    output_line("%s, %s, %s data, %g s each\n%-9s %9s %10s %9s %15s %6s %9s %9s",
                address.text().c_str(), line.stages.text().c_str(), kind.c_str(), options.seconds,
                "direction", "size", "messages", "MB/s", "bytes on wire", "ratio", "CPU here",
                "CPU there");
  for (auto *direction : directions)
    for (auto size : sizes) {
      auto run = measure(channel, options, kind, direction, size);
      if (options.json)
        print_json(run, line.stages, kind);
      else
        print_row(run);
    }
  channel.close();
  return Exit::ok;
}
