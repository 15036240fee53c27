// SPDX-License-Identifier: LGPL-2.1-or-later
#include "platform/ipp/ippcore.h"

#include <gcrypt.h>
#include <pthread.h>
#include <string.h>

// The oldest libgcrypt with every function that we call.
static constexpr char oldestVersion[] = "1.8.0";

static pthread_once_t startOnce = PTHREAD_ONCE_INIT;
static bool isReady; // written inside startOnce

// libgcrypt is configured once per process, by the host if it has. Otherwise we disable secure
// memory, since a pool of locked memory is the host's decision.
static void
start()
{
  const bool isHostInitialised = gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0;
  isReady = gcry_check_version(oldestVersion) != nullptr;
  if (isHostInitialised || !isReady)
    return;
  gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
  gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
}

IppStatus
ipp::startEngine() noexcept
{
  pthread_once(&startOnce, start);
  return isReady ? ippStsNoErr : ippStsErr;
}

void
ipp::wipeStackBelow() noexcept
{
  unsigned char below[1024];
  explicit_bzero(below, sizeof below);
}

IppStatus
ippInit(void)
{
  return ipp::startEngine();
}
