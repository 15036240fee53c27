// SPDX-License-Identifier: LGPL-2.1-or-later
// The two ends of a connection as asynchronous message code sees them.
#pragma once

#include "links.h"

#include <string_view>

namespace bench
{

// One operation per direction may be in flight. Callbacks come from the main loop.
class AsyncEnd
{
public:
  explicit AsyncEnd(GIOStream *stream);
  virtual ~AsyncEnd() = default;

  // By default sends the bytes alone, with GIO's write_all_async().
  virtual void send(GBytes *message);
  virtual void receive() = 0;

  std::function<void()> sent;
  std::function<void(std::string_view message)> received;

protected:
  static void bytesWritten(GObject *out, GAsyncResult *result, gpointer self);

  Ref<GInputStream> _in;
  Ref<GOutputStream> _out;
};

using MakeAsyncEnd = std::unique_ptr<AsyncEnd> (*)(GIOStream *stream);

// The library's message streams on any stream.
std::unique_ptr<AsyncEnd> framesZelgvc(GIOStream *stream);
// Frames by hand with g_output_stream_write_all_async() and g_input_stream_read_all_async().
std::unique_ptr<AsyncEnd> framesByHand(GIOStream *stream);
// Strings that end in a line feed; the message is the string.
std::unique_ptr<AsyncEnd> stringsZelgvc(GIOStream *stream);
// GDataInputStream reads ahead into a buffer of its own.
std::unique_ptr<AsyncEnd> stringsGDataInputStream(GIOStream *stream);

// Both ends in one thread and one main loop: that of the thread-default main context.
class AsyncPair
{
public:
  AsyncPair(Streams streams, MakeAsyncEnd make);

  // Ends the program unless messages arrive as they were sent.
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
  void armNear();
  void armFar();
  void prepare(GBytes *message, std::size_t times);
  void sendNext();
  void nextRoundTrip();
  void stepDone();
  void checkArrived(std::string_view message) const;

  Streams _streams;
  std::unique_ptr<AsyncEnd> _near;
  std::unique_ptr<AsyncEnd> _far;
  GBytes *_message = nullptr;
  std::size_t _toSend = 0;
  std::size_t _toReceive = 0;
  std::size_t *_unfinished = nullptr;
  int _steps = 0; // of a round trip that are not done yet
  bool _sending = false;
  bool _checkContent = false;
  bool _staysArmed = false;
  bool _nearArmed = false;
  bool _farArmed = false;
};

} // namespace bench
