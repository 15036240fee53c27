// SPDX-License-Identifier: LGPL-2.1-or-later
// A stream between a channel and a message stream. It follows the frames, so that a reader can tell
// the end of the channel from a short message and from an empty message. It refuses a message above
// a limit before memory is allocated. Its base stream must be pollable.
#pragma once

#include "deadline.h"

#include <gio/gio.h>

G_DECLARE_FINAL_TYPE(ToolMeter, tool_meter, TOOL, METER, GFilterInputStream)

ToolMeter *meter_new(GInputStream *base);

// Frames and strings longer than this fail with G_IO_ERROR_MESSAGE_TOO_LARGE. No limit at first.
void meter_set_limit(ToolMeter *meter, guint32 limit);

// Tells the deadline of the bytes that arrive.
void meter_set_deadline(ToolMeter *meter, Deadline *deadline);

// Switches from frames to strings that end with this byte. A reader of strings never stops at the
// end of the stream, so the end becomes an error, G_IO_ERROR_CLOSED.
void meter_set_strings(ToolMeter *meter, char terminator);

guint64 meter_total(ToolMeter *meter);

// Whether the stream has ended, and whether it is between two frames.
bool meter_at_end(ToolMeter *meter);
bool meter_at_boundary(ToolMeter *meter);
