// SPDX-License-Identifier: LGPL-2.1-or-later
// Small messages for a process of its own: run.py counts its system calls, or runs it on another
// build of the library.
#include "asyncends.h"
#include "groups.h"

namespace bench
{

static Contender
makeWork(const std::string &what, const std::string &stages, GBytes *message)
{
  constexpr std::size_t frames = 16; // of a burst
  auto sockets = connectSockets("unix");
  bool byHand = stages == "by hand";
  if (what == "blocking burst")
    return burst("seconds", makeLink(sockets, byHand ? "gathering" : stages), {message}, frames);
  auto pair =
      std::make_shared<AsyncPair>(streamsOn(sockets, stages), byHand ? framesByHand : framesZelgvc);
  if (what == "async burst")
    return {"seconds", repeat([=] { pair->burst(message, frames); }), frames};
  must(what == "async round trip", nullptr, "no such work");
  return {"seconds", [=](std::size_t times) { pair->roundTrips(message, times); }};
}

// The arguments are what is done, the stages, and how often. Without the last it is timed.
void
measureWork(const Report &report, const std::vector<std::string> &arguments)
{
  must(arguments.size() == 2 || arguments.size() == 3, nullptr, "work WHAT STAGES [TIMES]");
  static char data[64];
  Ref<GBytes> message(g_bytes_new_static(data, sizeof data));
  auto contender = makeWork(arguments[0], arguments[1], message.get());
  if (arguments.size() == 3)
    contender.run(std::stoul(arguments[2]) / contender.operations);
  else
    report.race({{"what", arguments[0]}, {"stages", arguments[1]}}, {contender});
}

} // namespace bench
