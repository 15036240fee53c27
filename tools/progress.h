// SPDX-License-Identifier: LGPL-2.1-or-later
// One line on a terminal that is drawn over and over again, on standard error.
#pragma once

#include <glib.h>

#include <string>

// Whether standard error is a terminal that the line can be drawn on.
bool progress_wanted();

// Draws the line, cut to the terminal's width; calls within a tenth of a second of the last one are
// left out unless they are forced.
void progress_draw(const std::string &line, bool force = false);
bool progress_due();

// Takes the line away, for something else to be printed.
void progress_clear();

// A transfer: name, bar, percent, sizes, rate, remaining time, ratio of bytes on the wire to bytes
// of the file.
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
