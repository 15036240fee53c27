/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/mainloop.h"

#include <algorithm>
#include <utility>

namespace support
{

gint64
watchdog_usec()
{
  const char *const patience = g_getenv("TEST_PATIENCE");
  const gint64 times = patience != nullptr ? g_ascii_strtoll(patience, nullptr, 10) : 1;
  return 120 * G_USEC_PER_SEC * std::max<gint64>(times, 1);
}

namespace
{

gboolean
set_flag(gpointer flag)
{
  *static_cast<bool *>(flag) = true;
  return G_SOURCE_CONTINUE;
}

} // namespace

void
spin_until(const std::function<bool()> &condition)
{
  GMainContext *const context = g_main_context_ref_thread_default();
  const gint64 give_up = g_get_monotonic_time() + watchdog_usec();
  bool woken = false;
  /* Wakes the loop now and then, for conditions that other threads make true. */
  GSource *const ticks = g_timeout_source_new(5);
  g_source_set_callback(ticks, set_flag, &woken, nullptr);
  g_source_attach(ticks, context);
  while (!condition()) {
    g_main_context_iteration(context, TRUE);
    if (g_get_monotonic_time() > give_up)
      g_error("what the test waits for has not happened");
  }
  g_source_destroy(ticks);
  g_source_unref(ticks);
  g_main_context_unref(context);
}

void
spin_pending()
{
  GMainContext *const context = g_main_context_ref_thread_default();
  while (g_main_context_iteration(context, FALSE))
    ;
  g_main_context_unref(context);
}

void
Collector::ready(GObject *source, GAsyncResult *result, gpointer collector)
{
  const auto self = static_cast<Collector *>(collector);
  self->calls_++;
  self->result_.reset(G_ASYNC_RESULT(g_object_ref(result)));
  self->source_ = source;
  self->thread_ = g_thread_self();
}

GAsyncResult *
Collector::wait()
{
  spin_until([this] { return calls_ != 0; });
  g_assert_cmpuint(calls_, ==, 1);
  return result_.get();
}

void
run_in_thread(const std::function<void()> &code)
{
  GThread *const thread = g_thread_new(
      "second",
      [](gpointer data) -> gpointer {
        GMainContext *const context = g_main_context_new();
        g_main_context_push_thread_default(context);
        (*static_cast<const std::function<void()> *>(data))();
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
        return nullptr;
      },
      const_cast<std::function<void()> *>(&code));
  g_thread_join(thread);
}

Background::Background(std::function<void()> code) : code_(std::move(code))
{
  thread_ = g_thread_new(
      "background",
      [](gpointer self) -> gpointer {
        static_cast<Background *>(self)->code_();
        return nullptr;
      },
      this);
}

void
Background::join()
{
  if (thread_ != nullptr)
    g_thread_join(std::exchange(thread_, nullptr));
}

} // namespace support
