// SPDX-License-Identifier: LGPL-2.1-or-later
// Counts the steps of the careful paths. A test uses the count to check that the fast paths do most
// of the work.
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
