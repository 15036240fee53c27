// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccompressor.h"
#include "gvcconverter.h"
#include "gvcinitialisers.h"
#include "gvcwire.h"

#include <platform/ipp/ipp.h>

#include <cstring>

namespace block = gvc::wire::block;

/**
 * GvcCompressor:
 *
 * A #GConverter that compresses a byte stream. #GvcDecompressor reverses it.
 *
 * Each conversion produces one block that decodes by itself. A block is the size of its payload,
 * the size of the input, 4 bytes each and little-endian, and the payload, one LZO1X stream. Larger
 * writes compress better.
 *
 * One conversion accepts up to 3,904,515,716 bytes. Beyond that the encoder receives only the lower
 * 32 bits of the output size, and may fail with "Failed to encode LZO". From 4 GiB on, the block
 * announces only the lower 32 bits of the input size.
 *
 * Errors are in the domain %G_IO_ERROR: %G_IO_ERROR_NO_SPACE if the output has too little room, and
 * %G_IO_ERROR_FAILED if the encoder fails.
 *
 * A compressor has no state. Any number of threads may use it at once.
 *
 * Since: 0.1
 */
static void gvc_compressor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcCompressor, gvc_compressor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_compressor_converter_init))
GVC_NO_INITIALISERS(GvcCompressor, gvc_compressor)

/**
 * gvc_compressor_new:
 *
 * Creates a compressor.
 *
 * Returns: (transfer full): a new compressor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcCompressor *
gvc_compressor_new(void)
{
  return GVC_COMPRESSOR(g_object_new(GVC_TYPE_COMPRESSOR, nullptr));
}

// The largest state of an encoder that goes on the stack.
static constexpr gsize stack_limit = 32 * 1024;

static gboolean
fail(GError **error, const char *message)
{
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, message);
  return FALSE;
}

// Encodes all of `in` to `payload`, whose announced room is *payload_size on entry.
static gboolean
encode(const guint8 *in, guint32 in_size, guint8 *payload, guint32 *payload_size, GError **error)
{
  constexpr auto lzo_method = IppLZO1XMT;
  Ipp32u lzo_state_size = 0;
  if (ippsEncodeLZOGetSize(lzo_method, in_size, &lzo_state_size) != ippStsNoErr)
    return fail(error, "Failed to get LZO size");

  // For a small block, an allocation takes longer than everything but the encoding.
  g_autofree void *large_state = lzo_state_size > stack_limit ? g_malloc(lzo_state_size) : nullptr;
  auto *lzo_state =
      static_cast<IppLZOState_8u *>(large_state ? large_state : g_alloca(lzo_state_size));
  if (ippsEncodeLZOInit_8u(lzo_method, in_size, lzo_state) != ippStsNoErr)
    return fail(error, "Failed to init LZO");
  if (ippsEncodeLZO_8u(in, in_size, payload, payload_size, lzo_state) != ippStsNoErr)
    return fail(error, "Failed to encode LZO");
  return TRUE;
}

static GConverterResult
gvc_compressor_convert(GConverter *, const void *inbuf, gsize inbuf_size, void *outbuf,
                       gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                       gsize *bytes_written, GError **error)
{
  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (outbuf_size < guint64{inbuf_size} + inbuf_size / 10 + block::header_size)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  // The encoder is told the size of the whole output, header included. From 40 bytes of input on,
  // the check above leaves room for the longest payload. Shorter outputs go to a scratch buffer
  // first.
  guint8 scratch[128];
  auto *out = static_cast<guint8 *>(outbuf);
  gboolean short_output = outbuf_size <= sizeof scratch;
  guint8 *payload = short_output ? scratch : out + block::header_size;

  auto src_size = static_cast<guint32>(outbuf_size);
  auto dest_size = static_cast<guint32>(inbuf_size);
  if (!encode(static_cast<const guint8 *>(inbuf), dest_size, payload, &src_size, error))
    return G_CONVERTER_ERROR;

  gsize block_size = block::header_size + src_size;
  if (short_output) {
    if (block_size > outbuf_size)
      return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");
    std::memcpy(out + block::header_size, scratch, src_size);
    explicit_bzero(scratch, src_size);
  }
  block::store_header(out, src_size, dest_size);
  return gvc::converted(flags, inbuf_size, block_size, bytes_read, bytes_written);
}

static void
gvc_compressor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_compressor_convert;
  iface->reset = [](GConverter *) {};
}
