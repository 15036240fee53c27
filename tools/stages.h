// SPDX-License-Identifier: LGPL-2.1-or-later
// --compress, --encrypt KEYFILE and --key-length BITS, in the order of the command line.
#pragma once

#include "tap.h"

#include <zelgvc/zelgvc.h>

#include <deque>
#include <string>
#include <vector>

struct Stage {
  enum Kind { compress, encrypt } kind;
  GBytes *key = nullptr; // of an encrypting stage; NULL where it is not known
};

struct Stages {
  std::vector<Stage> list; // the first one is the first to work on what is sent
  int key_length = 256;

  Stages() = default;
  Stages(const Stages &) = delete;
  ~Stages();

  // The options that fill this in; it has to live until they are parsed.
  GOptionGroup *option_group();

  std::string text() const;
};

// What the taps of the stages count, in the order of the list.
struct StageCounts {
  std::deque<TapState> outgoing, incoming;

  // No message of the peer is longer than this.
  void set_limit(guint64 limit);
};

void add_stages(GvcConnection *connection, const Stages &stages, StageCounts *counts);

GConverter *new_decoder(const Stage &stage, int key_length);

GBytes *read_key(const char *path, GError **error);
