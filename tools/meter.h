// SPDX-License-Identifier: LGPL-2.1-or-later
// A stream between a channel and a message stream. It follows the frames, so that a reader can tell
// the end of the channel from a short message and from an empty message. It refuses a message above
// a limit before memory is allocated. Its base stream must be pollable.
#pragma once

#include "deadline.h"

#include <gio/gio.h>

G_DECLARE_FINAL_TYPE(ToolMeter, tool_meter, TOOL, METER, GFilterInputStream)

struct _ToolMeter {
  GFilterInputStream parent;

  // Set these after meter_new(). Messages that are longer than the limit fail with
  // G_IO_ERROR_MESSAGE_TOO_LARGE. The deadline is told of the bytes that arrive.
  guint32 limit;
  Deadline *deadline;
  // The bytes are strings that end with the terminator, not frames. A reader of strings never stops
  // at the end of the stream, so the end becomes an error, G_IO_ERROR_CLOSED.
  bool strings;
  guint8 terminator;

  guint64 total;  // bytes that have arrived
  bool at_end;    // of the stream
  guint32 length; // of the current frame, as far as its prefix has arrived, or of the string
  guint prefix;   // bytes of the prefix that have arrived, 4 within a payload; 0 between frames
  guint32 outstanding; // bytes of the payload that have not arrived

  bool
  between_messages() const
  {
    return prefix == 0 && length == 0;
  }
};

ToolMeter *meter_new(GInputStream *base);
