// SPDX-License-Identifier: LGPL-2.1-or-later
// --compress, --encrypt KEYFILE and --key-length BITS, in the order of the command line.
#pragma once

#include "owners.h"
#include "tap.h"

#include <zelgvc/zelgvc.h>

#include <deque>
#include <string>
#include <vector>

struct Stage {
  enum Kind { compress, encrypt } kind;
  Bytes key; // of an encrypting stage
};

struct Stages {
  std::vector<Stage> list; // in the order in which they work on what is sent
  int key_length = 256;

  // The options that fill this in. It must live until they are parsed.
  GOptionGroup *option_group();

  std::string text() const;
};

// The counts of the stages' taps, in the order of the list.
struct StageCounts {
  std::deque<TapState> outgoing, incoming;

  // The longest message to expect of the peer.
  void set_limit(guint64 limit);
};

void add_stages(GvcConnection *connection, const Stages &stages, StageCounts *counts);

GConverter *new_decoder(const Stage &stage, int key_length);

Bytes read_key(const char *path, GError **error);
