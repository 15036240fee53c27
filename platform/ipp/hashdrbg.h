// SPDX-License-Identifier: LGPL-2.1-or-later
// Hash_DRBG with SHA-256 of NIST SP 800-90A Rev. 1 (section 10.1.1), without prediction resistance,
// additional input and reseeding. Plain memory; equal seeds give equal output on every machine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipp
{

class HashDrbg
{
public:
  static constexpr std::size_t valueSize = 55;                // seedlen, 440 bits
  static constexpr std::size_t requestLimit = (1U << 19) / 8; // bytes of one generate() call

  // `entropy` is the entropy input and the nonce of the standard.
  [[nodiscard]] bool instantiate(const std::uint8_t *entropy, std::size_t size) noexcept;

  // Leaves the state unchanged on failure.
  [[nodiscard]] bool generate(std::uint8_t *out, std::size_t size) noexcept;

private:
  std::uint8_t v_[valueSize]; // V, C and reseed_counter of the standard; big-endian numbers
  std::uint8_t c_[valueSize];
  std::uint64_t reseedCounter_;
};

} // namespace ipp
