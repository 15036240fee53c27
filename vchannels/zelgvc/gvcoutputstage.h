// SPDX-License-Identifier: LGPL-2.1-or-later
// The output stage of a channel: a GConverterOutputStream whose converted bytes the library can
// see.
//
// GIO's own accepts a write while the stream below is full and keeps the converted bytes to itself
// until the next write, so that nobody can tell when a message has left. A stage does the same work
// in buffers of its own, and drain_stages() sends what they hold.
#pragma once

#include <gio/gio.h>

namespace gvc
{

GOutputStream *output_stage_new(GOutputStream *base_stream, GConverter *converter);

enum class Drained {
  done,    // no stage holds anything
  blocked, // *wait_for is to become writable first
  failed,  // error is set
};

// Passes on, without blocking, what `stream` and the filters below it hold where they are stages.
Drained drain_stages(GOutputStream *stream, GPollableOutputStream **wait_for, GError **error);

} // namespace gvc
