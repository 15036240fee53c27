// SPDX-License-Identifier: LGPL-2.1-or-later
// The data to compress and send: 1 MiB of each kind that bench/corpora.py makes or finds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench
{

using Bytes = std::vector<std::uint8_t>;

struct Corpus {
  std::string name;
  Bytes bytes;
  // The codec is tuned on some and judged on the others: "tuning" or "judging".
  std::string half;
  std::string description;
};

// All that this machine has.
std::vector<Corpus> allCorpora();

// A few kinds that differ much, where the codec is not what is measured.
std::vector<Corpus> corpora();

// The named one; the program ends where the machine does not have it.
Bytes corpus(const std::string &name);

// Whole blocks from all over the corpus, as many as make a turn short: a quarter of it to all of it
// for large blocks, an eighth for small ones.
Bytes sampled(const Bytes &corpus, std::size_t blockSize);

// `size` bytes, the corpus over and over.
Bytes repeated(const Bytes &corpus, std::size_t size);

} // namespace bench
