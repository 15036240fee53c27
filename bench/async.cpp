// SPDX-License-Identifier: LGPL-2.1-or-later
// Asynchronous frames beside frames by hand, and strings beside GDataInputStream.
#include "asyncends.h"
#include "corpora.h"

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
BytesRef
makeString(std::int64_t length)
{
  std::string text(static_cast<std::size_t>(length) - 1, 'x');
  text += '\n';
  return BytesRef(g_bytes_new(text.data(), text.size()));
}

} // namespace

void
measureAsync(const Report &report)
{
  auto data = source(1 << 16);
  for (auto transport : transports) {
    auto sockets = connectSockets(transport);
    AsyncPair plain(streamsOn(sockets, "plain"), framesZelgvc);
    AsyncPair both(streamsOn(sockets, "both"), framesZelgvc);
    AsyncPair byHand(streamsOn(sockets, "by hand"), framesByHand);
    for (const auto &mode : modes)
      for (std::int64_t size : {64, 1024, 65536}) {
        BytesRef message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
        report.race({{"transport", transport}, {"mode", mode.name}, {"size", size}},
                    {checked("plain", plain, mode, message.get()),
                     checked("both", both, mode, message.get()),
                     checked("by hand", byHand, mode, message.get())});
      }
  }
}

// ---- Strings ----

static void
raceBlockingStrings(const Report &report, const char *transport, const char *stages,
                    const Streams &streams)
{
  constexpr gsize size = 1024;
  auto *in = g_io_stream_get_input_stream(streams.far.get());
  Ref<GvcDataInputStream> strings(gvc_data_input_stream_new(in));
  Ref<GDataInputStream> lines(g_data_input_stream_new(in));
  auto message = makeString(size);
  GError *error = nullptr;
  auto write = [&, out = g_io_stream_get_output_stream(streams.near.get())] {
    must(g_output_stream_write_all(out, g_bytes_get_data(message.get(), nullptr), size, nullptr,
                                   nullptr, &error),
         error, "write");
  };
  gsize length = 0;
  auto ours = [&] {
    write();
    g_free(gvc_data_input_stream_read_string(strings.get(), '\n', &length, nullptr, &error));
    must(!error && length == size, error, "read string");
  };
  auto theirs = [&] {
    write();
    g_free(g_data_input_stream_read_line(lines.get(), &length, nullptr, &error));
    must(!error && length == size - 1, error, "read line");
  };
  report.race({{"transport", transport},
               {"stages", stages},
               {"mode", "blocking"},
               {"size", std::int64_t{size}}},
              {{"zelgvc", repeat(ours)}, {"GDataInputStream", repeat(theirs)}});
}

void
measureStrings(const Report &report)
{
  for (auto transport : transports)
    for (const char *stages : {"plain", "both"}) {
      auto streams = streamsOn(connectSockets(transport), stages);
      AsyncPair ours(streams, stringsZelgvc);
      AsyncPair lines(streams, stringsGDataInputStream);
      for (const auto &mode : modes)
        for (std::int64_t size : {16, 64, 256, 1024}) {
          auto message = makeString(size);
          report.race(
              {{"transport", transport}, {"stages", stages}, {"mode", mode.name}, {"size", size}},
              {checked("zelgvc", ours, mode, message.get()),
               checked("GDataInputStream", lines, mode, message.get())});
        }
      raceBlockingStrings(report, transport, stages, streams);
    }
}

} // namespace bench
