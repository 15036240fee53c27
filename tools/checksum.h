// SPDX-License-Identifier: LGPL-2.1-or-later
// SHA-256 as it goes along. libgcrypt, which the library needs anyway, uses the processor's
// instructions for it; GLib's own took most of the time of a transfer.
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

  // Of all that has gone in so far; more may follow.
  std::string digest() const;

private:
  gcry_md_hd_t handle = nullptr;
};
