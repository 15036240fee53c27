// SPDX-License-Identifier: LGPL-2.1-or-later
// One direction of a TCP stream in a capture of packets, pcap or pcapng. tshark parses the packets.
// This file puts the segments in order and reports missing ones.
#pragma once

#include "layers.h"

#include <string>

struct CaptureChoice {
  int stream;       // as Wireshark counts them, or -1
  std::string from; // "client", "server", or "" for either

  bool
  made() const
  {
    return stream >= 0 || !from.empty();
  }
};

// Whether a file, or the start of one, is a capture of packets. Never true for a pipe.
bool is_capture(int fd);
bool is_capture(const char *bytes, gsize size);

// Feeds the bytes of one direction to the layer. Throws if no stream can be chosen. Complains and
// returns false if tshark could not read all of the file.
bool read_capture(int fd, const std::string &shown, const CaptureChoice &choice, Layer &bottom);

// Waits for input and reads it. Returns 0 at the end. Throws if the user interrupts.
gsize read_input(int fd, const std::string &shown, char *buffer, gsize size);
