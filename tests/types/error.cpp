/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

using namespace support;

static void
quark_is_that_of_its_string()
{
  const GQuark quark = gvc_error_quark();
  g_assert_cmpuint(quark, !=, 0);
  g_assert_cmpstr(g_quark_to_string(quark), ==, "gvc-error-quark");
  g_assert_cmpuint(g_quark_try_string("gvc-error-quark"), ==, quark);
  g_assert_cmpuint(gvc_error_quark(), ==, quark);
  g_assert_cmpuint(GVC_ERROR, ==, quark);
}

/* In a process of its own, so that the threads are the first to ask for the quark. */
static void
quark_is_the_same_in_every_thread()
{
  if (!g_test_subprocess()) {
    g_test_trap_subprocess(nullptr, 0, GTestSubprocessFlags(0));
    g_test_trap_assert_passed();
    return;
  }

  g_assert_cmpuint(g_quark_try_string("gvc-error-quark"), ==, 0);
  GThread *threads[8];
  static gint started;
  for (auto &thread : threads)
    thread = g_thread_new(
        "quark",
        [](gpointer) -> gpointer {
          g_atomic_int_inc(&started);
          while (g_atomic_int_get(&started) < 8)
            g_thread_yield();
          return GUINT_TO_POINTER(gvc_error_quark());
        },
        nullptr);
  const GQuark quark = gvc_error_quark();
  for (auto *thread : threads)
    g_assert_cmpuint(GPOINTER_TO_UINT(g_thread_join(thread)), ==, quark);
}

static void
the_only_code_is_0()
{
  g_assert_cmpint(GVC_ERROR_DISCONNECTED, ==, 0);
}

static void
truncated_message_is_disconnected()
{
  Error error;

  /* Blocking: the end within the length. */
  const auto script = new_script(std::string("\x05\x00", 2));
  const auto base = new_scripted_input(script);
  const auto stream = own(gvc_bytes_input_stream_new(base.get()));
  g_assert_null(gvc_bytes_input_stream_read_bytes(stream.get(), nullptr, &error));
  error.assert_is(gvc_error_quark(), 0, "Disconnected");

  /* Asynchronous: the end within the message. */
  const auto async_script = new_script(frame("hello").substr(0, 7));
  const auto async_base = new_scripted_input(async_script);
  const auto async_stream = own(gvc_bytes_input_stream_new(async_base.get()));
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(async_stream.get(), 0, nullptr, Collector::ready,
                                          &collector);
  g_assert_null(
      gvc_bytes_input_stream_read_bytes_finish(async_stream.get(), collector.wait(), &error));
  error.assert_is(gvc_error_quark(), 0, "Disconnected");
}

static void
init_says_nothing_however_often()
{
  if (g_test_subprocess()) {
    for (int i = 0; i < 3; i++)
      gvc_init();
    return;
  }
  g_test_trap_subprocess(nullptr, 0, GTestSubprocessFlags(0));
  g_test_trap_assert_passed();
  g_test_trap_assert_stderr("");
}

/* The host may use its ciphers only after gvc_init(); that they work then is what it is for. */
static void
init_makes_the_converters_work()
{
  gvc_init();
  const auto key = new_bytes(std::string(32, 'k'));
  const auto encryptor = own(gvc_encryptor_new(key.get()));
  const auto decryptor = own(gvc_decryptor_new(key.get()));
  const auto sink = own(g_memory_output_stream_new_resizable());
  const auto out = own(g_converter_output_stream_new(sink.get(), G_CONVERTER(encryptor.get())));
  Error error;
  g_output_stream_write_all(out.get(), "hello", 5, nullptr, nullptr, &error);
  error.assert_none();

  const auto source = own(g_memory_input_stream_new_from_data(
      g_memory_output_stream_get_data(G_MEMORY_OUTPUT_STREAM(sink.get())),
      static_cast<gssize>(g_memory_output_stream_get_data_size(G_MEMORY_OUTPUT_STREAM(sink.get()))),
      nullptr));
  const auto in = own(g_converter_input_stream_new(source.get(), G_CONVERTER(decryptor.get())));
  char word[5];
  gsize count;
  g_input_stream_read_all(in.get(), word, sizeof word, &count, nullptr, &error);
  error.assert_none();
  assert_bytes({word, count}, "hello");
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/error/quark-is-that-of-its-string", quark_is_that_of_its_string);
  g_test_add_func("/error/quark-is-the-same-in-every-thread", quark_is_the_same_in_every_thread);
  g_test_add_func("/error/the-only-code-is-0", the_only_code_is_0);
  g_test_add_func("/error/truncated-message-is-disconnected", truncated_message_is_disconnected);
  g_test_add_func("/init/says-nothing-however-often", init_says_nothing_however_often);
  g_test_add_func("/init/makes-the-converters-work", init_makes_the_converters_work);
  return g_test_run();
}
