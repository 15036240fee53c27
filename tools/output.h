// SPDX-License-Identifier: LGPL-2.1-or-later
// Standard output, for people and for programs.
#pragma once

#include <json-glib/json-glib.h>

#include <string>

// Thrown where the reader of standard output has gone: nothing to complain about.
struct OutputClosed {
};

// Writes all of it, or returns the error number: ECANCELED where the user does not wait for a
// reader that is stuck.
int write_all(int fd, const std::string &text);

void output(const std::string &text);
void output_line(const char *format, ...) G_GNUC_PRINTF(1, 2);

// One JSON object, on a line of its own.
class JsonLine
{
public:
  JsonLine() : builder(json_builder_new())
  {
    json_builder_begin_object(builder);
  }
  ~JsonLine()
  {
    g_object_unref(builder);
  }
  JsonLine(const JsonLine &) = delete;

  JsonLine &add(const char *name, const std::string &text); // not UTF-8: escaped like printable()
  JsonLine &
  add(const char *name, const char *text)
  {
    return add(name, std::string(text));
  }
  JsonLine &add(const char *name, gint64 number);
  JsonLine &
  add(const char *name, guint64 number)
  {
    return add(name, static_cast<gint64>(number));
  }
  JsonLine &
  add(const char *name, int number)
  {
    return add(name, static_cast<gint64>(number));
  }
  JsonLine &
  add(const char *name, guint number)
  {
    return add(name, static_cast<gint64>(number));
  }
  JsonLine &add(const char *name, double number);
  JsonLine &add(const char *name, bool value);

  std::string text();
  void
  print()
  {
    output(text());
  }

private:
  JsonBuilder *builder;
};

// 1536 -> "1.5 KiB"; 1.5e6 bytes a second -> "1.5 MB/s"; 75 s -> "1:15".
std::string human_size(guint64 bytes);
std::string human_rate(double bytes_per_second);
std::string human_time(double seconds);
std::string hex_text(const void *bytes, gsize size);

// How a duration reads best: "64 us", "1.25 ms", "2.00 s".
std::string human_latency(double seconds);
