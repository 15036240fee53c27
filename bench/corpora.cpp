// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

namespace bench
{

std::vector<Corpus>
allCorpora()
{
  const std::string index = CORPORA;
  std::ifstream lines(index);
  std::vector<Corpus> all;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    Corpus corpus;
    std::string name;
    std::getline(fields, corpus.half, '\t');
    std::getline(fields, corpus.name, '\t');
    std::getline(fields, name, '\t');
    std::getline(fields, corpus.description);
    std::ifstream file(index.substr(0, index.rfind('/') + 1) + name, std::ios::binary);
    corpus.bytes.assign(std::istreambuf_iterator<char>(file), {});
    all.push_back(std::move(corpus));
  }
  return all;
}

std::vector<Corpus>
corpora()
{
  auto some = allCorpora();
  std::erase_if(some, [](const Corpus &corpus) {
    const char *const names[] = {"text", "source", "binary", "pixels", "random", nullptr};
    return !g_strv_contains(names, corpus.name.c_str());
  });
  return some;
}

Bytes
corpus(const std::string &name)
{
  for (auto &corpus : allCorpora())
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
