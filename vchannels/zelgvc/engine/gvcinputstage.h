// SPDX-License-Identifier: LGPL-2.1-or-later
// The input stage of a channel: a GConverterInputStream with buffers of its own, which the engine
// can look into.
//
// GIO's own class loops while units hold nothing, waits for the socket while it has bytes, hands a
// skip on to its base stream, and never shrinks its buffers.
#pragma once

#include <gio/gio.h>

namespace gvc
{

GInputStream *input_stage_new(GInputStream *base_stream, GConverter *converter);

// The base stream of a stage, else NULL.
GInputStream *stage_base(GInputStream *stream);

// `stream`, or a stage below it, can go on without more from the socket.
gboolean stages_hold_input(GInputStream *stream);

// Copies converted bytes of a stage without taking them.
gsize peek_stage(GInputStream *stage, void *to, gsize room);

} // namespace gvc
