// SPDX-License-Identifier: LGPL-2.1-or-later
// A converter that does what a stage does, counts the bytes, and helps on the way in:
//
// It makes the end of a channel with stages look like that of one without. Where the peer closes
// between two records or blocks the stage reports a partial header, and this one the end.
//
// It refuses what cannot be a record or a block before the stage waits for all of it. With a wrong
// key, or a peer that has other stages, that is where it shows, and not at some timeout.
#pragma once

#include <gio/gio.h>

struct TapState {
  guint64 in = 0;              // what went into the converter
  guint64 out = 0;             // what came out
  guint64 limit = G_MAXUINT64; // the longest message that is expected
};

enum class TapKind { outgoing, records, blocks };

// The state must outlive the tap.
GConverter *tap_new(GConverter *inner, TapState *state, TapKind kind);
