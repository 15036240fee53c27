// SPDX-License-Identifier: LGPL-2.1-or-later
// The output stage of a channel: a GConverterOutputStream whose converted bytes the engine can see.
//
// GIO's own class accepts a write while its base stream is full and keeps the converted bytes until
// the next write, so the end of a message cannot be seen. A stage has buffers of its own, and
// drain_stages() sends their bytes. A stage gathers: each vector becomes a block or record of its
// own, and all of them go to the base stream in one call.
#pragma once

#include <gio/gio.h>

namespace gvc
{

GOutputStream *output_stage_new(GOutputStream *base_stream, GConverter *converter);

// The base stream of a stage, else NULL.
GOutputStream *stage_base(GOutputStream *stream);

// Sends, without blocking, the bytes of `stream` and the stages below it. Returns TRUE if none is
// left. Fails with G_IO_ERROR_WOULD_BLOCK if the stream at the bottom is not writable.
gboolean drain_stages(GOutputStream *stream, GError **error);

// How a write treats bytes that a stage has accepted and its base stream has not.
enum class Sending {
  blocking,   // waits until they have left
  until_sent, // fails with G_IO_ERROR_WOULD_BLOCK, and expects the same bytes again
  kept,       // succeeds; the next operation sends them
};

// Writes without blocking.
gssize write_to_stage(GOutputStream *stage, const GOutputVector *vectors, gsize n_vectors,
                      Sending sending, GError **error);

} // namespace gvc
