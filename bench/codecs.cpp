// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec beside liblzo2 and LZ4, and the converters beside the bare codec.
#include "corpora.h"
#include "measure.h"

#include "codec/lzo1x/lzo1x.h"

#include <lz4.h>
#include <lzo/lzo1x.h>
#include <zelgvc/zelgvc.h>

#include <algorithm>

namespace bench
{

namespace
{

using In = std::span<const std::uint8_t>;
using Out = std::span<std::uint8_t>;

// Both functions return the bytes that they made.
struct Codec {
  const char *name;
  std::size_t (*encode)(In in, Out out);
  std::size_t (*decode)(In in, Out out);
};

// Large enough for the encoder state of each codec.
alignas(16) std::uint8_t workMemory[1 << 17];

constexpr Codec bare = {
    "codec",
    [](In in, Out out) {
      auto state = std::as_writable_bytes(std::span(workMemory));
      return lzo1x::encode(in, out, state.first(lzo1x::encoderStateSize(in.size()))).size;
    },
    [](In in, Out out) { return lzo1x::decode(in, out).size; }};

constexpr Codec lzo = {"lzo",
                       [](In in, Out out) {
                         lzo_uint written = 0;
                         lzo1x_1_compress(in.data(), in.size(), out.data(), &written, workMemory);
                         return std::size_t{written};
                       },
                       [](In in, Out out) {
                         lzo_uint written = out.size();
                         lzo1x_decompress_safe(in.data(), in.size(), out.data(), &written, nullptr);
                         return std::size_t{written};
                       }};

constexpr Codec lz4 = {
    "lz4",
    [](In in, Out out) {
      return static_cast<std::size_t>(
          LZ4_compress_fast_extState(workMemory, reinterpret_cast<const char *>(in.data()),
                                     reinterpret_cast<char *>(out.data()),
                                     static_cast<int>(in.size()), static_cast<int>(out.size()), 1));
    },
    [](In in, Out out) {
      return static_cast<std::size_t>(LZ4_decompress_safe(
          reinterpret_cast<const char *>(in.data()), reinterpret_cast<char *>(out.data()),
          static_cast<int>(in.size()), static_cast<int>(out.size())));
    }};

// The converters hold no state between blocks, so one of each is enough.
constexpr Codec converters = {"converter",
                              [](In in, Out out) {
                                static auto *compressor = G_CONVERTER(gvc_compressor_new());
                                return convert(compressor, in, out);
                              },
                              [](In in, Out out) {
                                static auto *decompressor = G_CONVERTER(gvc_decompressor_new());
                                return convert(decompressor, in, out);
                              }};

// ---- Blocks of a corpus ----

// Room for the output of every codec, a converter's header included.
constexpr std::size_t
roomFor(std::size_t size)
{
  return size + size / 8 + 128;
}

// Contenders for one corpus in blocks of one size. An operation is a block, and each turn goes
// through the whole corpus: over the rounds, a branch predictor learns smaller samples by heart.
struct Blocks {
  const Bytes &corpus;
  std::size_t blockSize;
  Bytes scratch = Bytes(roomFor(std::max(corpus.size(), blockSize)));

  In
  blockAt(std::size_t at) const
  {
    return In(corpus).subspan(at, std::min(blockSize, corpus.size() - at));
  }

  Contender
  encoding(const Codec &codec)
  {
    auto pass = [this, &codec] {
      for (std::size_t at = 0; at < corpus.size(); at += blockSize)
        codec.encode(blockAt(at), Out(scratch).first(roomFor(blockAt(at).size())));
    };
    return {codec.name, repeat(pass), (corpus.size() + blockSize - 1) / blockSize};
  }

  struct Encoded {
    Bytes bytes; // the blocks, one after the other
    std::vector<std::size_t> sizes;
  };

  Encoded
  encoded(const Codec &codec) const
  {
    Encoded all;
    Bytes room(roomFor(blockSize));
    for (std::size_t at = 0; at < corpus.size(); at += blockSize) {
      auto written = codec.encode(blockAt(at), room);
      all.bytes.insert(all.bytes.end(), room.data(), room.data() + written);
      all.sizes.push_back(written);
    }
    return all;
  }

  // Ends the program unless the decoder restores the corpus.
  Contender
  decoding(const char *name, const Codec &codec, const Encoded &blocks)
  {
    auto pass = [this, &codec, &blocks] {
      In in(blocks.bytes);
      std::size_t to = 0;
      for (auto size : blocks.sizes) {
        codec.decode(in.first(size), Out(scratch).subspan(to, blockAt(to).size()));
        in = in.subspan(size);
        to += blockSize;
      }
    };
    std::fill(scratch.begin(), scratch.end(), std::uint8_t{0});
    pass();
    must(std::equal(corpus.begin(), corpus.end(), scratch.begin()), nullptr, name);
    return {name, repeat(pass), blocks.sizes.size()};
  }
};

Parameters
parametersOf(const char *direction, const Corpus &corpus, std::size_t size)
{
  return {{"direction", direction},
          {"half", corpus.half},
          {"corpus", corpus.name},
          {"size", static_cast<std::int64_t>(size)}};
}

std::vector<std::size_t>
sizesOf(const Report &report, std::size_t small)
{
  if (report.effort.quick)
    return {small, 4096, 65536};
  return {4, 16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
}

} // namespace

void
measureConverters(const Report &report)
{
  for (const auto &corpus : corpora())
    for (auto size : sizesOf(report, 4)) {
      if (!isTypical(corpus))
        continue;
      Blocks blocks{corpus.bytes, size};
      auto byConverter = blocks.encoded(converters);
      auto byCodec = blocks.encoded(bare);
      report.race(parametersOf("compress", corpus, size),
                  {blocks.encoding(converters), blocks.encoding(bare)});
      report.race(parametersOf("decompress", corpus, size),
                  {blocks.decoding("converter", converters, byConverter),
                   blocks.decoding("codec", bare, byCodec)});
    }
}

void
measureCodec(const Report &report)
{
  must(lzo_init() == LZO_E_OK, nullptr, "liblzo2");
  for (const auto &corpus : corpora())
    for (auto size : sizesOf(report, 64)) {
      Blocks blocks{corpus.bytes, size};
      auto byUs = blocks.encoded(bare);
      auto byLzo = blocks.encoded(lzo);
      auto byLz4 = blocks.encoded(lz4);
      auto percent = [&](const Blocks::Encoded &encoded) {
        return 100.0 * static_cast<double>(encoded.bytes.size()) /
               static_cast<double>(corpus.bytes.size());
      };
      report.race(parametersOf("encode", corpus, size),
                  {blocks.encoding(bare), blocks.encoding(lzo), blocks.encoding(lz4)},
                  {{"codec", percent(byUs)}, {"lzo", percent(byLzo)}, {"lz4", percent(byLz4)}});
      report.race(parametersOf("decode", corpus, size),
                  {blocks.decoding("codec", bare, byUs), blocks.decoding("lzo", lzo, byUs),
                   blocks.decoding("codec on lzo's", bare, byLzo),
                   blocks.decoding("lzo on lzo's", lzo, byLzo),
                   blocks.decoding("lz4", lz4, byLz4)});
    }
}

} // namespace bench
