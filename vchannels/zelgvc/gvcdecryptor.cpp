// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcdecryptor.h"
#include "gvccipher.h"
#include "gvcconverter.h"
#include "gvcfixedtexts.h"

#include <climits>
#include <cstring>

namespace record = gvc::wire::record;

/**
 * GvcDecryptor:
 *
 * A #GConverter that decrypts the output of a #GvcEncryptor with the same key and key length.
 * #GvcEncryptor describes the format. Each conversion decrypts one record.
 *
 * A decryptor trusts the padding of a record: a wrong key or a damaged record usually yields wrong
 * bytes and no error. It refuses only padding that is longer than the record.
 *
 * Errors are in the domain %G_IO_ERROR: %G_IO_ERROR_PARTIAL_INPUT if the record is not complete,
 * %G_IO_ERROR_NO_SPACE if the output has too little room, and %G_IO_ERROR_FAILED if the length or
 * the padding is invalid or the cipher fails.
 *
 * Use a decryptor from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcDecryptor {
  gvc::Cipher cipher;
};

static void gvc_decryptor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcDecryptor, gvc_decryptor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_decryptor_converter_init))

static void
gvc_decryptor_finalize(GObject *object)
{
  auto *self = GVC_DECRYPTOR(object);

  gvc::clear_cipher(&self->cipher);

  G_OBJECT_CLASS(gvc_decryptor_parent_class)->finalize(object);
}

static void
gvc_decryptor_class_init(GvcDecryptorClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = gvc_decryptor_finalize;

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
  gvc::init_cipher_class(G_OBJECT_CLASS(klass));
}

static void
gvc_decryptor_init(GvcDecryptor *)
{
}

/**
 * gvc_decryptor_new:
 * @key: the key, 32 bytes
 *
 * Creates a decryptor with a key length of 256 bits, which references @key.
 *
 * Returns: (transfer full): a new decryptor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcDecryptor *
gvc_decryptor_new(GBytes *key)
{
  g_return_val_if_fail(key != NULL, nullptr);
  g_return_val_if_fail(g_bytes_get_size(key) == (256 / 8), nullptr);

  return GVC_DECRYPTOR(g_object_new(GVC_TYPE_DECRYPTOR, "key", key, nullptr));
}

/**
 * gvc_decryptor_set_key_length:
 * @decryptor: a decryptor
 * @key_length: 128 or 256, in bits
 *
 * Sets the key length for the records that follow. The peer must change its key length at the same
 * place. The chain of blocks continues until the peer sends a new IV record.
 *
 * Since: 0.1
 */
void
gvc_decryptor_set_key_length(GvcDecryptor *decryptor, guint key_length)
{
  g_return_if_fail(GVC_IS_DECRYPTOR(decryptor));
  g_return_if_fail(key_length == 128 || key_length == 256);

  gvc::change_key_length(&decryptor->cipher, key_length);
}

// Decrypts the body of a record, `length` bytes in whole blocks, and continues the chain. *plain is
// the length without the padding. A failure leaves the chain as it was.
static gboolean
decrypt_record(GvcDecryptor *self, const guint8 *from, gsize length, guint8 *to, gsize *plain)
{
  if (length > INT_MAX)
    return FALSE;
  if (ippsRijndael128DecryptCBC(from, to, static_cast<int>(length), self->cipher.ipp_ctx,
                                self->cipher.iv, IppsCPPaddingNONE) != ippStsNoErr)
    return FALSE;

  gsize padding = to[length - 1];
  if (padding > length)
    return FALSE;

  std::memcpy(self->cipher.iv, from + length - record::aes_block, record::aes_block);
  *plain = length - padding;
  return TRUE;
}

static GConverterResult
gvc_decryptor_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                      gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                      gsize *bytes_written, GError **error)
{
  auto *self = GVC_DECRYPTOR(converter);
  auto *in = static_cast<const guint8 *>(inbuf);

  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (inbuf_size < record::header_size)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial header");

  guint64 length = record::load_length(in);
  auto *body = in + record::header_size;
  if (length == 0) {
    if (inbuf_size < record::iv_record_size)
      return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial IV");
    std::memcpy(self->cipher.iv, body, sizeof self->cipher.iv);
    return gvc::converted(flags, record::iv_record_size, 0, bytes_read, bytes_written);
  }

  if (length % record::aes_block != 0)
    return gvc::failed(error, G_IO_ERROR_FAILED, "Not multiple of AES block");
  if (length > INT_MAX && inbuf_size >= gvc::hopeless_from)
    return gvc::failed(error, G_IO_ERROR_FAILED, "Decryption failed");
  if (inbuf_size - record::header_size < length)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  if (outbuf_size < length)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  gsize plain;
  if (!decrypt_record(self, body, length, static_cast<guint8 *>(outbuf), &plain))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Decryption failed");
  return gvc::converted(flags, record::header_size + length, plain, bytes_read, bytes_written);
}

static void
gvc_decryptor_reset(GConverter *converter)
{
  gvc::rebuild_cipher(&GVC_DECRYPTOR(converter)->cipher);
}

static void
gvc_decryptor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_decryptor_convert;
  iface->reset = gvc_decryptor_reset;
}
