// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvccompressor.h"
#include "gvcblock.h"
#include "gvcconverter.h"
#include "gvcwire.h"

#include <platform/ipp/ipp.h>

#include <cstring>

/**
 * GvcCompressor:
 *
 * A #GConverter that compresses a byte stream. #GvcDecompressor reverses it.
 *
 * Each conversion produces one block, which decodes by itself: the size of its payload and the size
 * of the input, 4 bytes each and little-endian, and the payload, one LZO1X stream. So the size of
 * the writes that reach a compressor decides how well it compresses.
 *
 * Up to 3,904,515,716 bytes can be converted at once. The room that more of them need has more than
 * 32 bits, of which the encoder is told the lower ones: it may fail with "Failed to encode LZO".
 * From 4 GiB on the block announces only the lower 32 bits of the size of its input.
 *
 * A compressor has no state; any number of threads may use one.
 *
 * Since: 0.1
 */
static void gvc_compressor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcCompressor, gvc_compressor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_compressor_converter_init))

static void
gvc_compressor_class_init(GvcCompressorClass *)
{
}

static void
gvc_compressor_init(GvcCompressor *)
{
}

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
  return static_cast<GvcCompressor *>(g_object_new(GVC_TYPE_COMPRESSOR, nullptr));
}

// The largest state of an encoder that goes on the stack.
static constexpr gsize stack_limit = 32 * 1024;

// Encodes all of `in` to `payload`, whose announced room is *payload_size on entry. NULL on
// success, else what failed.
static const char *
encode(const guint8 *in, guint32 in_size, guint8 *payload, guint32 *payload_size)
{
  constexpr auto lzo_method = IppLZO1XMT;
  Ipp32u lzo_state_size = 0;
  if (ippsEncodeLZOGetSize(lzo_method, in_size, &lzo_state_size) != ippStsNoErr)
    return "Failed to get LZO size";

  // For a small block, an allocation takes longer than everything but the encoding.
  g_autofree void *large_state = lzo_state_size > stack_limit ? g_malloc(lzo_state_size) : nullptr;
  auto *lzo_state =
      static_cast<IppLZOState_8u *>(large_state ? large_state : g_alloca(lzo_state_size));
  if (ippsEncodeLZOInit_8u(lzo_method, in_size, lzo_state) != ippStsNoErr)
    return "Failed to init LZO";
  if (ippsEncodeLZO_8u(in, in_size, payload, payload_size, lzo_state) != ippStsNoErr)
    return "Failed to encode LZO";
  return nullptr;
}

static GConverterResult
gvc_compressor_convert(GConverter *, const void *inbuf, gsize inbuf_size, void *outbuf,
                       gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                       gsize *bytes_written, GError **error)
{
  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (outbuf_size < guint64{inbuf_size} + inbuf_size / 10 + gvc::block_header)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");

  // The encoder is told the whole output although the header takes 8 bytes of it. From 40 bytes of
  // input on, the tenth that the check above asks for covers the worst that the encoder can
  // produce. Below that it does not, so a short output is encoded beside the caller's buffer and
  // measured.
  guint8 scratch[128];
  auto *out = static_cast<guint8 *>(outbuf);
  gboolean short_output = outbuf_size <= sizeof scratch;
  guint8 *payload = short_output ? scratch : out + gvc::block_header;

  auto src_size = static_cast<guint32>(outbuf_size);
  auto dest_size = static_cast<guint32>(inbuf_size);
  const char *failure = encode(static_cast<const guint8 *>(inbuf), dest_size, payload, &src_size);
  if (failure)
    return gvc::failed(error, G_IO_ERROR_FAILED, failure);

  gsize block_size = gvc::block_header + src_size;
  if (short_output) {
    if (block_size > outbuf_size)
      return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");
    std::memcpy(out + gvc::block_header, scratch, src_size);
    explicit_bzero(scratch, src_size);
  }
  gvc::store_u32(out + gvc::block_src_size, src_size);
  gvc::store_u32(out + gvc::block_dest_size, dest_size);
  return gvc::converted(flags, inbuf_size, block_size, bytes_read, bytes_written);
}

static void
gvc_compressor_reset(GConverter *)
{
}

static void
gvc_compressor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_compressor_convert;
  iface->reset = gvc_compressor_reset;
}
