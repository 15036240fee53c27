// SPDX-License-Identifier: LGPL-2.1-or-later
// A limit on the time for one message. The timeout of a socket is no such limit: it starts again
// with each byte.
#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <mutex>
#include <thread>

class Deadline
{
public:
  // A peer that sends fewer bytes per second than this is too slow.
  static constexpr gint64 least_rate = 32 * 1024;

  // Shuts the socket down at the deadline, so that a pending read or write fails.
  explicit Deadline(GSocket *socket);
  Deadline(const Deadline &) = delete;

  // Sets the deadline to `seconds` from now; 0 removes the deadline.
  void set(guint64 seconds);
  // Defers the deadline by the time that a peer may take for these bytes.
  void arrived(gsize bytes);
  bool passed();

private:
  static constexpr gint64 never = G_MAXINT64;
  void watch(std::stop_token stop);

  GSocket *socket;
  std::mutex mutex;
  std::condition_variable_any changed;
  gint64 due = never;  // on the monotonic clock
  gint64 wake = never; // when the thread looks at `due` again
  bool over = false;
  std::jthread thread;
};
