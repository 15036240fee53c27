// SPDX-License-Identifier: LGPL-2.1-or-later
// Code for ping, perf and serve. docs/program-protocols.md describes their messages.
#pragma once

#include "channel.h"

#include <string>
#include <vector>

inline constexpr const char *ping_service = "ping";
inline constexpr const char *perf_service = "perf";

struct Measured {
  guint64 messages = 0;
  guint64 bytes = 0;
  guint64 wire = 0;
  double seconds = 0;
  double cpu = 0;
};

// Fills the messages of perf with "text", "random" or "zero". False for any other kind.
bool make_data(const std::string &kind, std::vector<char> &data);

// Sends messages for `seconds`, then an empty one. Shows the rate under `label` on a terminal,
// unless the label is empty.
Measured send_messages(Channel &channel, const std::vector<char> &data, double seconds,
                       const std::string &label);
// Receives messages of up to `size` bytes until an empty one.
Measured receive_messages(Channel &channel, guint64 size, const std::string &label);

// Greets a serve, which may not take messages of this size.
void greet_serve(Channel &channel, const char *service, guint64 largest);

double cpu_seconds();
