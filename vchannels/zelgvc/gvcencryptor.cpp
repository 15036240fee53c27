// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcencryptor.h"
#include "gvccipher.h"
#include "gvcconverter.h"
#include "gvcfixedtexts.h"
#include "gvcrand.h"

#include <climits>
#include <cstring>

namespace record = gvc::wire::record;

/**
 * GvcEncryptor:
 *
 * A #GConverter that encrypts a byte stream with AES in CBC mode. #GvcDecryptor reverses it.
 *
 * Its output is a sequence of records. The first is an IV record: 8 zero bytes and 16 random ones.
 * Each data record carries the input of one conversion: the length of the cipher text in 8 bytes,
 * little-endian, and the cipher text, padded to whole blocks of 16 bytes. The chain of blocks
 * continues across records. After a reset, the next record is a new IV record.
 *
 * The stream is not authenticated, and the initial IV derives from the time of day. If that
 * matters, run the channel over TLS.
 *
 * Errors are in the domain %G_IO_ERROR: %G_IO_ERROR_NO_SPACE if the output has too little room, and
 * %G_IO_ERROR_FAILED if the cipher fails.
 *
 * Use an encryptor from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcEncryptor {
  gvc::Cipher cipher;
  GvcRand *rand;
  gboolean send_initial_iv; // the IV record is still to be emitted
};

static void gvc_encryptor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcEncryptor, gvc_encryptor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_encryptor_converter_init))

static void
draw_initial_iv(GvcEncryptor *self)
{
  if (self->rand)
    gvc_rand_array(self->rand, self->cipher.iv, sizeof self->cipher.iv);
  self->send_initial_iv = TRUE;
}

static void
gvc_encryptor_finalize(GObject *object)
{
  auto *self = GVC_ENCRYPTOR(object);

  gvc::clear_cipher(&self->cipher);
  // g_clear_pointer() may call it as a function of another type, which the sanitizers reject.
  if (self->rand)
    gvc_rand_free(self->rand);

  G_OBJECT_CLASS(gvc_encryptor_parent_class)->finalize(object);
}

static void
gvc_encryptor_class_init(GvcEncryptorClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = gvc_encryptor_finalize;

  /**
   * GvcEncryptor:key:
   *
   * The key, 32 bytes.
   *
   * Since: 0.1
   */
  /**
   * GvcEncryptor:key-length:
   *
   * The length of the AES key in bits: 256 for the whole key, 128 for its first half.
   *
   * Since: 0.1
   */
  gvc::init_cipher_class(G_OBJECT_CLASS(klass));
}

static void
gvc_encryptor_init(GvcEncryptor *self)
{
  self->rand = gvc_rand_new();
  draw_initial_iv(self);
}

/**
 * gvc_encryptor_new:
 * @key: the key, 32 bytes
 *
 * Creates an encryptor with a key length of 256 bits, which references @key.
 *
 * Returns: (transfer full): a new encryptor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcEncryptor *
gvc_encryptor_new(GBytes *key)
{
  g_return_val_if_fail(key != NULL, nullptr);
  g_return_val_if_fail(g_bytes_get_size(key) == (256 / 8), nullptr);

  return GVC_ENCRYPTOR(g_object_new(GVC_TYPE_ENCRYPTOR, "key", key, nullptr));
}

/**
 * gvc_encryptor_set_key_length:
 * @encryptor: an encryptor
 * @key_length: 128 or 256, in bits
 *
 * Sets the key length. A new value resets the encryptor: its next output is a new IV record.
 *
 * Since: 0.1
 */
void
gvc_encryptor_set_key_length(GvcEncryptor *encryptor, guint key_length)
{
  g_return_if_fail(GVC_IS_ENCRYPTOR(encryptor));
  g_return_if_fail(key_length == 128 || key_length == 256);

  gvc::change_key_length(&encryptor->cipher, key_length);
}

// Encrypts `size` bytes, whole blocks, and continues the chain. A failure leaves the chain as it
// was.
static gboolean
encrypt_blocks(GvcEncryptor *self, const guint8 *from, guint8 *to, gsize size)
{
  if (size > INT_MAX)
    return FALSE;
  if (ippsRijndael128EncryptCBC(from, to, static_cast<int>(size), self->cipher.ipp_ctx,
                                self->cipher.iv, IppsCPPaddingNONE) != ippStsNoErr)
    return FALSE;

  std::memcpy(self->cipher.iv, to + size - record::aes_block, record::aes_block);
  return TRUE;
}

// Encrypts the last `rest` bytes of a record, padded to a whole block.
static gboolean
encrypt_final_block(GvcEncryptor *self, const guint8 *from, gsize rest, guint8 *to)
{
  guint8 block[record::aes_block];
  auto padding = record::aes_block - rest;

  // The sizes are constants for the compiler. Without a rest the block holds no secret.
  std::memset(block, static_cast<int>(padding), sizeof block);
  if (rest > 0)
    std::memcpy(block, from, rest);
  gboolean done = encrypt_blocks(self, block, to, sizeof block);
  if (rest > 0)
    explicit_bzero(block, rest);
  return done;
}

static GConverterResult
gvc_encryptor_convert(GConverter *converter, const void *inbuf, gsize inbuf_size, void *outbuf,
                      gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                      gsize *bytes_written, GError **error)
{
  auto *self = GVC_ENCRYPTOR(converter);
  auto *in = static_cast<const guint8 *>(inbuf);
  auto *out = static_cast<guint8 *>(outbuf);

  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (self->send_initial_iv) {
    if (!self->rand)
      return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
    if (outbuf_size < record::iv_record_size)
      return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space for initial IV");
    record::store_length(out, 0);
    std::memcpy(out + record::header_size, self->cipher.iv, sizeof self->cipher.iv);
    self->send_initial_iv = FALSE;
    return gvc::converted(flags, 0, record::iv_record_size, bytes_read, bytes_written);
  }

  if (inbuf_size == 0)
    return gvc::converted(flags, 0, 0, bytes_read, bytes_written);

  gsize rest = inbuf_size % record::aes_block;
  gsize whole = inbuf_size - rest;
  gsize length = whole + record::aes_block;
  if (outbuf_size < record::header_size || length > outbuf_size - record::header_size)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  auto *body = out + record::header_size;
  record::store_length(out, length);
  if (whole > 0 && !encrypt_blocks(self, in, body, whole))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
  if (!encrypt_final_block(self, in + whole, rest, body + whole))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
  return gvc::converted(flags, inbuf_size, record::header_size + length, bytes_read, bytes_written);
}

static void
gvc_encryptor_reset(GConverter *converter)
{
  auto *self = GVC_ENCRYPTOR(converter);

  draw_initial_iv(self);
  gvc::rebuild_cipher(&self->cipher);
}

static void
gvc_encryptor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_encryptor_convert;
  iface->reset = gvc_encryptor_reset;
}
