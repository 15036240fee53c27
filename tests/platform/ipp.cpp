// SPDX-License-Identifier: LGPL-2.1-or-later
// The platform functions, against implementations that are not ours: OpenSSL for the cipher and the
// generator, liblzo2 for the codec's streams. A case that needs a process in which nobody has
// touched libgcrypt yet runs itself again as a child.
#include "ippsupport.h"

#include <lzo/lzoconf.h>

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_assert_cmpint(lzo_init(), ==, LZO_E_OK);
  addEngineTests();
  addCipherTests();
  addGeneratorTests();
  addEncoderTests();
  addDecoderTests();
  return g_test_run();
}
