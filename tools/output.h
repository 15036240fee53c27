// SPDX-License-Identifier: LGPL-2.1-or-later
// Standard output, for people and for programs, and a status line on standard error.
#pragma once

#include "owners.h"

#include <json-glib/json-glib.h>

#include <concepts>
#include <string>

// Thrown if the reader of standard output has gone. Not worth a complaint.
struct OutputClosed {
};

// Writes all of the text, or returns an error number: ECANCELED if the user interrupts the wait for
// a slow reader.
int write_all(int fd, const std::string &text);

void output(const std::string &text);
void output_line(const char *format, ...) G_GNUC_PRINTF(1, 2);

// One JSON object, on a line of its own.
class JsonLine
{
public:
  JsonLine() : builder(json_builder_new())
  {
    json_builder_begin_object(builder.get());
  }

  JsonLine &add(const char *name, const std::string &text); // not UTF-8: escaped like printable()
  JsonLine &add(const char *name, const char *text);
  JsonLine &add(const char *name, double number);
  JsonLine &add(const char *name, bool value);
  template <std::integral Integer>
  JsonLine &
  add(const char *name, Integer number)
  {
    json_builder_set_member_name(builder.get(), name);
    json_builder_add_int_value(builder.get(), static_cast<gint64>(number));
    return *this;
  }

  std::string text();
  void
  print()
  {
    output(text());
  }

private:
  Owned<JsonBuilder> builder;
};

// 1536 -> "1.5 KiB"; 1.5e6 bytes a second -> "1.5 MB/s"; 75 s -> "1:15".
std::string human_size(guint64 bytes);
std::string human_rate(double bytes_per_second);
std::string human_time(double seconds);
std::string hex_text(const void *bytes, gsize size);

// "64 us", "1.25 ms", "2.00 s".
std::string human_latency(double seconds);

// Whether standard error is a terminal that the line can be drawn on.
bool progress_wanted();

// Draws the line, cut to the width of the terminal. Draws at most ten times a second unless forced.
void progress_draw(const std::string &line, bool force = false);
bool progress_due();

// Removes the line, so that other output can be printed.
void progress_clear();

// The line of a transfer: name, bar, percentage, size, rate, time left, bytes on the wire for a
// byte of the file.
class Progress
{
public:
  Progress(const std::string &name, guint64 size, guint64 start);

  void update(guint64 done, guint64 wire, bool force = false);

private:
  std::string name;
  guint64 size;
  guint64 start;
  gint64 begun;
};
