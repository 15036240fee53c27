// SPDX-License-Identifier: LGPL-2.1-or-later
// A converter around a stage that counts bytes and helps the reader:
//
// It reports the end between two records or blocks as the end of the channel, where the stage would
// report a partial header.
//
// It refuses an impossible header at once, where the stage would wait for a whole record or block.
// So a wrong key, or a peer with other stages, shows at once and not at a timeout.
#pragma once

#include "deadline.h"

struct TapState {
  guint64 in = 0;               // what went into the converter
  guint64 out = 0;              // what came out
  guint64 limit = G_MAXUINT64;  // the longest message to expect
  Deadline *deadline = nullptr; // for what goes into the converter
};

enum class TapKind { outgoing, records, blocks };

// The state must outlive the tap.
GConverter *tap_new(GConverter *inner, TapState *state, TapKind kind);
