// SPDX-License-Identifier: LGPL-2.1-or-later
// The conversation of listen and connect: lines of standard input become messages, and messages
// become lines of standard output, in both directions at once.
#pragma once

#include "command.h"
#include "messages.h"
#include "stages.h"

struct TalkOptions {
  MessageFormat format;
  gboolean json = FALSE;
  gboolean keep = FALSE;
  bool tell_end = false; // half-close at the end of the input even if there was no line
  OptionText exec;
  guint limit = 64 * 1024 * 1024;

  // The options that listen and connect share.
  void add_to(CommandLine &line);
  void check();

  // The most bytes in a line of standard input.
  gsize line_limit() const;

private:
  gboolean frames = FALSE, hex = FALSE;
  OptionText variant, strings;
  int limit_option = 64 * 1024 * 1024;
};

// Talks to one peer until both sides have ended, and takes over the reference to the connection.
// Returns Exit::partly if some message could not be understood. Throws if the channel fails.
Exit talk(const TalkOptions &options, const Stages &stages, GSocketConnection *connection);
