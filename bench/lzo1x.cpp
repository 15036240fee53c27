// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec itself beside liblzo2 and LZ4.
#include "codecs.h"
#include "groups.h"

namespace bench
{

namespace
{

double
percent(const Encoded &encoded, const Corpus &corpus)
{
  return 100.0 * static_cast<double>(encoded.bytes.size()) /
         static_cast<double>(corpus.bytes.size());
}

Contender
named(const char *name, Contender contender)
{
  contender.name = name;
  return contender;
}

void
raceEncoders(Report &report, const Corpus &corpus, std::size_t blockSize)
{
  Parameters parameters = {{"direction", "encode"},
                           {"corpus", corpus.name},
                           {"size", static_cast<std::int64_t>(blockSize)}};
  if (!report.wants(parameters))
    return;
  Bytes scratch(roomFor(corpus.bytes.size() + blockSize));
  auto timings = takeTurns({encoding(bareCodec, corpus.bytes, blockSize, scratch),
                            encoding(lzoCodec, corpus.bytes, blockSize, scratch),
                            encoding(lz4Codec, corpus.bytes, blockSize, scratch)},
                           report.effort());
  std::vector<Figure> sizes;
  for (const auto *codec : {&bareCodec, &lzoCodec, &lz4Codec})
    sizes.push_back({std::string(codec->name) + " size %",
                     exactly(percent(encodeAll(*codec, corpus.bytes, blockSize), corpus))});
  auto ratios = ratiosOf(timings, {{"codec", "lzo"}, {"codec", "lz4"}});
  auto size = static_cast<std::int64_t>(blockSize);
  report.add(
      {{{"direction", "encode"}, {"half", corpus.half}, {"corpus", corpus.name}, {"size", size}},
       size,
       std::move(timings),
       std::move(ratios),
       std::move(sizes)});
}

// Our decoder and liblzo2's on what each of the two encoders wrote.
void
raceDecoders(Report &report, const Corpus &corpus, std::size_t blockSize)
{
  Parameters parameters = {{"direction", "decode"},
                           {"corpus", corpus.name},
                           {"size", static_cast<std::int64_t>(blockSize)}};
  if (!report.wants(parameters))
    return;
  Bytes scratch(roomFor(corpus.bytes.size() + blockSize));
  auto byUs = encodeAll(bareCodec, corpus.bytes, blockSize);
  auto byLzo = encodeAll(lzoCodec, corpus.bytes, blockSize);
  auto byLz4 = encodeAll(lz4Codec, corpus.bytes, blockSize);
  for (const auto *encoded : {&byUs, &byLzo}) {
    checkDecoding(bareCodec, *encoded, corpus, blockSize);
    checkDecoding(lzoCodec, *encoded, corpus, blockSize);
  }
  checkDecoding(lz4Codec, byLz4, corpus, blockSize);

  auto on = [&](const char *name, const Codec &codec, const Encoded &encoded) {
    return named(name, decoding(codec, encoded, corpus.bytes.size(), blockSize, scratch));
  };
  auto timings = takeTurns({on("codec", bareCodec, byUs), on("lzo", lzoCodec, byUs),
                            on("codec on lzo's", bareCodec, byLzo),
                            on("lzo on lzo's", lzoCodec, byLzo), on("lz4", lz4Codec, byLz4)},
                           report.effort());
  auto ratios =
      ratiosOf(timings, {{"codec", "lzo"}, {"codec", "lz4"}, {"codec on lzo's", "lzo on lzo's"}});
  auto size = static_cast<std::int64_t>(blockSize);
  report.add(
      {{{"direction", "decode"}, {"half", corpus.half}, {"corpus", corpus.name}, {"size", size}},
       size,
       std::move(timings),
       std::move(ratios),
       {}});
}

std::string
listOf(const std::vector<Corpus> &all, const char *half)
{
  std::string list;
  for (const auto &corpus : all)
    if (corpus.half == half)
      list += (list.empty() ? "" : "; ") + corpus.name + ": " + corpus.description;
  return list;
}

} // namespace

void
measureCodec(Report &report)
{
  const auto all = allCorpora();
  report.begin(
      "codec", "The LZO1X codec beside liblzo2 and LZ4",
      "Block after block of a corpus of 1 MiB, all of it: what is less, the processor's "
      "branch predictor learns by heart over the rounds. codec and lzo decode what our encoder "
      "wrote, \"on lzo's\" what lzo1x_1 wrote, lz4 what LZ4 wrote. One thread. The codec is tuned "
      "on " +
          listOf(all, "tuning") + ". It is judged on " + listOf(all, "judging") + ".");
  std::vector<std::size_t> sizes = {4, 16, 64, 256, 1024, 4096, 16384, 65536, 262144, 1 << 20};
  if (report.effort().quick)
    sizes = {64, 4096, 65536};

  for (const auto &corpus : all)
    for (auto size : sizes) {
      raceEncoders(report, corpus, size);
      raceDecoders(report, corpus, size);
    }
}

} // namespace bench
