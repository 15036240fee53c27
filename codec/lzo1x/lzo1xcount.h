// SPDX-License-Identifier: LGPL-2.1-or-later
// Counts the steps of the careful paths, and the runs that the fast path decodes without a match. A
// test uses the counts to check that the fast paths do most of the work.
#pragma once

#include <cstddef>

namespace lzo1x
{

#ifdef LZO1X_COUNT
inline std::size_t carefulSteps = 0;
inline std::size_t loneRuns = 0;

inline void
countCarefulStep() noexcept
{
  carefulSteps++;
}

inline void
countLoneRun() noexcept
{
  loneRuns++;
}
#else
constexpr void
countCarefulStep() noexcept
{
}

constexpr void
countLoneRun() noexcept
{
}
#endif

} // namespace lzo1x
