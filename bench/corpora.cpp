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

static std::vector<Corpus>
readAll()
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
    std::ifstream file(index.substr(0, index.rfind('/') + 1) + name, std::ios::binary);
    corpus.bytes.assign(std::istreambuf_iterator<char>(file), {});
    all.push_back(std::move(corpus));
  }
  return all;
}

const std::vector<Corpus> &
corpora()
{
  static const auto all = readAll();
  return all;
}

bool
isTypical(const Corpus &corpus)
{
  const char *const names[] = {"text", "source", "binary", "pixels", "random", nullptr};
  return g_strv_contains(names, corpus.name.c_str());
}

Bytes
source(std::size_t size)
{
  auto found = std::find_if(corpora().begin(), corpora().end(),
                            [](const Corpus &corpus) { return corpus.name == "source"; });
  if (found == corpora().end())
    g_error("this machine has no C headers for the corpus \"source\"");
  Bytes bytes(size);
  for (std::size_t at = 0; at < size; at += found->bytes.size())
    std::memcpy(bytes.data() + at, found->bytes.data(), std::min(found->bytes.size(), size - at));
  return bytes;
}

} // namespace bench
