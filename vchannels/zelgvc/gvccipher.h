// SPDX-License-Identifier: LGPL-2.1-or-later
// Shared by the encryptor and the decryptor: the key, the AES context made from it, the chain, and
// the object's properties.
#pragma once

#include "gvcwire.h"

#include <gio/gio.h>
#include <platform/ipp/ipp.h>

namespace gvc
{

// The instance of both types begins with this.
struct Cipher {
  GObject parent;
  GBytes *key;
  guint key_length; // in bits; 0 until the property is applied
  IppsRijndael128Spec *ipp_ctx;
  guint8 iv[wire::record::aes_block]; // the next block is chained to it
};

// Fills what both classes have in common. The finalize() of a class calls clear_cipher().
void init_cipher_class(GObjectClass *klass);

// Replaces the context by one for the present key and length. Without a key of 32 bytes the context
// stays uninitialised, and every cipher call on it fails.
void rebuild_cipher(Cipher *cipher);

// Stores a new length, resets the converter, and notifies.
void change_key_length(Cipher *cipher, guint new_length);

// Drops the key, wipes the chain, wipes and frees the context.
void clear_cipher(Cipher *cipher);

} // namespace gvc
