// SPDX-License-Identifier: LGPL-2.1-or-later
// The codec's fast paths take what they are made for: its own build of the codec counts what they
// leave to the careful ones.
#include "codec/lzo1x/lzo1xcount.h"
#include "tests/codec/lzo1xsamples.h"

#include <glib.h>

namespace
{

// Careful steps of `work`.
template <typename Work>
std::size_t
countOf(Work work)
{
  lzo1x::carefulSteps = 0;
  work();
  return lzo1x::carefulSteps;
}

// Only the ends of a stream are decoded with care, so their number does not grow with the size.
void
testDecoder()
{
  Random random(1);
  for (const auto generator : {fewSymbols, repeats, runs})
    for (const std::size_t size : {1000, 20000, 500000}) {
      const Bytes content = generator(random, size);
      const Bytes stream = encoded(content);
      Bytes out(size);
      const std::size_t careful = countOf([&] {
        const auto result = lzo1x::decode(stream, out);
        g_assert_true(result.status == lzo1x::Status::ok);
      });
      g_assert_true(out == content);
      g_assert_cmpuint(careful, >, 0);
      g_assert_cmpuint(careful, <, 60);
    }
}

// Words from a list, each behind `literals` new bytes.
Bytes
words(Random &random, std::size_t size, std::size_t literals)
{
  const Bytes list = noise(random, 4000);
  Bytes bytes = list;
  while (bytes.size() < size) {
    const Bytes fresh = noise(random, literals);
    bytes.insert(bytes.end(), fresh.begin(), fresh.end());
    const auto word = list.begin() + static_cast<std::ptrdiff_t>(below(random, 3900));
    bytes.insert(bytes.end(), word, word + 12);
  }
  return bytes;
}

// Frequent short runs are decoded with the match before them, long ones by themselves.
void
testRuns()
{
  Random random(3);
  for (const std::size_t literals : {6, 20}) {
    const Bytes content = words(random, 200000, literals);
    const Bytes stream = encoded(content);
    Bytes out(content.size());
    lzo1x::loneRuns = 0;
    g_assert_true(lzo1x::decode(stream, out).status == lzo1x::Status::ok);
    g_assert_true(out == content);
    const std::size_t some = content.size() / (literals + 12) / 5;
    if (literals == 6)
      g_assert_cmpuint(lzo1x::loneRuns, <, some);
    else
      g_assert_cmpuint(lzo1x::loneRuns, >, some);
  }
}

// Short sequences are written without care, but for the first one and those near the end.
void
testEncoder()
{
  Random random(2);
  for (const std::size_t size : {1000, 20000, 500000}) {
    const Bytes content = fewSymbols(random, size);
    const std::size_t careful = countOf([&] { encoded(content); });
    g_assert_cmpuint(careful, >, 0);
    g_assert_cmpuint(careful, <, 20);
  }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/lzo1x/paths/decoder", testDecoder);
  g_test_add_func("/lzo1x/paths/runs", testRuns);
  g_test_add_func("/lzo1x/paths/encoder", testEncoder);
  return g_test_run();
}
