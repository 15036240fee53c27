// SPDX-License-Identifier: LGPL-2.1-or-later
// A limit on the time for one message. The timeout of a socket is no such limit: it starts again
// with each byte. Code that receives bytes calls check().
#pragma once

#include <gio/gio.h>

class Deadline
{
public:
  // A peer that sends fewer bytes per second than this is too slow.
  static constexpr gint64 least_rate = 32 * 1024;

  explicit Deadline(GSocket *socket) : socket(socket) {}

  // Sets the deadline to `seconds` from now.
  void begin(guint64 seconds);
  // Removes the deadline.
  void end();
  // Defers the deadline by the time that a peer may take for these bytes.
  void
  arrived(gsize bytes)
  {
    due += static_cast<gint64>(bytes) * G_USEC_PER_SEC / least_rate;
  }
  // Fails after the deadline. Before it, limits the next wait for the socket.
  bool check(GError **error);

  // Whether nothing has arrived since begin().
  bool
  idle() const
  {
    return !begun;
  }
  // Whether the message has begun but is not complete in time.
  bool
  passed() const
  {
    return begun && g_get_monotonic_time() >= due;
  }

private:
  GSocket *const socket;
  guint usual = 0; // timeout of the socket
  gint64 due = 0;  // on the monotonic clock
  bool active = false;
  bool begun = false;
};
