// SPDX-License-Identifier: LGPL-2.1-or-later
// The platform functions over a libgcrypt whose calls fail on demand: the linker puts the functions
// below in the place of those that the platform calls (--wrap).
#include "platform/ipp/ipp.h"

#include <gcrypt.h>
#include <glib.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <vector>

using Bytes = std::vector<Ipp8u>;

static int calls;
static int failingCall = -1;
static bool isTooOld;
static int openHandles;

static bool
fails()
{
  return calls++ == failingCall;
}

// Forwards to libgcrypt; a failure is reported of what has been done, so that all is in doubt.
#define WRAP(name, parameters, arguments)                                                          \
  extern "C" gcry_error_t __real_##name parameters;                                                \
  extern "C" gcry_error_t __wrap_##name parameters;                                                \
  gcry_error_t __wrap_##name parameters                                                            \
  {                                                                                                \
    const gcry_error_t error = __real_##name arguments;                                            \
    return fails() ? gcry_error(GPG_ERR_INTERNAL) : error;                                         \
  }

WRAP(gcry_cipher_setkey, (gcry_cipher_hd_t handle, const void *key, size_t size),
     (handle, key, size))
WRAP(gcry_cipher_setiv, (gcry_cipher_hd_t handle, const void *iv, size_t size), (handle, iv, size))
WRAP(gcry_cipher_encrypt,
     (gcry_cipher_hd_t handle, void *out, size_t room, const void *in, size_t size),
     (handle, out, room, in, size))
WRAP(gcry_cipher_decrypt,
     (gcry_cipher_hd_t handle, void *out, size_t room, const void *in, size_t size),
     (handle, out, room, in, size))
WRAP(gcry_md_hash_buffers,
     (int algorithm, unsigned flags, void *digest, const gcry_buffer_t *pieces, int count),
     (algorithm, flags, digest, pieces, count))

extern "C" {
gcry_error_t __real_gcry_cipher_open(gcry_cipher_hd_t *handle, int algorithm, int mode,
                                     unsigned flags);
gcry_error_t __wrap_gcry_cipher_open(gcry_cipher_hd_t *handle, int algorithm, int mode,
                                     unsigned flags);
void __real_gcry_cipher_close(gcry_cipher_hd_t handle);
void __wrap_gcry_cipher_close(gcry_cipher_hd_t handle);
const char *__real_gcry_check_version(const char *wanted);
const char *__wrap_gcry_check_version(const char *wanted);
}

gcry_error_t
__wrap_gcry_cipher_open(gcry_cipher_hd_t *handle, int algorithm, int mode, unsigned flags)
{
  if (fails())
    return gcry_error(GPG_ERR_INTERNAL);
  openHandles++;
  return __real_gcry_cipher_open(handle, algorithm, mode, flags);
}

void
__wrap_gcry_cipher_close(gcry_cipher_hd_t handle)
{
  openHandles--;
  __real_gcry_cipher_close(handle);
}

const char *
__wrap_gcry_check_version(const char *wanted)
{
  return isTooOld ? nullptr : __real_gcry_check_version(wanted);
}

// Runs the operation with its first call of libgcrypt failing, then with the second one, and so on;
// it must fail each time. `check` looks at what is left, and the last run goes well.
static void
atEveryCall(int least, const std::function<IppStatus()> &run, const std::function<void()> &check)
{
  for (int at = 0;; at++) {
    calls = 0;
    failingCall = at;
    const IppStatus status = run();
    failingCall = -1;
    if (calls <= at) {
      g_assert_cmpint(status, ==, ippStsNoErr);
      g_assert_cmpint(at, >=, least);
      return;
    }
    g_assert_cmpint(status, ==, ippStsErr);
    check();
  }
}

/* ---- AES-CBC ---- */

constexpr std::array<Ipp8u, 32> key = {1, 2, 3};
constexpr std::array<Ipp8u, 16> vector = {4, 5, 6};

class Block
{
public:
  Block()
  {
    int size = 0;
    g_assert_cmpint(ippsRijndael128GetSize(&size), ==, ippStsNoErr);
    memory.resize(static_cast<std::size_t>(size));
  }
  ~Block()
  {
    ippsRijndael128Release(get());
    g_assert_cmpint(openHandles, ==, 0);
  }
  IppsRijndael128Spec *
  get()
  {
    return reinterpret_cast<IppsRijndael128Spec *>(memory.data());
  }
  IppStatus
  init()
  {
    return ippsRijndael128Init(key.data(), IppsRijndaelKey256, get());
  }
  IppStatus
  crypt(bool encrypts, const Bytes &in, const Ipp8u *iv, Bytes &out)
  {
    out.assign(in.size(), 0);
    return (encrypts ? ippsRijndael128EncryptCBC : ippsRijndael128DecryptCBC)(
        in.data(), out.data(), static_cast<int>(in.size()), get(), iv, IppsCPPaddingNONE);
  }

private:
  Bytes memory;
};

static void
testFailedInitLeavesNoContext()
{
  Block block;
  Bytes out;
  g_assert_cmpint(block.init(), ==, ippStsNoErr);
  atEveryCall(
      2, [&] { return block.init(); },
      [&] {
        g_assert_cmpint(openHandles, ==, 0);
        g_assert_cmpint(block.crypt(true, Bytes(16), vector.data(), out), ==,
                        ippStsContextMatchErr);
      });
}

// The chain that a failed call leaves in doubt is begun anew by the next one.
static void
testCipherFailuresAreReported()
{
  Block block;
  g_assert_cmpint(block.init(), ==, ippStsNoErr);
  for (const bool encrypts : {true, false}) {
    const Bytes first(32, 7), second(48, 8);
    Bytes firstOut, out;
    std::array<Ipp8u, 16> chained = {};
    const auto both = [&] {
      const IppStatus status = block.crypt(encrypts, first, vector.data(), firstOut);
      return status != ippStsNoErr ? status : block.crypt(encrypts, second, chained.data(), out);
    };
    g_assert_cmpint(both(), ==, ippStsNoErr);
    std::copy_n((encrypts ? firstOut : first).end() - 16, 16, chained.begin());
    g_assert_cmpint(both(), ==, ippStsNoErr);
    const Bytes expected = out;
    atEveryCall(3, both, [&] {
      g_assert_cmpint(block.crypt(encrypts, second, chained.data(), out), ==, ippStsNoErr);
      g_assert_cmpmem(out.data(), out.size(), expected.data(), expected.size());
    });
  }
}

/* ---- The generator ---- */

template <typename State> class Memory
{
public:
  explicit Memory(IppStatus (*getSize)(int *))
  {
    int size = 0;
    g_assert_cmpint(getSize(&size), ==, ippStsNoErr);
    bytes.resize(static_cast<std::size_t>(size));
  }
  State *
  get()
  {
    return reinterpret_cast<State *>(bytes.data());
  }

private:
  Bytes bytes;
};

struct Generator : Memory<IppsPRNGState> {
  Memory<IppsBigNumState> seed{[](int *size) { return ippsBigNumGetSize(2, size); }};

  Generator() : Memory(ippsPRNGGetSize)
  {
    constexpr Ipp32u words[] = {0x12345678, 0x9abcdef0};
    g_assert_cmpint(ippsBigNumInit(2, seed.get()), ==, ippStsNoErr);
    g_assert_cmpint(ippsSet_BN(IppsBigNumPOS, 2, words, seed.get()), ==, ippStsNoErr);
    g_assert_cmpint(ippsPRNGInit(64, get()), ==, ippStsNoErr);
  }
  IppStatus
  setSeed()
  {
    return ippsPRNGSetSeed(seed.get(), get());
  }
  IppStatus
  draw(Bytes &out)
  {
    return ippsPRNGen(reinterpret_cast<Ipp32u *>(out.data()), static_cast<int>(out.size() * 8),
                      get());
  }
};

static void
testFailedSeedLeavesNone()
{
  Generator generator;
  Bytes out(64);
  g_assert_cmpint(generator.setSeed(), ==, ippStsNoErr);
  atEveryCall(
      4, [&] { return generator.setSeed(); },
      [&] { g_assert_cmpint(generator.draw(out), ==, ippStsContextMatchErr); });
}

// A failed draw may have written, but it has not moved the generator on.
static void
testFailedDrawsAreNone()
{
  Generator undisturbed, generator;
  Bytes out(100), expected(100);
  g_assert_cmpint(undisturbed.setSeed(), ==, ippStsNoErr);
  g_assert_cmpint(generator.setSeed(), ==, ippStsNoErr);
  atEveryCall(
      5, [&] { return generator.draw(out); },
      [&] {
        g_assert_cmpint(generator.draw(out), ==, ippStsNoErr);
        g_assert_cmpint(undisturbed.draw(expected), ==, ippStsNoErr);
        g_assert_cmpmem(out.data(), out.size(), expected.data(), expected.size());
      });

  // Requests above the standard's 2^19 bits take several of its calls.
  Bytes large((std::size_t{1} << 16) + 1);
  calls = 0;
  g_assert_cmpint(generator.draw(large), ==, ippStsNoErr);
  for (const int at : {calls - 1, calls - 2, 0}) {
    calls = 0;
    failingCall = at;
    g_assert_cmpint(generator.draw(large), ==, ippStsErr);
  }
  failingCall = -1;
}

/* ---- An old libgcrypt ---- */

static void
testOldEngineIsRefused()
{
  if (!g_test_subprocess()) {
    g_test_trap_subprocess(nullptr, 0, G_TEST_SUBPROCESS_INHERIT_STDERR);
    g_test_trap_assert_passed();
    return;
  }
  isTooOld = true;
  Block block;
  Generator generator;
  Bytes out(16);
  g_assert_cmpint(ippInit(), ==, ippStsErr);
  g_assert_cmpint(block.init(), ==, ippStsErr);
  g_assert_cmpint(block.crypt(true, Bytes(16), vector.data(), out), ==, ippStsContextMatchErr);
  g_assert_cmpint(generator.setSeed(), ==, ippStsErr);
  g_assert_cmpint(generator.draw(out), ==, ippStsContextMatchErr);
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/engine-faults/old-engine-is-refused", testOldEngineIsRefused);
  g_test_add_func("/engine-faults/failed-init-leaves-no-context", testFailedInitLeavesNoContext);
  g_test_add_func("/engine-faults/cipher-failures-are-reported", testCipherFailuresAreReported);
  g_test_add_func("/engine-faults/failed-seed-leaves-none", testFailedSeedLeavesNone);
  g_test_add_func("/engine-faults/failed-draws-are-none", testFailedDrawsAreNone);
  return g_test_run();
}
