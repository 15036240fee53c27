// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

namespace platform
{

// Asks for huge pages for a large block from malloc(). The C library maps such a block separately,
// so all its pages are new, and faulting them in one by one takes several times as long as filling
// them. Freeing the block ends the mapping and the advice.
inline void
preferHugePages(void *block, std::size_t size) noexcept
{
#ifdef MADV_HUGEPAGE
  if (size < 32 * 1024 * 1024)
    return;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  // The header of malloc() lies between the start of the page and the block.
  const std::size_t before = reinterpret_cast<std::uintptr_t>(block) % page;
  madvise(static_cast<std::uint8_t *>(block) - before, size + before, MADV_HUGEPAGE);
#endif
}

} // namespace platform
