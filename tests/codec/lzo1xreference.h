// SPDX-License-Identifier: LGPL-2.1-or-later
// A plain LZO1X decoder, one byte at a time and with every access checked: what the fast one is
// measured against. It shares nothing with the codec.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

inline std::optional<std::vector<std::uint8_t>>
referenceDecode(const std::uint8_t *in, std::size_t inSize, std::size_t room)
{
  std::vector<std::uint8_t> out;
  std::size_t at = 0;
  bool broken = false;

  const auto next = [&]() -> unsigned {
    broken = broken || at == inSize;
    return broken ? 1 : in[at++]; // 1 ends every loop over length bytes
  };
  const auto put = [&](unsigned byte) {
    broken = broken || out.size() == room;
    if (!broken)
      out.push_back(static_cast<std::uint8_t>(byte));
  };
  const auto lengthBytes = [&](std::size_t length) {
    unsigned byte;
    while ((byte = next()) == 0)
      length += 255;
    return length + byte;
  };
  const auto literals = [&](std::size_t length) {
    while (length-- > 0 && !broken)
      put(next());
  };
  const auto match = [&](std::size_t length, std::size_t distance) {
    broken = broken || distance > out.size();
    while (length-- > 0 && !broken)
      put(out[out.size() - distance]);
  };

  unsigned state = 0; // literals just before: 0 to 3, 4 for more
  if (inSize > 0 && in[0] > 17) {
    const unsigned length = next() - 17;
    literals(length);
    state = length < 4 ? length : 4;
  }
  while (!broken) {
    const unsigned t = next();
    if (t < 16 && state == 0) {
      literals(t > 0 ? t + 3 : lengthBytes(18));
      state = 4;
      continue;
    }
    unsigned low = t; // the byte that holds the number of literals behind the match
    if (t >= 64) {
      match((t >> 5) + 1, (next() << 3) + ((t >> 2) & 7) + 1);
    } else if (t < 16) {
      match(state == 4 ? 3 : 2, (next() << 2) + (t >> 2) + (state == 4 ? 2049 : 1));
    } else {
      const unsigned mask = t >= 32 ? 31 : 7;
      const std::size_t length = (t & mask) != 0 ? (t & mask) + 2 : lengthBytes(mask + 2);
      low = next();
      const unsigned code = (low >> 2) + (next() << 6);
      const unsigned distance = t >= 32 ? code + 1 : 16384 + ((t & 8) << 11) + code;
      if (t < 32 && distance == 16384) {
        if (broken || t != 17 || low != 0 || at != inSize)
          return std::nullopt;
        return out;
      }
      match(length, distance);
    }
    state = low & 3;
    literals(state);
  }
  return std::nullopt;
}
