// SPDX-License-Identifier: LGPL-2.1-or-later
// What the encryptor and the decryptor share: the stream format, the key with the AES context made
// from it, and the two properties.
#pragma once

#include <gio/gio.h>
#include <platform/ipp/ipp.h>

namespace gvc
{

inline constexpr gsize aes_block = 16;

// A record is its length in 8 bytes and that many bytes of cipher text. A length of 0 marks an IV
// record, whose IV follows.
inline constexpr gsize record_header = 8;
inline constexpr gsize iv_record = record_header + aes_block;

struct Cipher {
  GBytes *key;
  guint key_length; // in bits; 0 until the property is applied
  IppsRijndael128Spec *ipp_ctx;

  // FALSE for an id that is not handled here; a new key length has to be checked first, so setting
  // it is not.
  gboolean set_property(guint prop_id, const GValue *value);
  gboolean get_property(guint prop_id, GValue *value) const;
  // Replaces the context by one for the present key and length. Where there is no key of 32 bytes
  // the context stays uninitialised, and every cipher call on it fails.
  void rebuild();
  // Stores a new length, resets the converter that this cipher belongs to, and notifies.
  void change_key_length(gpointer converter, guint new_length);
  // Drops the key, wipes and frees the context.
  void clear();
};

enum {
  PROP_0,
  PROP_KEY,
  PROP_KEY_LENGTH,
};

void install_cipher_properties(GObjectClass *klass);

} // namespace gvc
