/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Waiting for results, threads, and a guard against hangs. */
#pragma once

#include "tests/support/values.h"

#include <gio/gio.h>

#include <functional>

namespace support
{

/* How long anything may take before the program gives up with an error: a guard against hangs, not
 * a measurement. TEST_PATIENCE in the environment multiplies it, for where programs run slowly. */
gint64 watchdog_usec();

/* Runs the thread-default main context until the condition holds. */
void spin_until(const std::function<bool()> &condition);
/* Runs whatever is ready in the thread-default main context, and returns. */
void spin_pending();

/* Takes the place of a GAsyncReadyCallback: pass `Collector::ready` and `&collector`. */
class Collector
{
public:
  Collector() = default;
  Collector(const Collector &) = delete;
  Collector &operator=(const Collector &) = delete;

  static void ready(GObject *source, GAsyncResult *result, gpointer collector);

  /* Runs the thread-default main context until the callback has run; borrowed result. */
  GAsyncResult *wait();
  guint
  calls() const
  {
    return calls_;
  }
  GAsyncResult *
  result() const
  {
    return result_.get();
  }
  GObject *
  source() const
  {
    return source_; /* as passed to the callback; not owned */
  }
  GThread *
  thread() const
  {
    return thread_;
  }
  /* Drops the result, so that nothing of the operation stays alive through this object. */
  void
  clear()
  {
    result_.reset();
  }

private:
  guint calls_ = 0;
  Ref<GAsyncResult> result_;
  GObject *source_ = nullptr;
  GThread *thread_ = nullptr;
};

/* Runs the code in a new thread that has a thread-default main context of its own, and waits for
 * its end. The caller's context is not run meanwhile. */
void run_in_thread(const std::function<void()> &code);

/* Runs the code beside the test; for the far end of a socket, say. */
class Background
{
public:
  explicit Background(std::function<void()> code);
  ~Background()
  {
    join();
  }
  Background(const Background &) = delete;
  Background &operator=(const Background &) = delete;
  void join();

private:
  std::function<void()> code_;
  GThread *thread_;
};

} // namespace support
