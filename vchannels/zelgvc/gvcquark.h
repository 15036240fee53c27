// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

#include <glib.h>

#include <atomic>

namespace gvc
{

// As G_DEFINE_QUARK() has it, but without a data race: every thread stores the same value.
inline GQuark
quark(std::atomic<GQuark> &cache, const char *name)
{
  GQuark known = cache.load(std::memory_order_relaxed);
  if (known == 0) {
    known = g_quark_from_static_string(name);
    cache.store(known, std::memory_order_relaxed);
  }
  return known;
}

} // namespace gvc
