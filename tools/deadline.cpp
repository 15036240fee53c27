// SPDX-License-Identifier: LGPL-2.1-or-later
#include "deadline.h"

Deadline::Deadline(GSocket *socket) : socket(socket), thread(&Deadline::watch, this) {}

Deadline::~Deadline()
{
  {
    std::lock_guard lock(mutex);
    ended = true;
  }
  changed.notify_one();
  thread.join();
}

// The thread is woken only where it would sleep too long: there is a deadline for each message.
void
Deadline::set(guint64 seconds)
{
  std::lock_guard lock(mutex);
  due =
      seconds == 0 ? never : g_get_monotonic_time() + static_cast<gint64>(seconds) * G_USEC_PER_SEC;
  if (due < wake)
    changed.notify_one();
}

bool
Deadline::passed()
{
  std::lock_guard lock(mutex);
  return over;
}

void
Deadline::watch()
{
  std::unique_lock lock(mutex);
  while (!ended && !over) {
    auto left = due - g_get_monotonic_time();
    wake = due;
    if (due == never) {
      changed.wait(lock);
    } else if (left > 0) {
      changed.wait_for(lock, std::chrono::microseconds(left));
    } else {
      over = true;
      g_socket_shutdown(socket, TRUE, TRUE, nullptr);
    }
  }
}
