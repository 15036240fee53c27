// SPDX-License-Identifier: LGPL-2.1-or-later
// Failures: a subcommand throws a Failure, and main() prints its one line and exits with its code.
// Never throw through a callback of GLib.
#pragma once

#include <gio/gio.h>

#include <string>

// The exit codes; the manual page lists them.
enum class Exit {
  ok = 0,
  partly = 1,       // something was refused or damaged, everything else was done
  usage = 2,        // the command line
  address = 3,      // cannot connect or listen
  peer = 4,         // the peer went away in the middle, or was silent
  protocol = 5,     // the peer speaks something else, or with another key or other stages
  local = 6,        // a file, a directory or standard output
  interrupted = 130 // SIGINT; 143 for SIGTERM
};

struct Failure {
  Exit code;
  std::string message; // empty: nothing to say
};

[[noreturn]] void fail(Exit code, const char *format, ...) G_GNUC_PRINTF(2, 3);

// Prints "zelgvc: " and the message as one line on standard error.
void complain(const char *format, ...) G_GNUC_PRINTF(1, 2);
void complain(const Failure &failure);

// Whether the system would let a full buffer of this size double. GLib ends the program if it does
// not, so ask before GLib doubles a buffer whose size a peer decides. Small buffers always may.
bool may_double(gsize size, GError **error);
// Throws if the system would refuse GLib this much memory.
void check_memory(gsize size);
// Whether the error is that of may_double(), or says that a message does not fit into memory.
bool is_out_of_memory(const GError *error);

// Prints a line for people on standard error.
void inform(const char *format, ...) G_GNUC_PRINTF(1, 2);

// Whether the character neither controls a terminal nor ends a line.
bool is_harmless(gunichar c);
// Text that is safe for terminals and logs: anything but printable UTF-8 becomes \xNN.
std::string printable(const void *bytes, gsize size);
std::string printable(const std::string &text);
