// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccipher.h"
#include "gvcdecryptor.h"
#include "gvcencryptor.h"
#include "gvcfixedtexts.h"

using gvc::Cipher;

static constexpr gsize key_bytes = 256 / 8;

enum {
  PROP_0,
  PROP_KEY,
  PROP_KEY_LENGTH,
};

static Cipher *
cipher_of(gpointer converter)
{
  return static_cast<Cipher *>(converter);
}

static void
free_context(IppsRijndael128Spec *ctx)
{
  if (ctx)
    ippsRijndael128Release(ctx);
  g_free(ctx);
}

static void
warn_invalid_property(GObject *object, guint prop_id, GParamSpec *pspec)
{
  g_autofree char *stem = g_ascii_strdown(G_OBJECT_TYPE_NAME(object), -1);
  g_autofree char *file = g_strconcat("vchannels/zelgvc/", stem, nullptr);
  gvc::warn_invalid_property(file, __LINE__, object, prop_id, pspec);
}

static void
set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec)
{
  if (prop_id == PROP_KEY)
    cipher_of(object)->key = static_cast<GBytes *>(g_value_dup_boxed(value));
  else if (prop_id != PROP_KEY_LENGTH)
    warn_invalid_property(object, prop_id, pspec);
  else if (GVC_IS_ENCRYPTOR(object))
    gvc_encryptor_set_key_length(GVC_ENCRYPTOR(object), g_value_get_uint(value));
  else
    gvc_decryptor_set_key_length(GVC_DECRYPTOR(object), g_value_get_uint(value));
}

static void
get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec)
{
  if (prop_id == PROP_KEY)
    g_value_set_boxed(value, cipher_of(object)->key);
  else if (prop_id == PROP_KEY_LENGTH)
    g_value_set_uint(value, cipher_of(object)->key_length);
  else
    warn_invalid_property(object, prop_id, pspec);
}

static void
constructed(GObject *object)
{
  gvc::rebuild_cipher(cipher_of(object));

  static_cast<GObjectClass *>(g_type_class_peek(G_TYPE_OBJECT))->constructed(object);
}

void
gvc::init_cipher_class(GObjectClass *klass)
{
  constexpr auto flags = G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS;

  klass->set_property = set_property;
  klass->get_property = get_property;
  klass->constructed = constructed;
  g_object_class_install_property(
      klass, PROP_KEY,
      g_param_spec_boxed("key", "key", "key", G_TYPE_BYTES,
                         static_cast<GParamFlags>(flags | G_PARAM_CONSTRUCT_ONLY)));
  g_object_class_install_property(
      klass, PROP_KEY_LENGTH,
      g_param_spec_uint("key-length", "key length", "key length", 128, 256, 256,
                        static_cast<GParamFlags>(flags | G_PARAM_CONSTRUCT)));
}

void
gvc::rebuild_cipher(Cipher *cipher)
{
  free_context(cipher->ipp_ctx);

  int size = 0;
  ippsRijndael128GetSize(&size);
  cipher->ipp_ctx = static_cast<IppsRijndael128Spec *>(g_malloc0(static_cast<gsize>(size)));

  // With a length of 128 the first half of the key is used.
  auto *key = cipher->key;
  gboolean usable = key && g_bytes_get_size(key) == key_bytes;
  auto *bytes = usable ? static_cast<const Ipp8u *>(g_bytes_get_data(key, nullptr)) : nullptr;
  ippsRijndael128Init(bytes, cipher->key_length == 128 ? IppsRijndaelKey128 : IppsRijndaelKey256,
                      cipher->ipp_ctx);
}

void
gvc::change_key_length(Cipher *cipher, guint new_length)
{
  if (new_length == cipher->key_length)
    return;

  cipher->key_length = new_length;
  g_converter_reset(G_CONVERTER(cipher));
  g_object_notify(G_OBJECT(cipher), "key-length");
}

void
gvc::clear_cipher(Cipher *cipher)
{
  g_clear_pointer(&cipher->key, g_bytes_unref);
  free_context(cipher->ipp_ctx);
  explicit_bzero(cipher->iv, sizeof cipher->iv);
}
