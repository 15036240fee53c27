// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"
#include "groups.h"
#include "links.h"

namespace bench
{

namespace
{

struct Mode {
  const char *name;
  Duel (*duel)(const std::vector<Entrant> &, GBytes *);
  std::int64_t most; // bytes of message
};

constexpr Mode modes[] = {{"one thread", duelInOneThread, 64 << 10},
                          {"one way", duelOneWay, 1 << 20},
                          {"round trip", duelRoundTrip, 1 << 20}};

} // namespace

void
measureBlocking(Report &report)
{
  report.begin(
      "blocking", "Blocking frames beside hand-written GIO",
      "put_bytes and read_bytes on a plain channel; gio: write_all of a length and of the "
      "message, read_all of both, on the bare socket streams of the same connection. \"one "
      "thread\" sends and receives in turn in one thread; in the others the peer is a "
      "second thread. The two take turns every 16 messages in one thread, every batch of "
      "up to 128 messages one way, every round trip.");
  auto data = repeated(corpus("source"), 1 << 20);
  std::vector<std::int64_t> sizes = {16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort().quick)
    sizes = {64, 4096, 65536};

  for (auto transport : {Transport::tcp, Transport::unixSocket}) {
    auto sockets = connectSockets(transport);
    auto ours = linkZelgvc(sockets, Stages::none);
    auto gio = linkGio(sockets);
    for (const auto &mode : modes)
      for (auto size : sizes) {
        if (size > mode.most)
          continue;
        SharedBytes message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
        checkLink(*ours, message.get());
        checkLink(*gio, message.get());
        report.race({{"transport", transportName(transport)}, {"mode", mode.name}, {"size", size}},
                    size, mode.duel({{"zelgvc", ours.get()}, {"gio", gio.get()}}, message.get()));
      }
  }
}

void
measureNoDelay(Report &report)
{
  report.begin(
      "nodelay", "Round trips over TCP with and without TCP_NODELAY",
      "Blocking round trips over loopback TCP, the peer in a second thread; both ends have "
      "the option on or off; each contender has a connection of its own. The channel sets it, a "
      "bare socket of GLib before 2.80 does "
      "not.");
  auto data = corpus("source");

  for (std::int64_t size : {16, 1024})
    for (bool on : {true, false}) {
      SharedBytes message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      auto ours = linkZelgvc(connectSockets(Transport::tcp), Stages::none);
      auto both = linkZelgvc(connectSockets(Transport::tcp), Stages::both);
      auto gio = linkGio(connectSockets(Transport::tcp));
      for (auto *link : {ours.get(), both.get(), gio.get()}) {
        setNoDelay(link->sockets->near.get(), on);
        setNoDelay(link->sockets->far.get(), on);
        checkLink(*link, message.get());
      }
      report.race(
          {{"nodelay", on ? "on" : "off"}, {"size", size}}, 0,
          duelRoundTrip({{"zelgvc", ours.get()}, {"zelgvc both", both.get()}, {"gio", gio.get()}},
                        message.get()));
    }
}

} // namespace bench
