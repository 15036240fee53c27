// SPDX-License-Identifier: LGPL-2.1-or-later
// The layouts on the wire. All integers are little-endian, at any alignment.
//
// This header depends on nothing, so that programs, tests and fuzz targets can share it.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace gvc::wire
{

template <typename Integer>
inline Integer
little_endian(Integer value)
{
  if constexpr (std::endian::native == std::endian::big)
    return sizeof value == 4 ? __builtin_bswap32(value) : __builtin_bswap64(value);
  return value;
}

template <typename Integer>
inline Integer
load(const void *from)
{
  Integer value;
  std::memcpy(&value, from, sizeof value);
  return little_endian(value);
}

template <typename Integer>
inline void
store(void *to, Integer value)
{
  value = little_endian(value);
  std::memcpy(to, &value, sizeof value);
}

// A frame: the length of the payload in 4 bytes, and the payload. A negative length is invalid.
namespace frame
{
inline constexpr std::size_t prefix_size = 4;

inline std::int32_t
load_length(const void *prefix)
{
  return static_cast<std::int32_t>(load<std::uint32_t>(prefix));
}

// The prefix as an integer in memory. Of a length of 4 GiB and more it has the lower 32 bits.
inline std::uint32_t
prefix(std::size_t length)
{
  return little_endian(static_cast<std::uint32_t>(length));
}
} // namespace frame

// A block of a compressed stream: a header of two sizes in 4 bytes each, that of the payload and
// that of the decoded payload, and the payload. The payload is an LZO1X stream, or nothing in an
// empty block.
namespace block
{
inline constexpr std::size_t header_size = 8;
inline constexpr std::size_t decoded_size_offset = 4;

inline std::uint32_t
load_payload_size(const void *block)
{
  return load<std::uint32_t>(block);
}

inline std::uint32_t
load_decoded_size(const void *block)
{
  return load<std::uint32_t>(static_cast<const char *>(block) + decoded_size_offset);
}

inline void
store_header(void *block, std::uint32_t payload_size, std::uint32_t decoded_size)
{
  store(block, payload_size);
  store(static_cast<char *>(block) + decoded_size_offset, decoded_size);
}
} // namespace block

// A record of an encrypted stream: the length of its cipher text in 8 bytes, and the cipher text,
// whole AES blocks. A length of 0 marks an IV record, in which an IV follows.
namespace record
{
inline constexpr std::size_t header_size = 8;
inline constexpr std::size_t aes_block = 16;
inline constexpr std::size_t iv_record_size = header_size + aes_block;

inline std::uint64_t
load_length(const void *record)
{
  return load<std::uint64_t>(record);
}

inline void
store_length(void *record, std::uint64_t length)
{
  store(record, length);
}
} // namespace record

} // namespace gvc::wire
