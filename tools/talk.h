// SPDX-License-Identifier: LGPL-2.1-or-later
// What listen and connect do once there is a peer: lines of standard input become messages and
// messages become lines of standard output, both at once in one main loop.
#pragma once

#include "command.h"
#include "messages.h"
#include "stages.h"

struct TalkOptions {
  Stages stages;
  MessageFormat format;
  gboolean json = FALSE;
  gboolean keep = FALSE;
  bool tell_end = false; // half-close at the end of the input even where it held no line
  OptionText exec;
  guint limit = 64 * 1024 * 1024;

  // The options that listen and connect share.
  void add_to(CommandLine &line);
  void check();

  // The bytes that a line of standard input may have.
  gsize line_limit() const;

private:
  gboolean frames = FALSE, hex = FALSE;
  OptionText variant, strings;
  int limit_option = 64 * 1024 * 1024;
};

class Talk
{
public:
  explicit Talk(const TalkOptions &options);
  Talk(const Talk &) = delete;

  // Talks to one peer until both sides are done; takes over the reference to the connection.
  // Returns Exit::partly where something could not be understood but the rest went well. Throws
  // where the channel fails.
  Exit with(GSocketConnection *connection);

private:
  struct Session;
  struct Input;

  const TalkOptions &options;
  Input *input;
};
