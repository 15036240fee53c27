// SPDX-License-Identifier: LGPL-2.1-or-later
#include "corpora.h"

#include <glib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

namespace bench
{

const std::vector<Corpus> &
corpora()
{
  static std::vector<Corpus> all;
  std::ifstream index(CORPORA);
  Corpus corpus;
  if (all.empty())
    for (std::string file;
         index >> corpus.half >> file && std::getline(index >> std::ws, corpus.name);) {
      std::ifstream content(file, std::ios::binary);
      corpus.bytes.assign(std::istreambuf_iterator<char>(content), {});
      all.push_back(corpus);
    }
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
