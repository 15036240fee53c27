// SPDX-License-Identifier: LGPL-2.1-or-later
// The library's LZO1X codec and its peers, over blocks of a corpus.
#pragma once

#include "corpora.h"
#include "measure.h"

namespace bench
{

// One way to encode and decode a block; both return the bytes they made.
struct Codec {
  const char *name;
  std::size_t (*encode)(const std::uint8_t *in, std::size_t size, std::uint8_t *out,
                        std::size_t room);
  std::size_t (*decode)(const std::uint8_t *in, std::size_t size, std::uint8_t *out,
                        std::size_t room);
};

extern const Codec bareCodec;
extern const Codec lzoCodec;
extern const Codec lz4Codec;

// Room for what any of them makes of `size` bytes, a converter's header included.
constexpr std::size_t
roomFor(std::size_t size)
{
  return size + size / 8 + 128;
}

// The blocks of a corpus as one codec wrote them, one behind the other.
struct Encoded {
  Bytes bytes;
  std::vector<std::size_t> sizes;
};

Encoded encodeAll(const Codec &codec, const Bytes &corpus, std::size_t blockSize);

// Ends the program unless the decoder gives the corpus back.
void checkDecoding(const Codec &codec, const Encoded &encoded, const Corpus &corpus,
                   std::size_t blockSize);

// Contenders whose operation is one block, and which always go through the whole corpus. What they
// are given must outlive them; `scratch` has roomFor() the corpus and for a block.
Contender encoding(const Codec &codec, const Bytes &corpus, std::size_t blockSize, Bytes &scratch);
Contender decoding(const Codec &codec, const Encoded &encoded, std::size_t corpusSize,
                   std::size_t blockSize, Bytes &scratch);

} // namespace bench
