// SPDX-License-Identifier: LGPL-2.1-or-later
// A limit on how long a peer may take. The timeout of a socket starts anew with each byte, and a
// peer that drips bytes would never reach it.
#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <mutex>
#include <thread>

class Deadline
{
public:
  // The socket is shut down at the deadline, so that whatever waits for the peer fails.
  explicit Deadline(GSocket *socket);
  ~Deadline();
  Deadline(const Deadline &) = delete;

  // So many seconds from now on; 0 for no limit.
  void set(guint64 seconds);
  bool passed();

private:
  static constexpr gint64 never = G_MAXINT64;
  void watch();

  GSocket *socket;
  std::mutex mutex;
  std::condition_variable changed;
  gint64 due = never;  // on the monotonic clock
  gint64 wake = never; // when the thread looks at `due` again
  bool over = false;
  bool ended = false;
  std::thread thread;
};
