// SPDX-License-Identifier: LGPL-2.1-or-later
#include "deadline.h"

Deadline::Deadline(GSocket *socket)
    : socket(socket), thread([this](std::stop_token stop) { watch(stop); })
{
}

// Wakes the thread only if it would sleep too long, because each message sets a deadline.
void
Deadline::set(guint64 seconds)
{
  std::lock_guard lock(mutex);
  due =
      seconds == 0 ? never : g_get_monotonic_time() + static_cast<gint64>(seconds) * G_USEC_PER_SEC;
  if (due < wake)
    changed.notify_one();
}

void
Deadline::arrived(gsize bytes)
{
  std::lock_guard lock(mutex);
  if (due != never)
    due += static_cast<gint64>(bytes) * G_USEC_PER_SEC / least_rate;
}

bool
Deadline::passed()
{
  std::lock_guard lock(mutex);
  return over;
}

void
Deadline::watch(std::stop_token stop)
{
  std::unique_lock lock(mutex);
  while (!stop.stop_requested() && !over) {
    auto left = due - g_get_monotonic_time();
    auto earlier = [this] { return due < wake; };
    wake = due;
    if (due == never) {
      changed.wait(lock, stop, earlier);
    } else if (left > 0) {
      changed.wait_for(lock, stop, std::chrono::microseconds(left), earlier);
    } else {
      over = true;
      g_socket_shutdown(socket, TRUE, TRUE, nullptr);
    }
  }
}
