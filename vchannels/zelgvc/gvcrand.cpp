// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcrand.h"
#include "gvcfixedtexts.h"

#include <platform/ipp/ipp.h>

#include <sys/time.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/**
 * GvcRand: (skip)
 *
 * A random generator seeded with the time of day in microseconds.
 *
 * Its output is only as unpredictable as that time. Use it for initialisation vectors, not for
 * keys. Use a generator from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcRand {
  IppsPRNGState *prng;
};

static constexpr int seed_bits = 64;
static constexpr int seed_words = 16;

// NULL if the platform named no usable size.
template <typename T>
static T *
allocate(int size)
{
  return size > 0 ? static_cast<T *>(std::calloc(static_cast<std::size_t>(size), 1)) : nullptr;
}

static void
wipe_and_free(void *memory, int size)
{
  if (memory)
    explicit_bzero(memory, static_cast<std::size_t>(size));
  std::free(memory);
}

static int
prng_size()
{
  int size = 0;
  ippsPRNGGetSize(&size);
  return size;
}

static gboolean
report(const char *line)
{
  std::fwrite(line, 1, std::strlen(line), stderr);
  return FALSE;
}

// The words of the seed, the lowest first. Leaves no copy of it behind.
static void
load_time_seed(Ipp32u *words)
{
  timeval now;
  gettimeofday(&now, nullptr);
  auto seed = static_cast<guint64>(now.tv_sec) * 1000000 + static_cast<guint64>(now.tv_usec);
  words[0] = static_cast<Ipp32u>(seed);
  words[1] = static_cast<Ipp32u>(seed >> 32);
  explicit_bzero(&now, sizeof now);
  explicit_bzero(&seed, sizeof seed);
}

static gboolean
install_time_seed(IppsPRNGState *prng, IppsBigNumState *number)
{
  Ipp32u words[seed_words] = {};

  if (ippsBigNumInit(seed_words, number) != ippStsNoErr)
    return report(gvc::big_number_init_failed);
  load_time_seed(words);
  auto status = ippsSet_BN(IppsBigNumPOS, seed_words, words, number);
  explicit_bzero(words, sizeof words);
  if (status != ippStsNoErr)
    return report(gvc::big_number_set_failed);
  return ippsPRNGSetSeed(number, prng) == ippStsNoErr || report(gvc::prng_seed_failed);
}

static gboolean
initialise(IppsPRNGState *prng)
{
  int size = 0;

  if (ippsPRNGInit(seed_bits, prng) != ippStsNoErr)
    return report(gvc::prng_init_failed);
  if (ippsBigNumGetSize(seed_words, &size) != ippStsNoErr)
    return report(gvc::big_number_size_failed);
  auto *number = allocate<IppsBigNumState>(size);
  gboolean done = install_time_seed(prng, number);
  wipe_and_free(number, size);
  return done;
}

/**
 * gvc_rand_new: (skip)
 *
 * Creates a generator and seeds it with the time of day. Writes failures to standard error.
 *
 * Returns: (transfer full) (nullable): a new generator, or %NULL if the platform fails; release it
 *   with gvc_rand_free()
 *
 * Since: 0.1
 */
GvcRand *
gvc_rand_new(void)
{
  int size = prng_size();
  auto *prng = allocate<IppsPRNGState>(size);
  if (!initialise(prng)) {
    wipe_and_free(prng, size);
    return nullptr;
  }

  auto *rand = g_new(GvcRand, 1);
  rand->prng = prng;
  return rand;
}

/**
 * gvc_rand_array: (skip)
 * @rand: a generator
 * @data: (array length=len) (out caller-allocates): the buffer to fill
 * @len: how many bytes, 1 to 268435455
 *
 * Fills @data with random bytes. The arguments are not checked.
 *
 * Returns: %TRUE if all of @data is filled, %FALSE if @len is out of range or the platform fails
 *
 * Since: 0.1
 */
gboolean
gvc_rand_array(GvcRand *rand, guint8 *data, gsize len)
{
  // The platform counts bits in an int. A larger count must not wrap.
  int bits = len <= INT_MAX / 8 ? static_cast<int>(len * 8) : -1;
  return ippsPRNGen(reinterpret_cast<Ipp32u *>(data), bits, rand->prng) == ippStsNoErr;
}

/**
 * gvc_rand_free: (skip)
 * @rand: (transfer full): a generator, not %NULL
 *
 * Wipes and releases a generator.
 *
 * Since: 0.1
 */
void
gvc_rand_free(GvcRand *rand)
{
  wipe_and_free(rand->prng, prng_size());
  g_free(rand);
}
