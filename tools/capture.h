// SPDX-License-Identifier: LGPL-2.1-or-later
// Captures of packets, pcap and pcapng: one direction of a TCP stream. tshark takes the packets
// apart; the order of the segments is found here, so that missing ones are reported as such.
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

// Whether a file, or the start of one, is a capture of packets. A pipe is not looked into.
bool is_capture(int fd);
bool is_capture(const char *bytes, gsize size);

// Feeds the bytes of one direction to the layer. Throws where no stream can be chosen. False if
// tshark could not read all of the file, which has been said then.
bool read_capture(int fd, const std::string &shown, const CaptureChoice &choice, Layer &bottom);

// Waits for input and reads it; 0 at its end. A signal throws.
gsize read_input(int fd, const std::string &shown, char *buffer, gsize size);
