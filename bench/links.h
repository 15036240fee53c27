// SPDX-License-Identifier: LGPL-2.1-or-later
// Connected pairs of channels of every kind that is compared, as blocking message code sees them.
#pragma once

#include "measure.h"
#include "refs.h"

#include <zelgvc/zelgvc.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace bench
{

enum class Transport { tcp, unixSocket };

constexpr Transport transports[] = {Transport::tcp, Transport::unixSocket};
const char *transportName(Transport transport);

struct SocketPair {
  Ref<GSocketConnection> near;
  Ref<GSocketConnection> far;
};

// Contenders that put the same bytes on the wire share one connection, because its cost depends on
// its history: windows and acknowledgements above all.
using Sockets = std::shared_ptr<SocketPair>;

// Over TCP both ends have TCP_NODELAY set, as GLib does since 2.80.
Sockets connectSockets(Transport transport);

// The stages between messages and socket; `bare` is no channel at all.
enum class Stages { bare, none, compression, encryption, both };

const char *stagesName(Stages stages);

struct StreamPair {
  Ref<GIOStream> near;
  Ref<GIOStream> far;
};

using Streams = std::shared_ptr<StreamPair>;

// A channel at each end, with the same key; for Stages::bare the sockets themselves.
Streams streamsOn(const Sockets &sockets, Stages stages);

// One end of a pair. Both ends may be used from different threads.
class End
{
public:
  virtual ~End() = default;
  virtual void send(GBytes *message) = 0;
  virtual Ref<GBytes> receive() = 0;
};

struct Link {
  Sockets sockets;
  std::unique_ptr<End> near;
  std::unique_ptr<End> far;
};

using SharedLink = std::shared_ptr<Link>;

// The library's channel with its message streams.
SharedLink linkZelgvc(const Sockets &sockets, Stages stages);
// Frames by hand: a write for the length and one for the message, a read for each.
SharedLink linkByHand(const Sockets &sockets);
// The same with one gathering write for both.
SharedLink linkGathering(const Sockets &sockets);
// Frames over TLS, in one write each, so that a frame is one TLS record.
SharedLink linkTls(const Sockets &sockets);
// The same over GIO's zlib converters at their fastest level, flushed after each message.
SharedLink linkTlsZlib(const Sockets &sockets);

// The version and cipher that the last TLS link agreed on.
std::string tlsDescription();

// Ends the program unless a message arrives as it was sent.
void checkLink(const SharedLink &link, GBytes *message);

// In one thread: sends so many messages, then receives them. They must fit into the socket's
// buffers. The messages take turns, and must outlive the contender.
Contender burst(const std::string &name, const SharedLink &link,
                const std::vector<GBytes *> &messages, std::size_t count);

// A second thread receives, and answers the last of a batch of messages.
Contender oneWay(const std::string &name, const SharedLink &link, GBytes *message);
// A second thread sends back each message.
Contender roundTrip(const std::string &name, const SharedLink &link, GBytes *message);

} // namespace bench
