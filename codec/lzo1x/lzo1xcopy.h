// SPDX-License-Identifier: LGPL-2.1-or-later
// Copying bytes in pieces of fixed sizes, for encoder and decoder alike.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lzo1x
{

// The size of one copy that compilers turn into a single load and store.
constexpr std::size_t chunk = 16;

// All is read before any is written, so the two may overlap.
template <std::size_t size>
[[gnu::always_inline]] inline void
copyFixed(std::uint8_t *to, const std::uint8_t *from) noexcept
{
  // What a register holds; an array in its place would go through memory.
  typedef std::uint8_t Register __attribute__((vector_size(size)));
  Register between;
  std::memcpy(&between, from, size);
  std::memcpy(to, &between, size);
}

// Exactly `length` bytes, at least a chunk. `from` lies at least a chunk before `to`, or in other
// memory; so no chunk is read before it is written, nor does the last one, which may repeat bytes,
// read what it writes.
[[gnu::always_inline]] inline void
copyChunks(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  const std::size_t last = length - chunk;
  for (std::size_t at = 0; at < last; at += chunk)
    copyFixed<chunk>(to + at, from + at);
  copyFixed<chunk>(to + last, from + last);
}

// `length` bytes and up to chunk - 1 more, from at least a chunk before or from other memory.
[[gnu::always_inline]] inline void
copyOver(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  std::uint8_t *const end = to + length;
  do {
    copyFixed<chunk>(to, from);
    to += chunk;
    from += chunk;
  } while (to < end);
}

// Exactly `length` bytes, less than a chunk, from memory that does not overlap.
inline void
copyFew(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  if (length >= 8) {
    copyFixed<8>(to, from);
    copyFixed<8>(to + length - 8, from + length - 8);
  } else if (length >= 4) {
    copyFixed<4>(to, from);
    copyFixed<4>(to + length - 4, from + length - 4);
  } else {
    for (; length > 0; length--)
      *to++ = *from++;
  }
}

// Exactly `length` literals.
inline void
copyRun(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  if (length >= 16 * chunk)
    std::memcpy(to, from, length);
  else if (length >= chunk)
    copyChunks(to, from, length);
  else
    copyFew(to, from, length);
}

} // namespace lzo1x
