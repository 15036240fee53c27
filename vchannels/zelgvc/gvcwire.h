// SPDX-License-Identifier: LGPL-2.1-or-later
// Integers as they stand on the wire: little-endian, at any alignment.
#pragma once

#include <glib.h>

#include <cstring>

namespace gvc
{

inline guint32
load_u32(const void *from)
{
  guint32 value;
  std::memcpy(&value, from, sizeof value);
  return GUINT32_FROM_LE(value);
}

inline guint64
load_u64(const void *from)
{
  guint64 value;
  std::memcpy(&value, from, sizeof value);
  return GUINT64_FROM_LE(value);
}

inline void
store_u32(void *to, guint32 value)
{
  value = GUINT32_TO_LE(value);
  std::memcpy(to, &value, sizeof value);
}

inline void
store_u64(void *to, guint64 value)
{
  value = GUINT64_TO_LE(value);
  std::memcpy(to, &value, sizeof value);
}

} // namespace gvc
