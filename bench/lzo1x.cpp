// SPDX-License-Identifier: LGPL-2.1-or-later
// The LZO1X codec beside liblzo2 (lzo1x_1 and lzo1x_decompress_safe) and LZ4: the same blocks in
// the same run, the candidates taking turns. Every ratio is one of speeds, above 1 where we are
// faster; it is taken round by round, and the median stands with the range of its middle half.
#include "codec/lzo1x/lzo1x.h"

#include <glib.h>
#include <lz4.h>
#include <lzo/lzo1x.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace
{

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t corpusSize = 1 << 20;

struct Corpus {
  std::string name;
  Bytes bytes;
};

void
appendFile(Bytes &to, const std::string &path)
{
  gchar *content = nullptr;
  gsize size = 0;
  if (g_file_get_contents(path.c_str(), &content, &size, nullptr))
    to.insert(to.end(), content, content + size);
  g_free(content);
}

// The first files in name order under `folder` that end in `suffix`, until the corpus is full.
Bytes
filesUnder(const char *folder, const char *suffix, std::size_t skip = 0)
{
  std::vector<std::string> names;
  if (GDir *const dir = g_dir_open(folder, 0, nullptr)) {
    while (const char *const name = g_dir_read_name(dir))
      if (g_str_has_suffix(name, suffix))
        names.push_back(std::string(folder) + "/" + name);
    g_dir_close(dir);
  }
  std::sort(names.begin(), names.end());
  Bytes bytes;
  for (const auto &name : names)
    if (bytes.size() < corpusSize + skip)
      appendFile(bytes, name);
  bytes.erase(bytes.begin(),
              bytes.begin() + static_cast<std::ptrdiff_t>(std::min(skip, bytes.size())));
  bytes.resize(std::min(bytes.size(), corpusSize));
  return bytes;
}

// Records as an inventory would hold them.
Bytes
xmlText()
{
  std::mt19937 random(1);
  const char *const names[] = {"width", "height", "origin", "colour", "owner", "state", "label"};
  const char *const words[] = {"channel",   "display", "window",  "primary", "audio",
                               "left",      "right",   "the",     "of",      "session",
                               "clipboard", "printer", "started", "closed"};
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<inventory>\n";
  while (text.size() < corpusSize) {
    text += "  <item id=\"" + std::to_string(random() % 100000) + "\" type=\"" +
            words[random() % std::size(words)] + "\">\n";
    for (unsigned i = 2 + random() % 4; i > 0; i--) {
      const std::string name = names[random() % std::size(names)];
      text += "    <" + name + ">";
      if (random() % 2 == 0)
        text += std::to_string(random() % 4096);
      else
        for (unsigned k = 1 + random() % 9; k > 0; k--)
          text += std::string(words[random() % std::size(words)]) + (k > 1 ? " " : "");
      text += "</" + name + ">\n";
    }
    text += "  </item>\n";
  }
  text.resize(corpusSize);
  return Bytes(text.begin(), text.end());
}

// A desktop: flat areas, a gradient, rows of glyphs from a small font, a noisy picture.
Bytes
screenPixels()
{
  constexpr unsigned width = 640;
  constexpr unsigned height = static_cast<unsigned>(corpusSize / 4 / width) + 1;
  std::mt19937 random(2);
  std::vector<std::uint32_t> pixels(width * height, 0x00f0f0f0);
  std::uint16_t font[64][12];
  for (auto &glyph : font)
    for (auto &row : glyph)
      row = static_cast<std::uint16_t>(random() & random() & 0x7e);
  for (unsigned y = 0; y < 20; y++)
    for (unsigned x = 0; x < width; x++)
      pixels[y * width + x] = 0x00204080 + x / 8 * 0x010101;
  for (unsigned line = 30; line + 14 < height; line += 14)
    for (unsigned x = 10; x + 8 < width * 2 / 3; x += 8) {
      const auto &glyph = font[random() % 5 == 0 ? 0 : random() % 64];
      for (unsigned y = 0; y < 12; y++)
        for (unsigned bit = 0; bit < 8; bit++)
          if ((glyph[y] >> bit & 1) != 0)
            pixels[(line + y) * width + x + bit] = 0x00101010;
    }
  for (unsigned y = 60; y < 180 && y < height; y++)
    for (unsigned x = width * 2 / 3 + 10; x < width - 10; x++)
      pixels[y * width + x] = 0x00406020 + (random() % 8) * 0x010101 + y / 2;
  Bytes bytes(pixels.size() * 4);
  std::memcpy(bytes.data(), pixels.data(), bytes.size());
  bytes.resize(corpusSize);
  return bytes;
}

Bytes
noise()
{
  std::mt19937 random(3);
  Bytes bytes(corpusSize);
  for (auto &byte : bytes)
    byte = static_cast<std::uint8_t>(random());
  return bytes;
}

Bytes
sharedLibrary()
{
  gchar *maps = nullptr;
  Bytes bytes;
  if (g_file_get_contents("/proc/self/maps", &maps, nullptr, nullptr))
    for (const char *wanted : {"libglib", "libc.so", "libc-"})
      if (const char *const found = std::strstr(maps, wanted); found != nullptr && bytes.empty()) {
        const char *begin = found;
        while (begin > maps && begin[-1] != ' ')
          begin--;
        appendFile(bytes, std::string(begin, std::strcspn(begin, "\n")));
      }
  g_free(maps);
  bytes.resize(std::min(bytes.size(), corpusSize));
  return bytes;
}

std::vector<Corpus>
corpora()
{
  std::vector<Corpus> all = {{"xml", xmlText()},
                             {"library", sharedLibrary()},
                             {"headers", filesUnder("/usr/include", ".h")},
                             {"pixels", screenPixels()},
                             {"random", noise()}};
  std::erase_if(all, [](const Corpus &corpus) { return corpus.bytes.size() < corpusSize / 4; });
  return all;
}

// One way to encode and decode, over blocks of one corpus.
struct Codec {
  const char *name;
  std::size_t (*encode)(const std::uint8_t *in, std::size_t size, std::uint8_t *out,
                        std::size_t room);
  std::size_t (*decode)(const std::uint8_t *in, std::size_t size, std::uint8_t *out,
                        std::size_t room);
};

alignas(16) std::uint8_t workMemory[1 << 17];

std::size_t
ourEncode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  const auto state = std::as_writable_bytes(std::span(workMemory));
  return lzo1x::encode({in, size}, {out, room}, state.first(lzo1x::encoderStateSize(size))).size;
}

std::size_t
ourDecode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
{
  return lzo1x::decode({in, size}, {out, room}).size;
}

std::size_t
peerEncode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t)
{
  lzo_uint written = 0;
  lzo1x_1_compress(in, size, out, &written, workMemory);
  return written;
}

std::size_t
peerDecode(const std::uint8_t *in, std::size_t size, std::uint8_t *out, std::size_t room)
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

constexpr Codec ours = {"ours", ourEncode, ourDecode};
constexpr Codec lzo = {"lzo", peerEncode, peerDecode};
constexpr Codec lz4 = {"lz4", lz4Encode, lz4Decode};

constexpr std::size_t
roomFor(std::size_t size)
{
  return size + size / 16 + 67;
}

// The blocks of a corpus as one codec wrote them, one behind the other.
struct Encoded {
  Bytes bytes;
  std::vector<std::size_t> sizes;
};

template <typename Visit>
void
eachBlock(const Bytes &corpus, std::size_t blockSize, Visit visit)
{
  for (std::size_t at = 0; at < corpus.size(); at += blockSize)
    visit(corpus.data() + at, std::min(blockSize, corpus.size() - at));
}

Encoded
encodeAll(const Codec &codec, const Bytes &corpus, std::size_t blockSize)
{
  Encoded encoded;
  Bytes room(roomFor(blockSize));
  eachBlock(corpus, blockSize, [&](const std::uint8_t *block, std::size_t size) {
    const std::size_t written = codec.encode(block, size, room.data(), room.size());
    encoded.bytes.insert(encoded.bytes.end(), room.data(), room.data() + written);
    encoded.sizes.push_back(written);
  });
  return encoded;
}

// What a candidate does in a round; it returns the bytes that it produced.
using Work = std::function<std::size_t()>;

Work
encodingWork(const Codec &codec, const Bytes &corpus, std::size_t blockSize, Bytes &scratch)
{
  return [&codec, &corpus, blockSize, &scratch] {
    std::size_t total = 0;
    eachBlock(corpus, blockSize, [&](const std::uint8_t *block, std::size_t size) {
      total += codec.encode(block, size, scratch.data(), roomFor(size));
    });
    return total;
  };
}

Work
decodingWork(const Codec &codec, const Encoded &encoded, std::size_t corpusBytes,
             std::size_t blockSize, Bytes &scratch)
{
  return [&codec, &encoded, corpusBytes, blockSize, &scratch] {
    const std::uint8_t *in = encoded.bytes.data();
    std::size_t at = 0;
    for (const std::size_t size : encoded.sizes) {
      at += codec.decode(in, size, scratch.data() + at, std::min(blockSize, corpusBytes - at));
      in += size;
    }
    return at;
  };
}

// Of this thread alone, so that others on the machine disturb less.
double
processorSeconds()
{
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Seconds per round, candidate by candidate.
std::vector<std::vector<double>>
takeTurns(const std::vector<Work> &candidates, unsigned rounds)
{
  std::vector<std::vector<double>> seconds(candidates.size());
  for (unsigned round = 0; round < rounds + 1; round++)
    for (std::size_t i = 0; i < candidates.size(); i++) {
      const double before = processorSeconds();
      double taken = 0;
      unsigned times = 0;
      do {
        candidates[i]();
        times++;
        taken = processorSeconds() - before;
      } while (taken < 1e-3);
      if (round > 0) // the first one warms up
        seconds[i].push_back(taken / times);
    }
  return seconds;
}

struct Spread {
  double low;
  double median;
  double high;
};

Spread
spreadOf(std::vector<double> values)
{
  std::sort(values.begin(), values.end());
  return {values[values.size() / 4], values[values.size() / 2], values[values.size() * 3 / 4]};
}

// How many times faster `mine` was than `other`.
Spread
faster(const std::vector<double> &mine, const std::vector<double> &other)
{
  std::vector<double> ratios;
  for (std::size_t i = 0; i < mine.size(); i++)
    ratios.push_back(other[i] / mine[i]);
  return spreadOf(ratios);
}

double
megabytesPerSecond(const std::vector<double> &seconds, std::size_t bytes)
{
  return static_cast<double>(bytes) / 1e6 / spreadOf(seconds).median;
}

struct Row {
  std::string corpus;
  std::size_t blockSize;
  std::vector<std::pair<const char *, double>> plain; // name and value
  std::vector<std::pair<const char *, Spread>> ratios;
};

Row
measure(const Corpus &corpus, std::size_t blockSize, unsigned rounds)
{
  const Bytes &bytes = corpus.bytes;
  const Encoded byUs = encodeAll(ours, bytes, blockSize);
  const Encoded byLzo = encodeAll(lzo, bytes, blockSize);
  const Encoded byLz4 = encodeAll(lz4, bytes, blockSize);
  Bytes scratch(roomFor(bytes.size()));
  const auto decoding = [&](const Codec &codec, const Encoded &encoded) {
    return decodingWork(codec, encoded, bytes.size(), blockSize, scratch);
  };
  const std::vector<Work> decoders = {decoding(ours, byUs), decoding(lzo, byUs),
                                      decoding(ours, byLzo), decoding(lzo, byLzo),
                                      decoding(lz4, byLz4)};
  for (const auto &decoder : decoders) {
    std::fill(scratch.begin(), scratch.end(), std::uint8_t{0});
    if (decoder() != bytes.size() || !std::equal(bytes.begin(), bytes.end(), scratch.begin()))
      g_error("%s, blocks of %zu: decoded to something else", corpus.name.c_str(), blockSize);
  }
  const auto encode = takeTurns({encodingWork(ours, bytes, blockSize, scratch),
                                 encodingWork(lzo, bytes, blockSize, scratch),
                                 encodingWork(lz4, bytes, blockSize, scratch)},
                                rounds);
  const auto decode = takeTurns(decoders, rounds);

  const auto percent = [&](const Encoded &encoded) {
    return 100.0 * static_cast<double>(encoded.bytes.size()) / static_cast<double>(bytes.size());
  };
  return {corpus.name,
          blockSize,
          {{"size_ours", percent(byUs)},
           {"size_lzo", percent(byLzo)},
           {"size_lz4", percent(byLz4)},
           {"encode_ours_mbs", megabytesPerSecond(encode[0], bytes.size())},
           {"decode_ours_mbs", megabytesPerSecond(decode[0], bytes.size())}},
          {{"encode_vs_lzo", faster(encode[0], encode[1])},
           {"encode_vs_lz4", faster(encode[0], encode[2])},
           {"decode_ours_vs_lzo", faster(decode[0], decode[1])},
           {"decode_lzos_vs_lzo", faster(decode[2], decode[3])},
           {"decode_vs_lz4", faster(decode[0], decode[4])}}};
}

void
printRow(const Row &row)
{
  std::printf("%-8s %8zu  %6.2f %6.2f %6.2f  %7.0f %7.0f ", row.corpus.c_str(), row.blockSize,
              row.plain[0].second, row.plain[1].second, row.plain[2].second, row.plain[3].second,
              row.plain[4].second);
  for (const auto &[name, spread] : row.ratios)
    std::printf(" %5.2f %4.2f-%-5.2f", spread.median, spread.low, spread.high);
  std::printf("%s\n", row.plain[0].second > row.plain[1].second ? " larger" : "");
  std::fflush(stdout);
}

void
printHead()
{
  std::printf("corpus      block   size in %% of input    MB/s, ours    encode          encode"
              "          decode          decode          decode\n"
              "                    ours    lzo    lz4   encode  decode   vs lzo          vs lz4"
              "          ours, vs lzo    lzo's, vs lzo   vs lz4\n");
}

// Geometric means of the medians, over all blocks from `from` to `to` bytes.
void
printMeans(const std::vector<Row> &rows, std::size_t from, std::size_t to)
{
  std::map<std::string, std::pair<double, unsigned>> logs;
  std::map<std::string, double> least;
  for (const Row &row : rows)
    if (row.blockSize >= from && row.blockSize <= to)
      for (const auto &[name, spread] : row.ratios) {
        auto &[sum, count] = logs[name];
        sum += std::log(spread.median);
        count++;
        least[name] = least.contains(name) ? std::min(least[name], spread.median) : spread.median;
      }
  std::printf("\nblocks of %zu to %zu bytes, geometric mean and least\n", from, to);
  for (const auto &[name, log] : logs)
    std::printf("  %-20s %5.2f  %5.2f\n", name.c_str(), std::exp(log.first / log.second),
                least[name]);
}

bool
writeJson(const char *path, const std::vector<Row> &rows)
{
  FILE *const file = std::fopen(path, "w");
  if (file == nullptr)
    return false;
  std::fprintf(file, "[\n");
  for (std::size_t i = 0; i < rows.size(); i++) {
    std::fprintf(file, "  {\"corpus\": \"%s\", \"block\": %zu", rows[i].corpus.c_str(),
                 rows[i].blockSize);
    for (const auto &[name, value] : rows[i].plain)
      std::fprintf(file, ", \"%s\": %.3f", name, value);
    for (const auto &[name, spread] : rows[i].ratios)
      std::fprintf(file, ", \"%s\": {\"low\": %.3f, \"median\": %.3f, \"high\": %.3f}", name,
                   spread.low, spread.median, spread.high);
    std::fprintf(file, "}%s\n", i + 1 < rows.size() ? "," : "");
  }
  std::fprintf(file, "]\n");
  return std::fclose(file) == 0;
}

} // namespace

int
main(int argc, char **argv)
{
  gint rounds = 11;
  gint most = 1 << 20;
  gint least = 4;
  gchar *json = nullptr;
  gchar *only = nullptr;
  const GOptionEntry entries[] = {
      {"rounds", 'r', 0, G_OPTION_ARG_INT, &rounds, "Rounds per row", "N"},
      {"least", 0, 0, G_OPTION_ARG_INT, &least, "Smallest block size", "BYTES"},
      {"most", 0, 0, G_OPTION_ARG_INT, &most, "Largest block size", "BYTES"},
      {"corpus", 'c', 0, G_OPTION_ARG_STRING, &only, "Only this corpus", "NAME"},
      {"json", 0, 0, G_OPTION_ARG_FILENAME, &json, "Write the figures to this file too", "FILE"},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext *const context = g_option_context_new(nullptr);
  g_option_context_add_main_entries(context, entries, nullptr);
  GError *error = nullptr;
  if (!g_option_context_parse(context, &argc, &argv, &error) || rounds < 1) {
    std::fprintf(stderr, "%s\n", error != nullptr ? error->message : "at least one round");
    return 2;
  }
  g_option_context_free(context);
  if (lzo_init() != LZO_E_OK)
    return 1;

  printHead();
  std::vector<Row> rows;
  for (const Corpus &corpus : corpora())
    for (const std::size_t blockSize :
         {4UL, 16UL, 64UL, 256UL, 512UL, 1024UL, 4096UL, 16384UL, 65536UL, 262144UL, 1048576UL})
      if ((only == nullptr || corpus.name == only) &&
          blockSize >= static_cast<std::size_t>(least) &&
          blockSize <= static_cast<std::size_t>(most)) {
        rows.push_back(measure(corpus, blockSize, static_cast<unsigned>(rounds)));
        printRow(rows.back());
      }
  printMeans(rows, 4, 512);
  printMeans(rows, 64, 1024);
  printMeans(rows, 4096, 1 << 20);
  if (json != nullptr && !writeJson(json, rows)) {
    std::fprintf(stderr, "%s: cannot write\n", json);
    return 1;
  }
  return 0;
}
