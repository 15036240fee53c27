// SPDX-License-Identifier: LGPL-2.1-or-later
// A status line on standard error, if that is a terminal.
#pragma once

#include <glib.h>

#include <string>

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
