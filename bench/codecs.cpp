// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codecs.h"

#include "codec/lzo1x/lzo1x.h"

#include <glib.h>
#include <lz4.h>
#include <lzo/lzo1x.h>

#include <algorithm>

namespace bench
{

namespace
{

// Large enough for the encoder state of each of the three.
alignas(16) std::uint8_t workMemory[1 << 17];

std::size_t
bareEncode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  auto state = std::as_writable_bytes(std::span(workMemory));
  return lzo1x::encode({in, size}, {out, room}, state.first(lzo1x::encoderStateSize(size))).size;
}

std::size_t
bareDecode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return lzo1x::decode({in, size}, {out, room}).size;
}

std::size_t
lzoEncode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t)
{
  lzo_uint written = 0;
  lzo1x_1_compress(in, size, out, &written, workMemory);
  return written;
}

std::size_t
lzoDecode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  lzo_uint written = room;
  return lzo1x_decompress_safe(in, size, out, &written, nullptr) == LZO_E_OK ? written : 0;
}

std::size_t
lz4Encode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return static_cast<std::size_t>(LZ4_compress_fast_extState(
      workMemory, reinterpret_cast<const char *>(in), reinterpret_cast<char *>(out),
      static_cast<int>(size), static_cast<int>(room), 1));
}

std::size_t
lz4Decode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return static_cast<std::size_t>(
      LZ4_decompress_safe(reinterpret_cast<const char *>(in), reinterpret_cast<char *>(out),
                          static_cast<int>(size), static_cast<int>(room)));
}

std::size_t
sizeAt(std::size_t at, std::size_t total, std::size_t blockSize)
{
  return std::min(blockSize, total - at);
}

} // namespace

const Codec bareCodec = {"codec", bareEncode, bareDecode};
const Codec lzoCodec = {"lzo", lzoEncode, lzoDecode};
const Codec lz4Codec = {"lz4", lz4Encode, lz4Decode};

Encoded
encodeAll(const Codec &codec, const Bytes &corpus, std::size_t blockSize)
{
  Encoded encoded;
  Bytes room(roomFor(blockSize));
  for (std::size_t at = 0; at < corpus.size(); at += blockSize) {
    auto written = codec.encode(corpus.data() + at, sizeAt(at, corpus.size(), blockSize),
                                room.data(), room.size());
    encoded.bytes.insert(encoded.bytes.end(), room.data(), room.data() + written);
    encoded.sizes.push_back(written);
  }
  return encoded;
}

void
checkDecoding(const Codec &codec, const Encoded &encoded, const Corpus &corpus,
              std::size_t blockSize)
{
  Bytes decoded(corpus.bytes.size());
  std::size_t from = 0;
  std::size_t to = 0;
  for (auto size : encoded.sizes) {
    to += codec.decode(encoded.bytes.data() + from, size, decoded.data() + to,
                       sizeAt(to, decoded.size(), blockSize));
    from += size;
  }
  if (decoded != corpus.bytes)
    g_error("%s, %s in blocks of %zu: decoded to something else", codec.name, corpus.name.c_str(),
            blockSize);
}

Contender
encoding(const Codec &codec, const Bytes &corpus, std::size_t blockSize, Bytes &scratch)
{
  auto pass = [&, blockSize] {
    for (std::size_t at = 0; at < corpus.size(); at += blockSize) {
      auto size = sizeAt(at, corpus.size(), blockSize);
      codec.encode(corpus.data() + at, size, scratch.data(), roomFor(size));
    }
  };
  return {codec.name, repeat(pass), (corpus.size() + blockSize - 1) / blockSize};
}

Contender
decoding(const Codec &codec, const Encoded &encoded, std::size_t corpusSize, std::size_t blockSize,
         Bytes &scratch)
{
  auto pass = [&, corpusSize, blockSize] {
    auto *in = encoded.bytes.data();
    std::size_t to = 0;
    for (auto size : encoded.sizes) {
      codec.decode(in, size, scratch.data() + to, sizeAt(to, corpusSize, blockSize));
      in += size;
      to += blockSize;
    }
  };
  return {codec.name, repeat(pass), encoded.sizes.size()};
}

} // namespace bench
