// SPDX-License-Identifier: LGPL-2.1-or-later
// SHA-256 in steps. libgcrypt uses the instructions of the processor; with GLib's checksum, most of
// the time of a transfer went into it.
#pragma once

#include <gcrypt.h>
#include <glib.h>

#include <string>

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
