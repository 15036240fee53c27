// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcencryptor.h"
#include "gvcchecks.h"
#include "gvccipher.h"
#include "gvcconverter.h"
#include "gvcrand.h"
#include "gvcwire.h"

#include <climits>
#include <cstring>

/**
 * GvcEncryptor:
 *
 * A #GConverter that encrypts a byte stream with AES in CBC mode. #GvcDecryptor reverses it.
 *
 * Its output is a sequence of records. The first is an IV record, 8 zero bytes and 16 random ones.
 * Each data record carries the input of one conversion: the length of the cipher text in 8 bytes,
 * little-endian, and the cipher text, padded to whole blocks of 16 bytes. The chain of blocks runs
 * on across records; after a reset a new IV record comes first.
 *
 * The stream is not authenticated, and the initial IV follows from the time of day. Run the channel
 * over TLS where that matters.
 *
 * An encryptor is used from one thread at a time.
 *
 * Since: 0.1
 */
struct _GvcEncryptor {
  GObject parent;
  gvc::Cipher cipher;
  GvcRand *rand;
  guint8 iv[gvc::aes_block]; // the next block is chained to it
  gboolean send_initial_iv;  // the IV record is still to be emitted
};

static void gvc_encryptor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcEncryptor, gvc_encryptor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_encryptor_converter_init))

static void
draw_initial_iv(GvcEncryptor *self)
{
  if (self->rand)
    gvc_rand_array(self->rand, self->iv, sizeof self->iv);
  self->send_initial_iv = TRUE;
}

static void
gvc_encryptor_set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec)
{
  auto *self = GVC_ENCRYPTOR(object);

  if (prop_id == gvc::PROP_KEY_LENGTH)
    gvc_encryptor_set_key_length(self, g_value_get_uint(value));
  else if (!self->cipher.set_property(prop_id, value))
    gvc::warn_invalid_property(GVC_LOCATION("gvcencryptor"), object, prop_id, pspec);
}

static void
gvc_encryptor_get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec)
{
  if (!GVC_ENCRYPTOR(object)->cipher.get_property(prop_id, value))
    gvc::warn_invalid_property(GVC_LOCATION("gvcencryptor"), object, prop_id, pspec);
}

static void
gvc_encryptor_finalize(GObject *object)
{
  auto *self = GVC_ENCRYPTOR(object);

  self->cipher.clear();
  g_clear_pointer(&self->rand, gvc_rand_free);
  explicit_bzero(self->iv, sizeof self->iv);

  G_OBJECT_CLASS(gvc_encryptor_parent_class)->finalize(object);
}

static void
gvc_encryptor_constructed(GObject *object)
{
  GVC_ENCRYPTOR(object)->cipher.rebuild();

  G_OBJECT_CLASS(gvc_encryptor_parent_class)->constructed(object);
}

static void
gvc_encryptor_class_init(GvcEncryptorClass *klass)
{
  auto *object_class = G_OBJECT_CLASS(klass);

  object_class->set_property = gvc_encryptor_set_property;
  object_class->get_property = gvc_encryptor_get_property;
  object_class->finalize = gvc_encryptor_finalize;
  object_class->constructed = gvc_encryptor_constructed;

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
  gvc::install_cipher_properties(object_class);
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
 * Creates an encryptor with a key length of 256 bits. It takes its own reference to @key.
 *
 * Returns: (transfer full): a new encryptor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcEncryptor *
gvc_encryptor_new(GBytes *key)
{
  GVC_CHECK_VAL(key != NULL, nullptr);
  GVC_CHECK_VAL(g_bytes_get_size(key) == (256 / 8), nullptr);

  return static_cast<GvcEncryptor *>(g_object_new(GVC_TYPE_ENCRYPTOR, "key", key, nullptr));
}

/**
 * gvc_encryptor_set_key_length:
 * @encryptor: an encryptor
 * @key_length: 128 or 256, in bits
 *
 * Changes the key length. A new value resets the encryptor: its next output is a new IV record.
 *
 * Since: 0.1
 */
void
gvc_encryptor_set_key_length(GvcEncryptor *encryptor, guint key_length)
{
  GVC_CHECK(GVC_IS_ENCRYPTOR(encryptor));
  GVC_CHECK(key_length == 128 || key_length == 256);

  encryptor->cipher.change_key_length(encryptor, key_length);
}

// Encrypts `size` bytes, whole blocks, and carries the chain on. FALSE leaves the chain as it was.
static gboolean
encrypt_blocks(GvcEncryptor *self, const guint8 *from, guint8 *to, gsize size)
{
  if (size > INT_MAX)
    return FALSE;
  if (ippsRijndael128EncryptCBC(from, to, static_cast<int>(size), self->cipher.ipp_ctx, self->iv,
                                IppsCPPaddingNONE) != ippStsNoErr)
    return FALSE;

  std::memcpy(self->iv, to + size - gvc::aes_block, gvc::aes_block);
  return TRUE;
}

// The last `rest` bytes of a record's plain text and their padding, which goes up to a whole block.
static gboolean
encrypt_final_block(GvcEncryptor *self, const guint8 *from, gsize rest, guint8 *to)
{
  guint8 block[gvc::aes_block];
  auto padding = gvc::aes_block - rest;

  // Lengths that the compiler knows; where there is no rest, the block holds nothing secret.
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
  auto *self = reinterpret_cast<GvcEncryptor *>(converter);
  auto *in = static_cast<const guint8 *>(inbuf);
  auto *out = static_cast<guint8 *>(outbuf);

  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (self->send_initial_iv) {
    if (!self->rand)
      return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
    if (outbuf_size < gvc::iv_record)
      return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space for initial IV");
    gvc::store_u64(out, 0);
    std::memcpy(out + gvc::record_header, self->iv, sizeof self->iv);
    self->send_initial_iv = FALSE;
    return gvc::converted(flags, 0, gvc::iv_record, bytes_read, bytes_written);
  }

  if (inbuf_size == 0)
    return gvc::converted(flags, 0, 0, bytes_read, bytes_written);

  gsize rest = inbuf_size % gvc::aes_block;
  gsize whole = inbuf_size - rest;
  gsize length = whole + gvc::aes_block;
  if (outbuf_size < gvc::record_header || length > outbuf_size - gvc::record_header)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  auto *body = out + gvc::record_header;
  gvc::store_u64(out, length);
  if (whole > 0 && !encrypt_blocks(self, in, body, whole))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
  if (!encrypt_final_block(self, in + whole, rest, body + whole))
    return gvc::failed(error, G_IO_ERROR_FAILED, "Encryption failed");
  return gvc::converted(flags, inbuf_size, gvc::record_header + length, bytes_read, bytes_written);
}

static void
gvc_encryptor_reset(GConverter *converter)
{
  auto *self = GVC_ENCRYPTOR(converter);

  draw_initial_iv(self);
  self->cipher.rebuild();
}

static void
gvc_encryptor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_encryptor_convert;
  iface->reset = gvc_encryptor_reset;
}
