// SPDX-License-Identifier: LGPL-2.1-or-later
// The stream between a channel and a message stream: it follows the frames that pass, so that a
// reader can tell the end of the channel from a message cut short and an empty message from the
// end, and refuses a message that is longer than its reader can accept before memory is taken.
#pragma once

#include "deadline.h"

#include <gio/gio.h>

struct ToolMeter;

GType tool_meter_get_type();

ToolMeter *meter_new(GInputStream *base);

// Frames and strings longer than this fail with G_IO_ERROR_MESSAGE_TOO_LARGE. No limit at first.
void meter_set_limit(ToolMeter *meter, guint32 limit);

// Tells the deadline of the bytes that arrive.
void meter_set_deadline(ToolMeter *meter, Deadline *deadline);

// For strings that end with this byte instead of frames. Makes the end of the stream an error,
// G_IO_ERROR_CLOSED, since a reader of strings does not stop at an end.
void meter_set_strings(ToolMeter *meter, char terminator);

guint64 meter_total(ToolMeter *meter);

// Whether the stream has ended, and whether it did so (or stands) between two frames.
bool meter_at_end(ToolMeter *meter);
bool meter_at_boundary(ToolMeter *meter);
