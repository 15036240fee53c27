// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"
#include "groups.h"
#include "links.h"

namespace bench
{

void
measureBlocking(Report &report)
{
  report.begin(
      "blocking", "Blocking frames beside frames by hand",
      "Each message is sent and then received in one thread. zelgvc: put_bytes and read_bytes on a "
      "plain channel; both: on a channel with both stages; gathering: by hand on the bare socket "
      "streams, one g_output_stream_writev_all of length and message, read_all of each; two "
      "writes: by hand, write_all of each. All of them use the same connection.");
  auto data = repeated(corpus("source"), 1 << 16);

  for (auto transport : {Transport::tcp, Transport::unixSocket}) {
    auto sockets = connectSockets(transport);
    auto plain = linkZelgvc(sockets, Stages::none);
    auto both = linkZelgvc(sockets, Stages::both);
    auto gathering = linkGathering(sockets);
    auto gio = linkGio(sockets);
    const Entrant entrants[] = {{"zelgvc", plain.get()},
                                {"both", both.get()},
                                {"gathering", gathering.get()},
                                {"two writes", gio.get()}};
    for (std::int64_t size : {64, 1024, 65536}) {
      Parameters parameters = {{"transport", transportName(transport)}, {"size", size}};
      if (!report.wants(parameters))
        continue;
      SharedBytes message(g_bytes_new_static(data.data(), static_cast<gsize>(size)));
      std::vector<Contender> contenders;
      for (const auto &entrant : entrants) {
        checkLink(*entrant.link, message.get());
        contenders.push_back(inOneThread(entrant.name, *entrant.link, {message.get()}));
      }
      report.race(parameters, size, contenders,
                  {{"zelgvc", "gathering"}, {"zelgvc", "two writes"}, {"both", "two writes"}});
    }
  }
}

} // namespace bench
