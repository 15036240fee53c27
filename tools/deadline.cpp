// SPDX-License-Identifier: LGPL-2.1-or-later
#include "deadline.h"

#include <algorithm>

void
Deadline::begin(guint64 seconds)
{
  usual = g_socket_get_timeout(socket);
  active = true;
  begun = false;
  due = g_get_monotonic_time() + static_cast<gint64>(seconds) * G_USEC_PER_SEC;
}

void
Deadline::end()
{
  if (active)
    g_socket_set_timeout(socket, usual);
  active = false;
}

bool
Deadline::check(GError **error)
{
  if (!active)
    return true;
  begun = true;
  auto left = due - g_get_monotonic_time();
  if (left <= 0) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "the message takes too long");
    return false;
  }
  auto seconds = static_cast<guint>(left / G_USEC_PER_SEC + 1);
  g_socket_set_timeout(socket, usual == 0 ? seconds : std::min(usual, seconds));
  return true;
}
