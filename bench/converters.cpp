// SPDX-License-Identifier: LGPL-2.1-or-later
#include "codecs.h"
#include "corpora.h"
#include "groups.h"
#include "owners.h"
#include "thinconverter.h"

#include <zelgvc/zelgvc.h>

#include <algorithm>
#include <cstring>

namespace bench
{

namespace
{

// The library's converters as a codec. They hold no state, so one of each does.
GConverter *
compressor()
{
  static auto *made = G_CONVERTER(gvc_compressor_new());
  return made;
}

GConverter *
decompressor()
{
  static auto *made = G_CONVERTER(gvc_decompressor_new());
  return made;
}

std::size_t
compress(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return convert(compressor(), in, size, out, room);
}

std::size_t
decompress(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return convert(decompressor(), in, size, out, room);
}

constexpr Codec zelgvc = {"zelgvc", compress, decompress};

// The bare codec inside converters that do nothing else.
std::size_t
thinCompress(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  static auto converter = makeThinConverter(
      [](const std::uint8_t *from, std::size_t count, std::uint8_t *to, std::size_t most, void *) {
        return bareCodec.encode(from, count, to, most);
      },
      nullptr);
  return convert(converter.get(), in, size, out, room);
}

std::size_t
thinDecompress(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  static auto converter = makeThinConverter(
      [](const std::uint8_t *from, std::size_t count, std::uint8_t *to, std::size_t most, void *) {
        return bareCodec.decode(from, count, to, most);
      },
      nullptr);
  return convert(converter.get(), in, size, out, room);
}

constexpr Codec thinCodec = {"thin", thinCompress, thinDecompress};

void
raceConverters(Report &report, const Corpus &corpus, std::size_t blockSize)
{
  const Codec *const codecs[] = {&zelgvc, &bareCodec, &thinCodec, &lzoCodec, &lz4Codec};
  Bytes scratch(roomFor(std::max(blockSize, corpus.bytes.size())));
  std::vector<Encoded> encoded;
  std::vector<Contender> encoders;
  std::vector<Contender> decoders;
  for (const auto *codec : codecs)
    encoded.push_back(encodeAll(*codec, corpus.bytes, blockSize));
  for (std::size_t i = 0; i < std::size(codecs); i++) {
    checkDecoding(*codecs[i], encoded[i], corpus, blockSize);
    encoders.push_back(encoding(*codecs[i], corpus.bytes, blockSize, scratch));
    decoders.push_back(decoding(*codecs[i], encoded[i], corpus.bytes.size(), blockSize, scratch));
  }

  auto bytes = static_cast<std::int64_t>(std::min(blockSize, corpus.bytes.size()));
  auto size = static_cast<std::int64_t>(blockSize);
  for (const auto &[direction, contenders] :
       {std::pair("compress", encoders), {"decompress", decoders}}) {
    Parameters parameters = {{"direction", direction}, {"corpus", corpus.name}, {"size", size}};
    if (report.wants(parameters))
      report.race(parameters, bytes, contenders);
  }
}

} // namespace

void
measureConverters(Report &report)
{
  report.begin(
      "converters", "Compressor and decompressor beside the bare codec, liblzo2 and LZ4",
      "convert() of one block after the other, from 64 B on of a corpus of 1 MiB, all of it: what "
      "is less, the processor's branch predictor learns by heart over the rounds, the sooner the "
      "more contenders call the same code. codec: the library's own codec called without the "
      "converter, its working memory at hand; thin: that call inside a GConverter that does "
      "nothing "
      "else; lzo: lzo1x_1 and lzo1x_decompress_safe; lz4: LZ4_compress_fast_extState and "
      "LZ4_decompress_safe, each decoder on what its own encoder wrote. One thread.");
  std::vector<std::size_t> sizes = {4, 16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort().quick)
    sizes = {4, 4096, 65536};

  for (const auto &corpus : corpora())
    for (auto size : sizes)
      raceConverters(report, size < 64 ? Corpus{corpus.name, sampled(corpus.bytes, size)} : corpus,
                     size);
}

} // namespace bench
