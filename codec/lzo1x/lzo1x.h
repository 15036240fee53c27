// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec: plain functions over byte spans. No allocation, no global state, no GLib.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace lzo1x
{

using Input = std::span<const std::uint8_t>;
using Output = std::span<std::uint8_t>;

enum class Status {
  ok,
  // Decoder: the stream is not a valid LZO1X stream.
  inputOverrun,  // an instruction or its literals end behind the input, or there is no end marker
  outputOverrun, // the stream decodes to more bytes than the room has
  badDistance,   // a match reaches back before the first byte written
  trailingBytes, // bytes follow the end marker
  // Encoder: the room is too small for the encoded bytes.
  noRoom,
};

struct Result {
  Status status;
  std::size_t size; // bytes produced; 0 unless status is ok
};

// Decodes one whole stream up to its end marker. Reads nothing outside `in` and writes nothing
// outside `out`, whatever `in` contains. The bytes of `out` behind the result are unspecified.
[[nodiscard]] Result decode(Input in, Output out) noexcept;

// The most bytes that encode() produces for `size` input bytes. At most size + size / 10 from 40
// bytes on. The sum: the input as one run of literals, the end marker, and one byte for each match
// that may not pay for the header of the run behind it.
[[nodiscard]] constexpr std::size_t
worstCase(std::size_t size) noexcept
{
  return size + (size > 238 ? (size - 19) / 255 + 2 : 1) + 3 +
         (size > 2048 ? (size - 2048) / 23 : 0);
}

// The size of the working memory that encode() needs for an input of up to `maxInput` bytes. Grows
// with `maxInput`.
[[nodiscard]] std::size_t encoderStateSize(std::size_t maxInput) noexcept;

// Encodes `in`, of 0 to 2^32 - 1 bytes, as one stream with an end marker. `state` has at least
// encoderStateSize(in.size()) bytes of any content, aligned for uint32_t. Writes nothing outside
// `out`.
[[nodiscard]] Result encode(Input in, Output out, std::span<std::byte> state) noexcept;

} // namespace lzo1x
