// SPDX-License-Identifier: LGPL-2.1-or-later
// An open connection with its stages and message streams. The destructor closes the connection.
#pragma once

#include "deadline.h"
#include "meter.h"
#include "owners.h"
#include "stages.h"

#include <string>

struct Link {
  // Takes over the reference to the connection.
  Link(GSocketConnection *connection, const Stages &stages);
  ~Link();
  Link(const Link &) = delete;

  GSocket *socket() const;
  // The upper end of the stages.
  GOutputStream *output() const;
  // Starts the deadline of a message of up to `limit` bytes, unless `timeout` is 0.
  void begin_message(guint timeout, guint32 limit);
  // Throws that the peer was silent or too slow.
  [[noreturn]] void fail_late();

  const Owned<GSocketConnection> connection;
  const std::string peer; // its name in messages
  const Owned<GvcConnection> channel;
  Deadline deadline; // for the next message
  StageCounts counts;
  Owned<ToolMeter> meter;
  Owned<GvcBytesInputStream> frames_in;
  Owned<GvcBytesOutputStream> frames_out;
};

// The name of a peer in messages.
std::string name_of_peer(GSocketConnection *connection);

// Whether the error means that the peer has closed the connection.
bool is_gone(const GError *error);

// Converts a variant between the byte order of this host and the wire's, little-endian. Takes over
// the reference, which may be floating.
Variant wire_order(GVariant *value);
