// SPDX-License-Identifier: LGPL-2.1-or-later
// The output stage of a channel: a GConverterOutputStream whose converted bytes the engine can see.
//
// GIO's own accepts a write while the stream below is full and keeps the converted bytes until the
// next write, so that nobody can tell when a message has left. A stage does the same work in
// buffers of its own, and drain_stages() sends what they hold. It gathers: each vector becomes a
// block or record of its own, and all of them go down in one call.
#pragma once

#include <gio/gio.h>

namespace gvc
{

GOutputStream *output_stage_new(GOutputStream *base_stream, GConverter *converter);

// The base stream of a stage, else NULL.
GOutputStream *stage_base(GOutputStream *stream);

// Passes on, without blocking, what `stream` and the stages below it hold. TRUE when they hold
// nothing; G_IO_ERROR_WOULD_BLOCK when the stream at the bottom has to become writable first.
gboolean drain_stages(GOutputStream *stream, GError **error);

// Writes without blocking. If not `until_sent`, the stage accepts what it may then hold. Else it
// answers G_IO_ERROR_WOULD_BLOCK until all has left, and expects the same bytes again.
gssize write_to_stage(GOutputStream *stage, const GOutputVector *vectors, gsize n_vectors,
                      gboolean until_sent, GError **error);

} // namespace gvc
