// SPDX-License-Identifier: LGPL-2.1-or-later
// Code for send and receive. docs/program-protocols.md describes their messages.
#pragma once

#include "channel.h"

#include <gcrypt.h>

#include <string>

inline constexpr const char *files_service = "files";
inline constexpr gsize chunk_size = 256 * 1024;
inline constexpr guint32 chunk_limit = 1024 * 1024;

// SHA-256 in steps. libgcrypt uses the instructions of the processor; with GLib's checksum, most of
// the time of a transfer went into it.
class Sha256
{
public:
  Sha256();
  ~Sha256()
  {
    gcry_md_close(handle);
  }
  Sha256(const Sha256 &) = delete;

  void
  update(const void *bytes, gsize size)
  {
    gcry_md_write(handle, bytes, size);
  }
  void
  reset()
  {
    gcry_md_reset(handle);
  }

  // The digest of all bytes so far. More may follow.
  std::string digest() const;

private:
  gcry_md_hd_t handle = nullptr;
};

// The next message that is not "busy". The peer may say "busy" for the timeout, and for a second
// more for each MiB of the `hashed` bytes.
Control next_answer(Channel &channel, guint64 hashed = 0);

// Feeds the first `size` bytes of the file to the checksum, and tells the peer "busy" meanwhile.
// False if the file is shorter.
bool hash_beginning(int fd, guint64 size, Sha256 &sha, Channel &channel);

struct Transferred {
  std::string name; // printable
  guint64 size = 0;
  guint64 resumed_at = 0;
  guint64 wire = 0;
  double seconds = 0;
  std::string sha256;
};

// Prints one line about a stored file. If that fails, complains and returns Exit::local, so that
// the other files are still transferred.
Exit report(const Transferred &file, const char *verb, bool json);
