// SPDX-License-Identifier: LGPL-2.1-or-later
// How the engine behind the platform functions starts.
#include "ippsupport.h"

#include <gcrypt.h>

#include <thread>

static bool
isLibgcryptInitialised()
{
  return gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0;
}

static void
testInitStartsLibgcrypt()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  g_assert_true(isLibgcryptInitialised());
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  assertCipherWorks();
}

static void
testCipherWorksWithoutInit()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  assertCipherWorks();
  g_assert_true(isLibgcryptInitialised());
}

static void
testGeneratorWorksWithoutInit()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  assertGeneratorWorks();
  g_assert_true(isLibgcryptInitialised());
}

static void
testThreadsMayComeFirst()
{
  if (!inChild())
    return;
  g_assert_false(isLibgcryptInitialised());
  static gint waiting = 16;
  std::vector<std::thread> threads;
  for (int i = 0; i < 16; i++)
    threads.emplace_back([i] {
      g_atomic_int_dec_and_test(&waiting);
      while (g_atomic_int_get(&waiting) != 0)
        std::this_thread::yield();
      for (int round = 0; round < 20; round++)
        (i + round) % 2 == 0 ? assertCipherWorks() : assertGeneratorWorks();
    });
  for (std::thread &thread : threads)
    thread.join();
}

// Secure memory, which the functions themselves would switch off, tells who configured libgcrypt.
static void
testTheHostsConfigurationIsKept()
{
  if (!inChild())
    return;
  g_assert_nonnull(gcry_check_version(nullptr));
  gcry_control(GCRYCTL_DISABLE_SECMEM_WARN);
  gcry_control(GCRYCTL_INIT_SECMEM, 16384, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
  g_assert_cmpint(ippInit(), ==, ippStsNoErr);
  assertCipherWorks();
  assertGeneratorWorks();
  void *memory = gcry_malloc_secure(64);
  g_assert_true(gcry_is_secure(memory));
  gcry_free(memory);
}

void
addEngineTests()
{
  g_test_add_func("/engine/init-starts-libgcrypt", testInitStartsLibgcrypt);
  g_test_add_func("/engine/cipher-works-without-init", testCipherWorksWithoutInit);
  g_test_add_func("/engine/generator-works-without-init", testGeneratorWorksWithoutInit);
  g_test_add_func("/engine/first-use-from-many-threads", testThreadsMayComeFirst);
  g_test_add_func("/engine/keeps-the-hosts-configuration", testTheHostsConfigurationIsKept);
}
