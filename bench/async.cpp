// SPDX-License-Identifier: LGPL-2.1-or-later
// Asynchronous frames beside frames by hand, and strings beside GDataInputStream.
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"

namespace bench
{

namespace
{

struct Mode {
  const char *name;
  void (AsyncPair::*run)(GBytes *message, std::size_t times);
};

constexpr Mode modes[] = {{"one way", &AsyncPair::oneWay}, {"round trip", &AsyncPair::roundTrips}};

Contender
checked(const char *name, AsyncPair &pair, const Mode &mode, GBytes *message)
{
  pair.check(message);
  return {name, [&pair, &mode, message](std::size_t times) { (pair.*mode.run)(message, times); }};
}

// `length` bytes with its end, a line feed.
Ref<GBytes>
makeString(gsize length)
{
  std::string text(length - 1, 'x');
  text += '\n';
  return Ref<GBytes>(g_bytes_new(text.data(), text.size()));
}

} // namespace

void
measureAsync(const Report &report)
{
  auto data = source(1 << 16);
  for (auto transport : transports) {
    auto sockets = connectSockets(transport);
    AsyncPair plain(streamsOn(sockets, Stages::none), framesZelgvc);
    AsyncPair both(streamsOn(sockets, Stages::both), framesZelgvc);
    AsyncPair byHand(streamsOn(sockets, Stages::bare), framesByHand);
    for (const auto &mode : modes)
      for (std::int64_t size : {64, 1024, 65536}) {
        Parameters parameters = {
            {"transport", transportName(transport)}, {"mode", mode.name}, {"size", size}};
        if (!report.wants(parameters))
          continue;
        Ref<GBytes> message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
        report.race(parameters, {checked("plain", plain, mode, message.get()),
                                 checked("both", both, mode, message.get()),
                                 checked("by hand", byHand, mode, message.get())});
      }
  }
}

// ---- Strings ----

static void
raceAsyncStrings(const Report &report, const Parameters &common, const Streams &streams)
{
  AsyncPair ours(streams, stringsZelgvc);
  AsyncPair lines(streams, stringsGDataInputStream);
  for (const auto &mode : modes)
    for (std::int64_t size : {16, 64, 256, 1024}) {
      auto parameters = common;
      parameters.insert(parameters.end(), {{"mode", mode.name}, {"size", size}});
      if (!report.wants(parameters))
        continue;
      auto message = makeString(static_cast<gsize>(size));
      report.race(parameters, {checked("zelgvc", ours, mode, message.get()),
                               checked("GDataInputStream", lines, mode, message.get())});
    }
}

static void
raceBlockingStrings(const Report &report, Parameters parameters, const Streams &streams)
{
  constexpr gsize size = 1024;
  parameters.insert(parameters.end(), {{"mode", "blocking"}, {"size", std::int64_t{size}}});
  if (!report.wants(parameters))
    return;
  auto *in = g_io_stream_get_input_stream(streams->far.get());
  Ref<GvcDataInputStream> strings(gvc_data_input_stream_new(in));
  Ref<GDataInputStream> lines(g_data_input_stream_new(in));

  auto message = makeString(size);
  auto write = [&, out = g_io_stream_get_output_stream(streams->near.get())] {
    GError *error = nullptr;
    must(g_output_stream_write_all(out, g_bytes_get_data(message.get(), nullptr), size, nullptr,
                                   nullptr, &error),
         error, "write");
  };
  auto ours = [&] {
    write();
    gsize length = 0;
    GError *error = nullptr;
    g_autofree char *text =
        gvc_data_input_stream_read_string(strings.get(), '\n', &length, nullptr, &error);
    must(text && length == size, error, "read string");
  };
  auto theirs = [&] {
    write();
    gsize length = 0;
    GError *error = nullptr;
    g_autofree char *text = g_data_input_stream_read_line(lines.get(), &length, nullptr, &error);
    must(text && length == size - 1, error, "read line");
  };
  report.race(parameters, {{"zelgvc", repeat(ours)}, {"GDataInputStream", repeat(theirs)}});
}

void
measureStrings(const Report &report)
{
  for (auto transport : transports)
    for (auto stages : {Stages::none, Stages::both}) {
      auto streams = streamsOn(connectSockets(transport), stages);
      Parameters common = {{"transport", transportName(transport)}, {"stages", stagesName(stages)}};
      raceAsyncStrings(report, common, streams);
      raceBlockingStrings(report, common, streams);
    }
}

} // namespace bench
