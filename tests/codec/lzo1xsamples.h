// SPDX-License-Identifier: LGPL-2.1-or-later
// Inputs that are the same on every machine, for the tests of the codec that do without GLib.
#pragma once

#include "codec/lzo1x/lzo1x.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

using Bytes = std::vector<std::uint8_t>;
using Random = std::mt19937;

inline std::size_t
below(Random &random, std::size_t limit)
{
  return static_cast<std::size_t>(random()) % limit;
}

inline Bytes
noise(Random &random, std::size_t size)
{
  Bytes bytes(size);
  for (auto &byte : bytes)
    byte = static_cast<std::uint8_t>(random());
  return bytes;
}

inline Bytes
fewSymbols(Random &random, std::size_t size)
{
  Bytes bytes(size);
  for (auto &byte : bytes)
    byte = static_cast<std::uint8_t>('a' + random() % 3);
  return bytes;
}

// Copies of earlier pieces, at all kinds of distances, with noise between them.
inline Bytes
repeats(Random &random, std::size_t size)
{
  Bytes bytes = noise(random, size);
  for (std::size_t at = 1; at < size; at += below(random, 30)) {
    const std::size_t reach = std::min<std::size_t>(at, random() % 2 != 0 ? 49151 : 40);
    const std::size_t distance = 1 + below(random, reach);
    for (std::size_t left = 2 + below(random, random() % 16 == 0 ? 700 : 24); left > 0; left--) {
      if (at == size)
        return bytes;
      bytes[at] = bytes[at - distance];
      at++;
    }
  }
  return bytes;
}

inline Bytes
runs(Random &random, std::size_t size)
{
  Bytes bytes;
  while (bytes.size() < size)
    bytes.insert(bytes.end(), 1 + below(random, random() % 8 == 0 ? 5000 : 40),
                 static_cast<std::uint8_t>(random() % 4));
  bytes.resize(size);
  return bytes;
}

constexpr Bytes (*generators[])(Random &, std::size_t) = {noise, fewSymbols, repeats, runs};

inline Bytes
encoded(const Bytes &content)
{
  Bytes out(lzo1x::worstCase(content.size()));
  std::vector<std::uint32_t> state((lzo1x::encoderStateSize(content.size()) + 3) / 4, 0xa5c3f00d);
  const auto result = lzo1x::encode(content, out, std::as_writable_bytes(std::span(state)));
  if (result.status != lzo1x::Status::ok)
    std::abort();
  out.resize(result.size);
  return out;
}
