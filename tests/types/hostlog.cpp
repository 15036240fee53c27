// SPDX-License-Identifier: LGPL-2.1-or-later
// A host without a logger: this program must not define zel_log.
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <dlfcn.h>

#include <climits>

using namespace support;

namespace
{

gint
crypt_key_len(int length)
{
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, length);
  return gvc_get_crypt_key_len(&value);
}

void
test_program_has_no_host_logger()
{
  g_assert_null(dlsym(RTLD_DEFAULT, "zel_log"));
}

void
test_message_goes_to_glib()
{
  LogCapture log;
  g_assert_cmpint(crypt_key_len(128), ==, 128);
  g_assert_cmpint(crypt_key_len(256), ==, 256);
  log.expect_none();
  for (int length : {192, 0, -1, 255, INT_MAX, INT_MIN}) {
    g_assert_cmpint(crypt_key_len(length), ==, 256);
    log.expect({warning("ZEL", "Invalid key length " + std::to_string(length))});
  }
}

// The library is loaded again in a process where every symbol is bound at once.
void
test_loads_with_immediate_binding()
{
  if (g_test_subprocess()) {
    g_assert_cmpstr(g_getenv("LD_BIND_NOW"), ==, "1");
    test_message_goes_to_glib();
    return;
  }
  g_setenv("LD_BIND_NOW", "1", TRUE);
  g_test_trap_subprocess(nullptr, 0, static_cast<GTestSubprocessFlags>(0));
  g_unsetenv("LD_BIND_NOW");
  g_test_trap_assert_passed();
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/host-log/program-has-no-host-logger", test_program_has_no_host_logger);
  g_test_add_func("/host-log/message-goes-to-glib", test_message_goes_to_glib);
  g_test_add_func("/host-log/loads-with-immediate-binding", test_loads_with_immediate_binding);
  return g_test_run();
}
