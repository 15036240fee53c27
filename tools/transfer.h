// SPDX-License-Identifier: LGPL-2.1-or-later
// The protocol of send and receive. All messages but the data are dictionaries.
//
// After the hello the sender announces each file with "name", "size", "mode", and the seconds and
// nanoseconds of its modification, "mtime" and "mtime-nsec". The
// receiver answers "refused", and the sender goes on with the next file; or it answers "have", the
// number of bytes it has of an earlier attempt, with their "sha256". The sender answers with the
// "offset" that it starts at. The data follows in messages of up to chunk_size bytes; an empty
// message among them says that a dictionary with "failed" follows instead of the rest. After the
// last byte comes the "sha256" of the whole file, and the receiver answers "stored" or "failed".
// At any time the receiver may say "failed", and whoever takes long says "busy". After the last
// file both say "end".
#pragma once

#include "channel.h"
#include "checksum.h"

#include <string>

inline constexpr const char *files_service = "files";
inline constexpr gsize chunk_size = 256 * 1024;
inline constexpr guint32 chunk_limit = 1024 * 1024;

// The next message that is not "busy".
Control next_answer(Channel &channel);

// Feeds the first `size` bytes of the file to the checksum, telling the peer to be patient. False
// where the file has less.
bool hash_beginning(int fd, guint64 size, Sha256 &sha, Channel &channel);

struct Transferred {
  std::string name; // as it may be printed
  guint64 size = 0;
  guint64 resumed_at = 0;
  guint64 wire = 0;
  double seconds = 0;
  std::string sha256;
};

// One line on standard output about a file that has arrived. A line that cannot be written is no
// reason to leave other files behind: that is said on standard error, and Exit::local returned.
Exit report(const Transferred &file, const char *verb, bool json);
