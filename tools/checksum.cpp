// SPDX-License-Identifier: LGPL-2.1-or-later
#include "checksum.h"
#include "errors.h"

Sha256::Sha256()
{
  if (gcry_md_open(&handle, GCRY_MD_SHA256, 0) != 0)
    fail(Exit::local, "libgcrypt offers no SHA-256");
}

std::string
Sha256::digest() const
{
  gcry_md_hd_t copy;
  if (gcry_md_copy(&copy, handle) != 0)
    fail(Exit::local, "libgcrypt cannot finish a SHA-256");
  std::string digest(reinterpret_cast<const char *>(gcry_md_read(copy, GCRY_MD_SHA256)), 32);
  gcry_md_close(copy);
  return digest;
}
