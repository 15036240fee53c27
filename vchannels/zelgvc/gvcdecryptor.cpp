// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcdecryptor.h"
#include "gvcchecks.h"
#include "gvccipher.h"
#include "gvcconverter.h"
#include "gvcwire.h"

#include <climits>
#include <cstring>

/**
 * GvcDecryptor:
 *
 * A #GConverter that decrypts what a #GvcEncryptor with the same key and key length has encrypted.
 * The format is described there.
 *
 * The padding of a record is trusted: a wrong key or a damaged record is in general not noticed
 * here and yields wrong bytes. Only a last byte that asks for more padding than the record has
 * bytes is refused.
 *
 * A decryptor is used from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcDecryptor {
  GObject parent;
  gvc::Cipher cipher;
  guint8 iv[gvc::aes_block]; // the next block is chained to it
};

static void gvc_decryptor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcDecryptor, gvc_decryptor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_decryptor_converter_init))

static void
gvc_decryptor_set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec)
{
  auto *self = GVC_DECRYPTOR(object);

  switch (prop_id) {
  case gvc::PROP_KEY:
    self->cipher.key = static_cast<GBytes *>(g_value_dup_boxed(value));
    break;
  case gvc::PROP_KEY_LENGTH:
    gvc_decryptor_set_key_length(self, g_value_get_uint(value));
    break;
  default:
    gvc::warn_invalid_property(GVC_LOCATION("gvcdecryptor"), object, prop_id, pspec);
    break;
  }
}

static void
gvc_decryptor_get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec)
{
  auto *self = GVC_DECRYPTOR(object);

  switch (prop_id) {
  case gvc::PROP_KEY:
    g_value_set_boxed(value, self->cipher.key);
    break;
  case gvc::PROP_KEY_LENGTH:
    g_value_set_uint(value, self->cipher.key_length);
    break;
  default:
    gvc::warn_invalid_property(GVC_LOCATION("gvcdecryptor"), object, prop_id, pspec);
    break;
  }
}

static void
gvc_decryptor_finalize(GObject *object)
{
  auto *self = GVC_DECRYPTOR(object);

  self->cipher.clear();
  explicit_bzero(self->iv, sizeof self->iv);

  G_OBJECT_CLASS(gvc_decryptor_parent_class)->finalize(object);
}

static void
gvc_decryptor_constructed(GObject *object)
{
  GVC_DECRYPTOR(object)->cipher.rebuild();

  G_OBJECT_CLASS(gvc_decryptor_parent_class)->constructed(object);
}

static void
gvc_decryptor_class_init(GvcDecryptorClass *klass)
{
  auto *object_class = G_OBJECT_CLASS(klass);

  object_class->set_property = gvc_decryptor_set_property;
  object_class->get_property = gvc_decryptor_get_property;
  object_class->finalize = gvc_decryptor_finalize;
  object_class->constructed = gvc_decryptor_constructed;

  /**
   * GvcDecryptor:key:
   *
   * The key, 32 bytes.
   *
   * Since: 0.1
   */
  /**
   * GvcDecryptor:key-length:
   *
   * The length of the AES key in bits: 256 for the whole key, 128 for its first half.
   *
   * Since: 0.1
   */
  gvc::install_cipher_properties(object_class);
}

static void
gvc_decryptor_init(GvcDecryptor *)
{
}

/**
 * gvc_decryptor_new:
 * @key: the key, 32 bytes
 *
 * Creates a decryptor with a key length of 256 bits. It takes its own reference to @key.
 *
 * Returns: (transfer full): a new decryptor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcDecryptor *
gvc_decryptor_new(GBytes *key)
{
  GVC_CHECK_VAL(key != NULL, nullptr);
  GVC_CHECK_VAL(g_bytes_get_size(key) == (256 / 8), nullptr);

  return static_cast<GvcDecryptor *>(g_object_new(GVC_TYPE_DECRYPTOR, "key", key, nullptr));
}

/**
 * gvc_decryptor_set_key_length:
 * @decryptor: a decryptor
 * @key_length: 128 or 256, in bits
 *
 * Changes the key length, from the next record on. The chain of blocks runs on until the peer,
 * which has to change its length at the same place, sends a new IV record.
 *
 * Since: 0.1
 */
void
gvc_decryptor_set_key_length(GvcDecryptor *decryptor, guint key_length)
{
  GVC_CHECK(GVC_IS_DECRYPTOR(decryptor));
  GVC_CHECK(key_length == 128 || key_length == 256);

  decryptor->cipher.change_key_length(decryptor, key_length);
}

// Decrypts the record body of `length` bytes, a positive multiple of the block size, and carries
// the chain on. *plain is the length without the padding. FALSE leaves the chain as it was.
static gboolean
decrypt_record(GvcDecryptor *self, const guint8 *from, gsize length, guint8 *to, gsize *plain)
{
  if (length > INT_MAX)
    return FALSE;
  if (ippsRijndael128DecryptCBC(from, to, static_cast<int>(length), self->cipher.ipp_ctx, self->iv,
                                IppsCPPaddingNONE) != ippStsNoErr)
    return FALSE;

  gsize padding = to[length - 1];
  if (padding > length)
    return FALSE;

  std::memcpy(self->iv, from + length - gvc::aes_block, gvc::aes_block);
  *plain = length - padding;
  return TRUE;
}

static GConverterResult
gvc_decryptor_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                      gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                      gsize *bytes_written, GError **error)
{
  auto *self = reinterpret_cast<GvcDecryptor *>(converter);
  auto *in = static_cast<const guint8 *>(inbuf);

  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (inbuf_size < gvc::record_header)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial header");

  guint64 length = gvc::load_u64(in);
  auto *body = in + gvc::record_header;
  if (length == 0) {
    if (inbuf_size < gvc::iv_record)
      return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial IV");
    std::memcpy(self->iv, body, sizeof self->iv);
    return gvc::converted(flags, gvc::iv_record, 0, bytes_read, bytes_written);
  }

  if (length % gvc::aes_block != 0)
    return gvc::failed(error, G_IO_ERROR_FAILED, "Not multiple of AES block");
  if (length > INT_MAX && inbuf_size >= gvc::hopeless_from)
    return gvc::failed(error, G_IO_ERROR_FAILED, "Decryption failed");
  if (inbuf_size - gvc::record_header < length)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  if (outbuf_size < length)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  gsize plain;
  if (!decrypt_record(self, body, length, static_cast<guint8 *>(outbuf), &plain))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Decryption failed");
  return gvc::converted(flags, gvc::record_header + length, plain, bytes_read, bytes_written);
}

static void
gvc_decryptor_reset(GConverter *converter)
{
  GVC_DECRYPTOR(converter)->cipher.rebuild();
}

static void
gvc_decryptor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_decryptor_convert;
  iface->reset = gvc_decryptor_reset;
}
