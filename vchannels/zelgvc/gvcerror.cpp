// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcerror.h"

#include <atomic>

/**
 * gvc_error_quark:
 *
 * The error domain of the message streams, with the quark string "gvc-error-quark". May be called
 * from any thread.
 *
 * Returns: the quark behind %GVC_ERROR
 *
 * Since: 0.1
 */
GQuark
gvc_error_quark(void)
{
  // As G_DEFINE_QUARK() has it, but with no data race: whoever comes first, the quark is the same,
  // and nothing else is published by it.
  static std::atomic<GQuark> quark;

  GQuark known = quark.load(std::memory_order_relaxed);
  if (known == 0) {
    known = g_quark_from_static_string("gvc-error-quark");
    quark.store(known, std::memory_order_relaxed);
  }
  return known;
}
