// SPDX-License-Identifier: LGPL-2.1-or-later
// The two ends of a connection as asynchronous message code sees them.
#pragma once

#include "links.h"

namespace bench
{

class AsyncEnd;

// One way to move messages. send() and receive() start an operation, whose callback calls sent() or
// received(). These finish it; they return false if they started another step of the same message.
struct Method {
  GType (*inputType)(); // on the stream; NULL for the stream itself
  GType (*outputType)();
  void (*send)(AsyncEnd &end);
  bool (*sent)(AsyncEnd &end, GAsyncResult *result, GError **error);
  void (*receive)(AsyncEnd &end);
  bool (*received)(AsyncEnd &end, GAsyncResult *result, GError **error);
};

// The library's message streams on any streams.
extern const Method framesZelgvc;
// Frames by hand with g_output_stream_write_all_async() and g_input_stream_read_all_async().
extern const Method framesByHand;
// Strings that end in a line feed; the message is the string.
extern const Method stringsZelgvc;
// GDataInputStream reads ahead into a buffer of its own.
extern const Method stringsGDataInputStream;

// Sends messages one after the other, and receives them. Callbacks come from the main loop.
class AsyncEnd
{
public:
  AsyncEnd(GIOStream *stream, const Method &method);

  void send(GBytes *message, std::size_t times);
  void receive(std::size_t times);
  // An operation that is not reported yet would disturb what comes next.
  bool
  busy() const
  {
    return _toSend > 0 || _toReceive > 0;
  }

  std::function<void(GBytes *message)> onReceived;

  static void whenSent(GObject *, GAsyncResult *result, gpointer user_data);
  static void whenReceived(GObject *, GAsyncResult *result, gpointer user_data);

  // For the method.
  Ref<GInputStream> in;
  Ref<GOutputStream> out;
  GBytes *sending = nullptr;
  BytesRef arrived;
  guint32 outPrefix = 0;
  guint32 inPrefix = 0;
  bool prefixSent = false;
  void *data = nullptr; // of a message that is not there yet

private:
  Ref<GIOStream> _stream;
  const Method &_method;
  std::size_t _toSend = 0;
  std::size_t _toReceive = 0;
};

// Both ends in one thread and one main loop: that of the thread-default main context.
class AsyncPair
{
public:
  AsyncPair(const Streams &streams, const Method &method);

  // Ends the program unless a message arrives as it was sent.
  void check(GBytes *message);
  // Writes each message after the one before, until all have arrived.
  void oneWay(GBytes *message, std::size_t times);
  // Receives only when all messages are written; they must fit into the socket's buffers.
  void burst(GBytes *message, std::size_t times);
  // The far end sends a message back before the next one is sent.
  void roundTrips(GBytes *message, std::size_t times);

  // For many pairs in one main loop. arm(): from now on both ends always have a receive in flight.
  void arm();
  // Starts round trips, and takes one off `unfinished` when they are done.
  void start(GBytes *message, std::size_t times, std::size_t *unfinished);

private:
  void wait() const;
  void checkArrived(GBytes *arrived) const;

  AsyncEnd _near;
  AsyncEnd _far;
  GBytes *_message = nullptr;
  std::size_t _trips = 0; // that are not done yet
  std::size_t *_unfinished = nullptr;
  bool _checkContent = false;
};

} // namespace bench
