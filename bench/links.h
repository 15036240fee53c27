// SPDX-License-Identifier: LGPL-2.1-or-later
// Connected pairs of channels of every kind that is compared, as blocking message code sees them.
#pragma once

#include "measure.h"
#include "owners.h"

#include <zelgvc/zelgvc.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace bench
{

enum class Transport { tcp, unixSocket };

const char *transportName(Transport transport);

struct SocketPair {
  Object<GSocketConnection> near;
  Object<GSocketConnection> far;
};

// Contenders that put the same bytes on the wire take turns on one connection: what a connection
// costs depends on what it has gone through, its windows and acknowledgements above all.
using Sockets = std::shared_ptr<SocketPair>;

// Over TCP both ends have TCP_NODELAY set, as GLib itself does since 2.80.
Sockets connectSockets(Transport transport);

// The stages between messages and socket; `bare` is no channel at all.
enum class Stages { bare, none, compression, encryption, both };

const char *stagesName(Stages stages);

struct StreamPair {
  Object<GIOStream> near;
  Object<GIOStream> far;
};

using Streams = std::shared_ptr<StreamPair>;

// A channel at each end, with the same key, or the sockets themselves.
Streams streamsOn(const Sockets &sockets, Stages stages);

// One end of a pair. Both ends may be used from different threads.
class End
{
public:
  virtual ~End() = default;
  virtual void send(GBytes *message) = 0;
  virtual SharedBytes receive() = 0;
};

// Runs tasks in a second thread, one at a time.
class PeerThread
{
public:
  PeerThread();
  ~PeerThread();
  void start(std::function<void()> task);
  void wait();

private:
  void loop();

  std::mutex _mutex;
  std::condition_variable _changed;
  std::function<void()> _task;
  bool _busy = false;
  bool _ending = false;
  std::thread _thread;
};

// A connected pair, whose far end is the second thread's.
struct Link {
  std::unique_ptr<End> near;
  std::unique_ptr<End> far;
  Sockets sockets;
  PeerThread peer;
};

// The library's channel with its message streams.
std::unique_ptr<Link> linkZelgvc(const Sockets &sockets, Stages stages);
// Frames by hand: a write for the length and one for the message, a read for each.
std::unique_ptr<Link> linkGio(const Sockets &sockets);
// The same with one gathering write for both.
std::unique_ptr<Link> linkGathering(const Sockets &sockets);
// Frames over TLS, in the way that suits TLS: one write a message, so that it is one TLS record.
std::unique_ptr<Link> linkTls(const Sockets &sockets);
// The same with GIO's zlib converters on top, at their fastest level, flushed behind each message
// so that the peer has it when it is sent.
std::unique_ptr<Link> linkTlsZlib(const Sockets &sockets);

// The version and cipher that the last TLS link agreed on.
std::string tlsDescription();

// The messages one after the other, for ever.
inline auto
cycle(std::vector<GBytes *> messages)
{
  return [messages, at = std::size_t{0}]() mutable { return messages[at++ % messages.size()]; };
}

// Sends a message and then receives it, in this thread, one of the messages after the other. They
// must fit into the socket's buffers. The link and the messages must outlive the contender.
Contender inOneThread(const std::string &name, Link &link, const std::vector<GBytes *> &messages);

// Two ways to move messages in two threads, by links that take turns; all of them use the peer
// thread of the first.
struct Entrant {
  std::string name;
  Link *link;
};

// Sends so many messages and then receives them, in this thread.
void runBurst(Link &link, GBytes *message, std::size_t times);

// The same as a duel: nobody waits and nobody has to be woken.
Duel duelBurst(const std::vector<Entrant> &entrants, GBytes *message);
// The second thread receives, and answers the last of a batch of messages.
Duel duelOneWay(const std::vector<Entrant> &entrants, GBytes *message);
// The second thread sends back what it receives.
Duel duelRoundTrip(const std::vector<Entrant> &entrants, GBytes *message);

// Sends all messages `times` times one way; the second thread receives.
void runOneWay(Link &link, const std::vector<SharedBytes> &messages, std::size_t times);

// Ends the program unless a message arrives as it was sent.
void checkLink(Link &link, GBytes *message);

} // namespace bench
