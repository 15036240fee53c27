// SPDX-License-Identifier: LGPL-2.1-or-later
// Counts what the fast paths leave to the careful ones, for a test of its own that asks whether
// they are used at all.
#pragma once

#include <cstddef>

namespace lzo1x
{

#ifdef LZO1X_COUNT
inline std::size_t carefulSteps = 0;

inline void
countCarefulStep() noexcept
{
  carefulSteps++;
}
#else
constexpr void
countCarefulStep() noexcept
{
}
#endif

} // namespace lzo1x
