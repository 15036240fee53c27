// SPDX-License-Identifier: LGPL-2.1-or-later
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
SharedBytes
makeString(gsize length)
{
  std::string text(length - 1, 'x');
  text += '\n';
  return SharedBytes(g_bytes_new(text.data(), text.size()));
}

constexpr Transport transports[] = {Transport::tcp, Transport::unixSocket};

} // namespace

void
measureAsync(Report &report)
{
  report.begin(
      "async", "Asynchronous frames beside frames by hand",
      "put_bytes_async and read_bytes_async on a plain channel (zelgvc) and on one with both "
      "stages; gio: g_output_stream_write_all_async and g_input_stream_read_all_async of a length "
      "and of the message on the bare socket streams. All use the same connection, both ends are "
      "in one thread and one main loop.");
  auto data = repeated(corpus("source"), 1 << 16);

  for (auto transport : transports) {
    auto sockets = connectSockets(transport);
    AsyncPair plain(streamsOn(sockets, Stages::none), framesZelgvc);
    AsyncPair both(streamsOn(sockets, Stages::both), framesZelgvc);
    AsyncPair gio(streamsOn(sockets, Stages::bare), framesGio);
    for (const auto &mode : modes)
      for (std::int64_t size : {64, 1024, 65536}) {
        Parameters parameters = {
            {"transport", transportName(transport)}, {"mode", mode.name}, {"size", size}};
        if (!report.wants(parameters))
          continue;
        SharedBytes message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
        report.race(parameters, size,
                    {checked("zelgvc", plain, mode, message.get()),
                     checked("both", both, mode, message.get()),
                     checked("gio", gio, mode, message.get())},
                    {{"zelgvc", "gio"}, {"both", "gio"}});
      }
  }
}

// ---- Strings ----

namespace
{

void
raceAsyncStrings(Report &report, Transport transport, Stages stages, const Streams &streams)
{
  AsyncPair ours(streams, stringsZelgvc);
  AsyncPair lines(streams, stringsGDataInputStream);
  for (const auto &mode : modes)
    for (std::int64_t size : {16, 64, 256, 1024}) {
      Parameters parameters = {{"transport", transportName(transport)},
                               {"stages", stagesName(stages)},
                               {"mode", mode.name},
                               {"size", size}};
      if (!report.wants(parameters))
        continue;
      auto message = makeString(static_cast<gsize>(size));
      report.race(parameters, size,
                  {checked("zelgvc", ours, mode, message.get()),
                   checked("GDataInputStream", lines, mode, message.get())});
    }
}

void
raceBlockingStrings(Report &report, Transport transport, Stages stages, const Streams &streams)
{
  constexpr gsize size = 1024;
  Parameters parameters = {{"transport", transportName(transport)},
                           {"stages", stagesName(stages)},
                           {"mode", "blocking"},
                           {"size", std::int64_t{size}}};
  if (!report.wants(parameters))
    return;
  auto *in = g_io_stream_get_input_stream(streams->far.get());
  auto strings = keepingBaseOpen(gvc_data_input_stream_new(in));
  auto lines = keepingBaseOpen(g_data_input_stream_new(in));

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
  report.race(parameters, size, {{"zelgvc", repeat(ours)}, {"GDataInputStream", repeat(theirs)}});
}

} // namespace

void
measureStrings(Report &report)
{
  report.begin(
      "strings", "Strings beside GDataInputStream",
      "zelgvc: read_string, which leaves what follows in the stream; GDataInputStream: GIO's line "
      "reader, which reads ahead. Both read from the same stream: the bare channel's (plain), or "
      "one behind both stages. Both ends are in one thread, and in one main loop unless the mode "
      "is blocking, which writes a string and then reads it.");
  for (auto transport : transports)
    for (auto stages : {Stages::none, Stages::both}) {
      auto streams = streamsOn(connectSockets(transport), stages);
      raceAsyncStrings(report, transport, stages, streams);
      raceBlockingStrings(report, transport, stages, streams);
    }
}

} // namespace bench
