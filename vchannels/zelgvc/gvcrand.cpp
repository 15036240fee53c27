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
 * Its output is as unpredictable as that time and no more: it serves for initialisation vectors,
 * not for keys. A generator is used from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcRand {
  IppsPRNGState *prng;
};

static constexpr int seed_bits = 64;
static constexpr int seed_words = 16;

namespace
{

// Memory from calloc() for an engine object, wiped before it is freed. Empty where the engine named
// no usable size.
template <typename T> class EngineMemory
{
public:
  explicit EngineMemory(int size)
      : size_(size > 0 ? static_cast<std::size_t>(size) : 0),
        memory_(size_ ? static_cast<T *>(std::calloc(size_, 1)) : nullptr)
  {
  }
  ~EngineMemory()
  {
    if (memory_)
      explicit_bzero(memory_, size_);
    std::free(memory_);
  }
  EngineMemory(const EngineMemory &) = delete;
  EngineMemory &operator=(const EngineMemory &) = delete;

  T *
  get() const
  {
    return memory_;
  }
  T *
  release()
  {
    auto *memory = memory_;
    memory_ = nullptr;
    return memory;
  }

private:
  std::size_t size_;
  T *memory_;
};

} // namespace

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

// The words of the seed, the lowest first, with nothing of it left elsewhere.
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
install_time_seed(IppsPRNGState *prng)
{
  int size = 0;
  if (ippsBigNumGetSize(seed_words, &size) != ippStsNoErr)
    return report(gvc::big_number_size_failed);
  EngineMemory<IppsBigNumState> seed_num(size);
  if (ippsBigNumInit(seed_words, seed_num.get()) != ippStsNoErr)
    return report(gvc::big_number_init_failed);

  Ipp32u words[seed_words] = {};
  load_time_seed(words);
  auto status = ippsSet_BN(IppsBigNumPOS, seed_words, words, seed_num.get());
  explicit_bzero(words, sizeof words);
  if (status != ippStsNoErr)
    return report(gvc::big_number_set_failed);
  if (ippsPRNGSetSeed(seed_num.get(), prng) != ippStsNoErr)
    return report(gvc::prng_seed_failed);
  return TRUE;
}

/**
 * gvc_rand_new: (skip)
 *
 * Creates a generator and seeds it with the time of day. What goes wrong is written to standard
 * error.
 *
 * Returns: (transfer full) (nullable): a new generator, or %NULL where the engine fails; release it
 *   with gvc_rand_free()
 *
 * Since: 0.1
 */
GvcRand *
gvc_rand_new(void)
{
  EngineMemory<IppsPRNGState> prng(prng_size());
  if (ippsPRNGInit(seed_bits, prng.get()) != ippStsNoErr) {
    report(gvc::prng_init_failed);
    return nullptr;
  }
  if (!install_time_seed(prng.get()))
    return nullptr;

  auto *rand = g_new(GvcRand, 1);
  rand->prng = prng.release();
  return rand;
}

/**
 * gvc_rand_array: (skip)
 * @rand: a generator
 * @data: (array length=len) (out caller-allocates): where the bytes go
 * @len: how many bytes, 1 to 268435455
 *
 * Fills @data with random bytes. The arguments are not checked.
 *
 * Returns: %TRUE when all of @data is filled; %FALSE where @len is out of range or the engine fails
 *
 * Since: 0.1
 */
gboolean
gvc_rand_array(GvcRand *rand, guint8 *data, gsize len)
{
  // The engine counts bits in an int. A count that does not fit must not wrap to a smaller one.
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
  explicit_bzero(rand->prng, static_cast<std::size_t>(prng_size()));
  std::free(rand->prng);
  g_free(rand);
}
