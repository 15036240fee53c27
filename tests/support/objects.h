/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* The lives of objects, and facts about their types. */
#pragma once

#include "tests/support/values.h"

#include <gio/gio.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace support
{

/* ---- Lives ---- */

/* Counts objects that have gone. Where GIO used a worker thread, the last reference may be dropped
 * there a moment after the result has arrived, hence the waiting. */
class LifeWatch
{
public:
  LifeWatch() = default;
  ~LifeWatch();
  LifeWatch(const LifeWatch &) = delete;
  LifeWatch &operator=(const LifeWatch &) = delete;

  void add(gpointer object);
  /* A GBytes over a copy of the data that is counted as well. */
  BytesRef add_bytes(std::string_view data);
  guint alive() const;
  /* Waits, running the thread-default main context, until every object has gone. */
  void assert_all_gone();

private:
  struct State;
  static void object_gone(gpointer state, GObject *object);
  static void bytes_gone(gpointer memory);
  std::shared_ptr<State> state();
  std::shared_ptr<State> state_;
};

guint refcount(gpointer object);
/* At once. */
void assert_refcount(gpointer object, guint expected);
/* After waiting for a worker thread of GIO to drop what it may still hold. */
void assert_refcount_becomes(gpointer object, guint expected);

/* ---- Types ---- */

/* Fails unless the property is exactly so. */
void assert_property(GType owner, const char *name, GType value_type, const char *nick,
                     const char *blurb, guint flags);
/* Names of the properties that the type itself adds. */
std::vector<std::string> own_properties(GType owner);
/* Names of the signals that the type itself adds. */
std::vector<std::string> own_signals(GType owner);

/* Fails if the class of a stream type overrides an operation of its parent type. */
void assert_overrides_nothing(GType stream_type);

} // namespace support
