// SPDX-License-Identifier: LGPL-2.1-or-later
// Ends of channels as asynchronous message code sees them, and opaque streams: filters that pass
// everything on and cannot be polled, so that GIO moves each of their asynchronous calls to a
// worker thread.
#pragma once

#include "links.h"

namespace bench
{

Object<GInputStream> makeOpaque(GInputStream *base);
Object<GOutputStream> makeOpaque(GOutputStream *base);

// One operation a direction may be in flight. Callbacks come from the main loop.
class AsyncEnd
{
public:
  using Sent = void (*)(void *user_data);
  using Received = void (*)(const void *message, gsize size, void *user_data);

  virtual ~AsyncEnd() = default;
  virtual void send(GBytes *message, Sent sent, void *user_data) = 0;
  virtual void receive(Received received, void *user_data) = 0;
};

// The library's message streams on any streams.
std::unique_ptr<AsyncEnd> asyncZelgvc(GInputStream *in, GOutputStream *out);
// Frames by hand with g_output_stream_write_all_async() and g_input_stream_read_all_async().
std::unique_ptr<AsyncEnd> asyncGio(GInputStream *in, GOutputStream *out);

// Strings that end in a line feed, the message being the string.
std::unique_ptr<AsyncEnd> stringsZelgvc(GInputStream *in, GOutputStream *out);
// By hand, a byte at a time, as anyone must read who leaves what follows in the stream.
std::unique_ptr<AsyncEnd> stringsGio(GInputStream *in, GOutputStream *out);
// GDataInputStream, which reads ahead into a buffer of its own.
std::unique_ptr<AsyncEnd> stringsGDataInputStream(GInputStream *in, GOutputStream *out);

// Both ends in one main loop: messages one behind the other, each written once the one before is,
// ended when all have arrived.
void runAsyncOneWay(AsyncEnd &near, AsyncEnd &far, GBytes *message, std::size_t times);
// Both ends in one main loop: the far end sends a message back before the next one is sent.
void runAsyncRoundTrip(AsyncEnd &near, AsyncEnd &far, GBytes *message, std::size_t times);

// Ends the program unless a message arrives as it was sent.
void checkAsync(AsyncEnd &near, AsyncEnd &far, GBytes *message);

} // namespace bench
