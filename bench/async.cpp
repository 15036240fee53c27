// SPDX-License-Identifier: LGPL-2.1-or-later
#include "asyncends.h"
#include "corpora.h"
#include "groups.h"

namespace bench
{

namespace
{

using Run = void (*)(AsyncEnd &, AsyncEnd &, GBytes *, std::size_t);
using MakeEnd = std::unique_ptr<AsyncEnd> (*)(GInputStream *, GOutputStream *);

struct Mode {
  const char *name;
  Run run;
};

constexpr Mode modes[] = {{"one way", runAsyncOneWay}, {"round trip", runAsyncRoundTrip}};

// A pair of ends of one kind.
struct Pair {
  const char *name;
  Sockets sockets;
  Object<GvcConnection> near_channel;
  Object<GvcConnection> far_channel;
  std::unique_ptr<AsyncEnd> near;
  std::unique_ptr<AsyncEnd> far;
};

std::unique_ptr<AsyncEnd>
makeEnd(GIOStream *stream, bool isOpaque, MakeEnd make)
{
  auto *in = g_io_stream_get_input_stream(stream);
  auto *out = g_io_stream_get_output_stream(stream);
  if (!isOpaque)
    return make(in, out);
  auto opaque_in = makeOpaque(in);
  auto opaque_out = makeOpaque(out);
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(opaque_in.get()), FALSE);
  g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(opaque_out.get()), FALSE);
  return make(opaque_in.get(), opaque_out.get());
}

enum class Below { socket, channel, opaqueChannel };

Pair
makePair(const char *name, const Sockets &sockets, Below below, MakeEnd make)
{
  Pair pair;
  pair.name = name;
  pair.sockets = sockets;
  pair.near_channel = makeChannel(sockets->near.get(), Stages::none);
  pair.far_channel = makeChannel(sockets->far.get(), Stages::none);
  bool bare = below == Below::socket;
  bool isOpaque = below == Below::opaqueChannel;
  pair.near =
      makeEnd(bare ? G_IO_STREAM(sockets->near.get()) : G_IO_STREAM(pair.near_channel.get()),
              isOpaque, make);
  pair.far = makeEnd(bare ? G_IO_STREAM(sockets->far.get()) : G_IO_STREAM(pair.far_channel.get()),
                     isOpaque, make);
  return pair;
}

void
race(Report &report, Transport transport, const Mode &mode, GBytes *message,
     const std::vector<Pair> &pairs)
{
  std::vector<Contender> contenders;
  for (const auto &pair : pairs) {
    checkAsync(*pair.near, *pair.far, message);
    contenders.push_back({pair.name, [&pair, &mode, message](std::size_t times) {
                            mode.run(*pair.near, *pair.far, message, times);
                          }});
  }
  auto size = static_cast<std::int64_t>(g_bytes_get_size(message));
  auto timings = takeTurns(contenders, report.effort());
  std::vector<std::string> yardsticks;
  for (std::size_t i = 1; i < pairs.size(); i++)
    yardsticks.push_back(pairs[i].name);
  auto ratios = ratiosOf(timings, "zelgvc", yardsticks);
  // What hand-written GIO itself reaches beside the last one says what can be expected of us.
  ratios.push_back(ratiosOf(timings, "gio", {yardsticks.back()}).front());
  report.add({{{"transport", transportName(transport)}, {"mode", mode.name}, {"size", size}},
              size,
              timings,
              ratios,
              {}});
}

// `length` bytes with its end, a line feed.
SharedBytes
makeString(gsize length)
{
  std::string text(length - 1, 'x');
  text += '\n';
  return SharedBytes(g_bytes_new(text.data(), text.size()));
}

} // namespace

void
measureAsync(Report &report)
{
  report.begin(
      "async", "Asynchronous frames beside hand-written GIO",
      "put_bytes_async and read_bytes_async on a plain channel; gio: "
      "g_output_stream_write_all_async and g_input_stream_read_all_async of a length and of the "
      "message on the bare socket streams of the same connection; not pollable: the library's "
      "message streams on a filter "
      "stream that cannot be polled, so that GIO uses worker threads. Both ends in one thread and "
      "one main loop.");
  auto data = repeated(corpus("source"), 1 << 20);
  std::vector<gsize> sizes = {16, 64, 256, 1024, 4096, 16384, 65536, 1 << 20};
  if (report.effort().quick)
    sizes = {64, 65536};

  for (auto transport : {Transport::tcp, Transport::unixSocket}) {
    auto sockets = connectSockets(transport);
    std::vector<Pair> pairs;
    pairs.push_back(makePair("zelgvc", sockets, Below::channel, asyncZelgvc));
    pairs.push_back(makePair("gio", sockets, Below::socket, asyncGio));
    pairs.push_back(makePair("not pollable", sockets, Below::opaqueChannel, asyncZelgvc));
    for (const auto &mode : modes)
      for (auto size : sizes) {
        SharedBytes message(g_bytes_new_static(data.data(), size));
        race(report, transport, mode, message.get(), pairs);
      }
  }
}

void
measureStrings(Report &report)
{
  report.begin(
      "strings", "Asynchronous strings",
      "read_string_async on a plain channel; gio: a byte at a time by hand on the bare socket "
      "stream; GDataInputStream: GIO's line reader, which reads ahead; not pollable: the library's "
      "stream on a filter stream that cannot be polled. Both ends in one thread and one main "
      "loop.");
  std::vector<gsize> sizes = {16, 64, 256, 1024};
  if (report.effort().quick)
    sizes = {64};

  for (auto transport : {Transport::tcp, Transport::unixSocket}) {
    auto sockets = connectSockets(transport);
    std::vector<Pair> pairs;
    pairs.push_back(makePair("zelgvc", sockets, Below::channel, stringsZelgvc));
    pairs.push_back(makePair("gio", sockets, Below::socket, stringsGio));
    pairs.push_back(makePair("GDataInputStream", sockets, Below::socket, stringsGDataInputStream));
    pairs.push_back(makePair("not pollable", sockets, Below::opaqueChannel, stringsZelgvc));
    for (const auto &mode : modes)
      for (auto size : sizes) {
        auto message = makeString(size);
        race(report, transport, mode, message.get(), pairs);
      }
  }
}

} // namespace bench
