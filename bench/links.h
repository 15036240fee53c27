// SPDX-License-Identifier: LGPL-2.1-or-later
// Connected pairs of channels of every kind that is compared, as blocking message code sees them.
#pragma once

#include "measure.h"

#include "tests/support/sockets.h"

#include <zelgvc/zelgvc.h>

#include <memory>
#include <string>
#include <vector>

namespace bench
{

constexpr const char *transports[] = {"tcp", "unix"};

// Contenders that put the same bytes on the wire share one connection, because its cost depends on
// its history: windows and acknowledgements above all. Over TCP both ends have TCP_NODELAY set, as
// GLib does since 2.80.
support::SocketPair connectSockets(const std::string &transport);

struct Streams {
  Ref<GIOStream> near;
  Ref<GIOStream> far;
};

// The streams of both ends. `kind` is the stages of a channel: "plain", "compressed", "encrypted"
// or "both". "by hand" are the sockets themselves.
Streams streamsOn(const support::SocketPair &sockets, const std::string &kind);

// A filter stream of this type on the base, or the base itself without a type.
template <typename Stream>
Ref<Stream>
wrap(Stream *base, GType (*type)())
{
  return Ref<Stream>(static_cast<Stream *>(type ? g_object_new(type(), "base-stream", base, nullptr)
                                                : g_object_ref(base)));
}

// One end of a pair. Both ends may be used from different threads.
struct End {
  Ref<GIOStream> stream;
  Ref<GInputStream> in;
  Ref<GOutputStream> out;
  void (*sendTo)(GOutputStream *out, GBytes *message);
  BytesRef (*receiveFrom)(GInputStream *in);

  void
  send(GBytes *message)
  {
    sendTo(out.get(), message);
  }
  BytesRef
  receive()
  {
    return receiveFrom(in.get());
  }
};

struct Link {
  End near;
  End far;
};

using SharedLink = std::shared_ptr<Link>;

// Kinds are those of streamsOn() and more peers:
// "by hand": a write for the length and one for the message, a read for each;
// "gathering": the same with one gathering write for both;
// "tls": one write for a frame, so that it is one TLS record; also prints what TLS agreed on.
// Ends the program unless a message arrives as it was sent.
SharedLink makeLink(const support::SocketPair &sockets, const std::string &kind);

// In one thread: sends so many messages, then receives them. They must fit into the socket's
// buffers. The messages take turns, and must outlive the contender.
Contender burst(const std::string &name, const SharedLink &link,
                const std::vector<GBytes *> &messages, std::size_t count);
// A second thread receives, and answers the last of a batch of messages.
Contender oneWay(const std::string &name, const SharedLink &link, GBytes *message);
// A second thread sends back each message.
Contender roundTrip(const std::string &name, const SharedLink &link, GBytes *message);

} // namespace bench
