// SPDX-License-Identifier: LGPL-2.1-or-later
// Small messages for a process of its own: run.py counts its system calls, or runs it on another
// build of the library.
#include "asyncends.h"
#include "groups.h"

#include <cstdlib>

namespace bench
{

namespace
{

constexpr std::size_t frames = 16; // of a burst

Contender
work(const std::string &what, Stages stages, GBytes *message)
{
  auto sockets = connectSockets(Transport::unixSocket);
  if (what == "blocking burst")
    return burst("", stages == Stages::bare ? linkGathering(sockets) : linkZelgvc(sockets, stages),
                 {message}, frames);
  auto pair = std::make_shared<AsyncPair>(streamsOn(sockets, stages),
                                          stages == Stages::bare ? framesByHand : framesZelgvc);
  if (what == "async burst")
    return {"", repeat([=] { pair->burst(message, frames); }), frames};
  must(what == "async round trip", nullptr, "no such work");
  return {"", [=](std::size_t times) { pair->roundTrips(message, times); }};
}

} // namespace

// The arguments are what is done, the stages, and how often. Without the last it is timed.
void
measureWork(const Report &report, const std::vector<std::string> &arguments)
{
  must(arguments.size() == 2 || arguments.size() == 3, nullptr, "work WHAT STAGES [TIMES]");
  Stages stages = arguments[1] == "plain"  ? Stages::none
                  : arguments[1] == "both" ? Stages::both
                                           : Stages::bare;
  static char data[64];
  Ref<GBytes> message(g_bytes_new_static(data, sizeof data));
  auto contender = work(arguments[0], stages, message.get());
  if (arguments.size() == 3) {
    contender.run(static_cast<std::size_t>(std::atol(arguments[2].c_str())) / contender.operations);
    return;
  }
  contender.name = "seconds";
  report.race({{"what", arguments[0]}, {"stages", arguments[1]}}, {contender});
}

} // namespace bench
