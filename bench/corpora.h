// SPDX-License-Identifier: LGPL-2.1-or-later
// The data to compress and send: 1 MiB of each kind that corpora.py makes or finds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench
{

using Bytes = std::vector<std::uint8_t>;

struct Corpus {
  std::string name;
  std::string half; // "tuning" or "judging"
  Bytes bytes;
};

// All that this machine has.
const std::vector<Corpus> &corpora();

// A few kinds that differ much, for groups that do not judge the codec.
bool isTypical(const Corpus &corpus);

// `size` bytes of C source, again from its start if it is shorter.
Bytes source(std::size_t size);

} // namespace bench
