// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccipher.h"

static constexpr gsize key_bytes = 256 / 8;

static void
free_context(IppsRijndael128Spec *ctx)
{
  if (ctx)
    ippsRijndael128Release(ctx);
  g_free(ctx);
}

gboolean
gvc::Cipher::set_property(guint prop_id, const GValue *value)
{
  if (prop_id != PROP_KEY)
    return FALSE;
  key = static_cast<GBytes *>(g_value_dup_boxed(value));
  return TRUE;
}

gboolean
gvc::Cipher::get_property(guint prop_id, GValue *value) const
{
  switch (prop_id) {
  case PROP_KEY:
    g_value_set_boxed(value, key);
    return TRUE;
  case PROP_KEY_LENGTH:
    g_value_set_uint(value, key_length);
    return TRUE;
  default:
    return FALSE;
  }
}

void
gvc::Cipher::rebuild()
{
  free_context(ipp_ctx);

  int size = 0;
  ippsRijndael128GetSize(&size);
  ipp_ctx = static_cast<IppsRijndael128Spec *>(g_malloc0(static_cast<gsize>(size)));

  // With a length of 128 the first half of the key is used.
  gboolean usable = key && g_bytes_get_size(key) == key_bytes;
  auto *bytes = usable ? static_cast<const Ipp8u *>(g_bytes_get_data(key, nullptr)) : nullptr;
  ippsRijndael128Init(bytes, key_length == 128 ? IppsRijndaelKey128 : IppsRijndaelKey256, ipp_ctx);
}

void
gvc::Cipher::change_key_length(gpointer converter, guint new_length)
{
  if (new_length == key_length)
    return;

  key_length = new_length;
  g_converter_reset(G_CONVERTER(converter));
  g_object_notify(G_OBJECT(converter), "key-length");
}

void
gvc::Cipher::clear()
{
  g_clear_pointer(&key, g_bytes_unref);
  free_context(ipp_ctx);
  ipp_ctx = nullptr;
}

void
gvc::install_cipher_properties(GObjectClass *klass)
{
  constexpr auto flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS;

  g_object_class_install_property(
      klass, PROP_KEY,
      g_param_spec_boxed("key", "key", "key", G_TYPE_BYTES,
                         static_cast<GParamFlags>(flags | G_PARAM_CONSTRUCT_ONLY)));
  g_object_class_install_property(
      klass, PROP_KEY_LENGTH,
      g_param_spec_uint("key-length", "key length", "key length", 128, 256, 256,
                        static_cast<GParamFlags>(flags | G_PARAM_CONSTRUCT)));
}
