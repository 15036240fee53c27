// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace bench
{

namespace
{

constexpr std::size_t corpusSize = 1 << 20;

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
filesUnder(const char *folder, const char *suffix)
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
    if (bytes.size() < corpusSize)
      appendFile(bytes, name);
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

} // namespace

std::vector<Corpus>
corpora()
{
  std::vector<Corpus> all = {{"text", xmlText()},
                             {"source", filesUnder("/usr/include", ".h")},
                             {"binary", sharedLibrary()},
                             {"pixels", screenPixels()},
                             {"random", noise()}};
  std::erase_if(all, [](const Corpus &corpus) { return corpus.bytes.size() < corpusSize / 4; });
  return all;
}

Bytes
corpus(const std::string &name)
{
  for (auto &corpus : corpora())
    if (corpus.name == name)
      return std::move(corpus.bytes);
  g_error("this machine has nothing to make the corpus \"%s\" of", name.c_str());
}

Bytes
sampled(const Bytes &corpus, std::size_t blockSize)
{
  auto wanted = std::max(std::size_t{128} << 10, 4 * blockSize) / blockSize;
  auto there = std::max(corpus.size() / blockSize, std::size_t{1});
  auto taken = std::min(wanted, there);
  Bytes sample;
  for (std::size_t i = 0; i < taken; i++) {
    auto at = there * i / taken * blockSize;
    auto size = std::min(blockSize, corpus.size() - at);
    sample.insert(sample.end(), corpus.data() + at, corpus.data() + at + size);
  }
  return sample;
}

Bytes
repeated(const Bytes &corpus, std::size_t size)
{
  Bytes bytes(size);
  for (std::size_t at = 0; at < size; at += corpus.size())
    std::memcpy(bytes.data() + at, corpus.data(), std::min(corpus.size(), size - at));
  return bytes;
}

} // namespace bench
