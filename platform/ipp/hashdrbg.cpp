// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/ipp/hashdrbg.h"

#include <gcrypt.h>
#include <string.h>
#include <algorithm>

namespace
{

constexpr std::size_t hashSize = 32;
constexpr std::size_t valueSize = ipp::HashDrbg::valueSize;
constexpr std::uint64_t reseedInterval = 1ULL << 48U; // generate() calls of one seed

[[nodiscard]] bool
hash(const std::uint8_t *data, std::size_t size, std::uint8_t *digest)
{
  const gcry_buffer_t piece = {
      .size = size, .off = 0, .len = size, .data = const_cast<std::uint8_t *>(data)};
  return gcry_md_hash_buffers(GCRY_MD_SHA256, 0, digest, &piece, 1) == 0;
}

// Hash_df with an output of `valueSize` bytes.
[[nodiscard]] bool
deriveValue(const std::uint8_t *data, std::size_t size, std::uint8_t *value)
{
  std::uint8_t prefix[5] = {0, 0, 0, (valueSize * 8) >> 8U, (valueSize * 8) & 0xffU};
  const gcry_buffer_t pieces[2] = {
      {.size = sizeof prefix, .off = 0, .len = sizeof prefix, .data = prefix},
      {.size = size, .off = 0, .len = size, .data = const_cast<std::uint8_t *>(data)},
  };
  for (std::size_t at = 0; at < valueSize; at += hashSize) {
    std::uint8_t digest[hashSize];
    prefix[0]++;
    if (gcry_md_hash_buffers(GCRY_MD_SHA256, 0, digest, pieces, 2) != 0)
      return false;
    memcpy(value + at, digest, std::min(hashSize, valueSize - at));
    explicit_bzero(digest, sizeof digest);
  }
  return true;
}

// value += number modulo 2^440, both big-endian; size is at most valueSize.
void
add(std::uint8_t *value, const std::uint8_t *number, std::size_t size)
{
  unsigned carry = 0;
  for (std::size_t i = 1; i <= valueSize && (i <= size || carry != 0); i++) {
    carry += value[valueSize - i] + (i <= size ? unsigned{number[size - i]} : 0U);
    value[valueSize - i] = static_cast<std::uint8_t>(carry & 0xffU);
    carry >>= 8U;
  }
}

void
add(std::uint8_t *value, std::uint64_t number)
{
  std::uint8_t bytes[8];
  for (unsigned i = 0; i < 8; i++)
    bytes[i] = static_cast<std::uint8_t>(number >> (56U - 8U * i));
  add(value, bytes, sizeof bytes);
}

// V behind the byte by which the standard separates its uses.
struct TaggedValue {
  std::uint8_t bytes[1 + valueSize];

  TaggedValue(std::uint8_t tag, const std::uint8_t *value)
  {
    bytes[0] = tag;
    memcpy(bytes + 1, value, valueSize);
  }
  ~TaggedValue()
  {
    explicit_bzero(bytes, sizeof bytes);
  }
};

[[nodiscard]] bool
fill(std::uint8_t *out, std::size_t size, const std::uint8_t *v)
{
  static constexpr std::uint8_t one[1] = {1};
  std::uint8_t data[valueSize];
  bool done = true;
  memcpy(data, v, valueSize);
  for (std::size_t at = 0; done && at < size; at += hashSize) {
    std::uint8_t digest[hashSize];
    done = hash(data, valueSize, digest);
    if (done)
      memcpy(out + at, digest, std::min(hashSize, size - at));
    explicit_bzero(digest, sizeof digest);
    add(data, one, 1);
  }
  explicit_bzero(data, sizeof data);
  return done;
}

} // namespace

bool
ipp::HashDrbg::instantiate(const std::uint8_t *entropy, std::size_t size) noexcept
{
  if (!deriveValue(entropy, size, v_))
    return false;
  const TaggedValue input(0x00, v_);
  reseedCounter_ = 1;
  return deriveValue(input.bytes, sizeof input.bytes, c_);
}

bool
ipp::HashDrbg::generate(std::uint8_t *out, std::size_t size) noexcept
{
  const TaggedValue input(0x03, v_);
  std::uint8_t digest[hashSize];
  if (reseedCounter_ > reseedInterval || !fill(out, size, v_) ||
      !hash(input.bytes, sizeof input.bytes, digest))
    return false;
  add(v_, digest, hashSize);
  add(v_, c_, valueSize);
  add(v_, reseedCounter_);
  reseedCounter_++;
  return true;
}
