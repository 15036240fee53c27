// SPDX-License-Identifier: LGPL-2.1-or-later
// Copies in pieces of fixed sizes, for the encoder and the decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace lzo1x
{

// Compilers turn a copy of this size into a single load and store.
constexpr std::size_t vectorSize = 16;

// Reads everything before it writes, so the two may overlap.
template <std::size_t size>
[[gnu::always_inline]] inline void
copyFixed(std::uint8_t *to, const std::uint8_t *from) noexcept
{
  // A vector stays in a register. An array would go through memory.
  typedef std::uint8_t Vector __attribute__((vector_size(size)));
  Vector bytes;
  std::memcpy(&bytes, from, size);
  std::memcpy(to, &bytes, size);
}

// Copies exactly `length` bytes, at least vectorSize. `from` is at least vectorSize before `to`, or
// in other memory, so no copy reads bytes that are not yet written. The last copy may overlap the
// one before.
[[gnu::always_inline]] inline void
copyVectors(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  const std::size_t last = length - vectorSize;
  for (std::size_t at = 0; at < last; at += vectorSize)
    copyFixed<vectorSize>(to + at, from + at);
  copyFixed<vectorSize>(to + last, from + last);
}

// Copies `length` bytes and up to vectorSize - 1 more. `from` is at least vectorSize before `to`,
// or in other memory.
[[gnu::always_inline]] inline void
copyOver(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  std::uint8_t *const end = to + length;
  do {
    copyFixed<vectorSize>(to, from);
    to += vectorSize;
    from += vectorSize;
  } while (to < end);
}

// Copies exactly `length` bytes, less than vectorSize, from memory that does not overlap.
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

// Copies exactly `length` bytes from memory that does not overlap.
inline void
copyRun(std::uint8_t *to, const std::uint8_t *from, std::size_t length) noexcept
{
  if (length >= 16 * vectorSize)
    std::memcpy(to, from, length);
  else if (length >= vectorSize)
    copyVectors(to, from, length);
  else
    copyFew(to, from, length);
}

} // namespace lzo1x
