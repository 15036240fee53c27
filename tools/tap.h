// SPDX-License-Identifier: LGPL-2.1-or-later
// A converter that does what another one does, counts the bytes, and makes the end of a channel
// with stages look like that of one without: where the peer closes between two records or blocks
// the stage reports a partial header, and this one the end of the stream.
#pragma once

#include <gio/gio.h>

struct TapCounts {
  guint64 in = 0;  // what went into the converter
  guint64 out = 0; // what came out
};

// The counts must outlive the tap.
GConverter *tap_new(GConverter *inner, TapCounts *counts, bool incoming);
