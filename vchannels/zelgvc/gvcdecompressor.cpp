// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcdecompressor.h"
#include "gvcconverter.h"
#include "gvcinitialisers.h"
#include "gvcwire.h"

#include <platform/ipp/ipp.h>

namespace block = gvc::wire::block;

/**
 * GvcDecompressor:
 *
 * A #GConverter that decompresses the blocks of a #GvcCompressor, which describes the format. Each
 * conversion decodes one block. A payload may also have the chunked layout of several streams.
 *
 * A block that decodes to less than it announces is accepted. A block that decodes to more is an
 * error.
 *
 * Errors are in the domain %G_IO_ERROR: %G_IO_ERROR_PARTIAL_INPUT if the block is not complete,
 * %G_IO_ERROR_NO_SPACE if the output has too little room, and %G_IO_ERROR_FAILED if the payload is
 * corrupt.
 *
 * A decompressor has no state. Any number of threads may use it at once.
 *
 * Since: 0.1
 */
static void gvc_decompressor_converter_init(GConverterIface *iface);

G_DEFINE_TYPE_WITH_CODE(GvcDecompressor, gvc_decompressor, G_TYPE_OBJECT,
                        G_IMPLEMENT_INTERFACE(G_TYPE_CONVERTER, gvc_decompressor_converter_init))
GVC_NO_INITIALISERS(GvcDecompressor, gvc_decompressor)

/**
 * gvc_decompressor_new:
 *
 * Creates a decompressor.
 *
 * Returns: (transfer full): a new decompressor; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcDecompressor *
gvc_decompressor_new(void)
{
  return GVC_DECOMPRESSOR(g_object_new(GVC_TYPE_DECOMPRESSOR, nullptr));
}

// A byte of LZO1X data decodes to 255 bytes at most, the value of a length byte. If this much room
// is too small, the header is corrupt.
static guint64
most_output(guint32 src_size)
{
  return MAX(guint64{src_size} * 255, gvc::hopeless_from);
}

static GConverterResult
gvc_decompressor_convert(GConverter *, const void *inbuf, gsize inbuf_size, void *outbuf,
                         gsize outbuf_size, GConverterFlags flags, gsize *bytes_read,
                         gsize *bytes_written, GError **error)
{
  auto *in = static_cast<const guint8 *>(inbuf);

  if (flags & G_CONVERTER_FLUSH)
    return gvc::flushed(bytes_read, bytes_written);

  if (inbuf_size < block::header_size)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial header");

  guint32 src_size = block::load_payload_size(in);
  guint32 dest_size = block::load_decoded_size(in);
  if (inbuf_size - block::header_size < src_size)
    return gvc::failed(error, G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  if (dest_size > outbuf_size) {
    if (outbuf_size >= most_output(src_size))
      return gvc::failed(error, G_IO_ERROR_FAILED, "Failed to decode LZO");
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");
  }

  auto status =
      ippsDecodeLZO_8u(in + block::header_size, src_size, static_cast<Ipp8u *>(outbuf), &dest_size);
  if (status == ippStsDstSizeLessExpected)
    return gvc::failed(error, G_IO_ERROR_NO_SPACE, "Not enough space");
  if (status != ippStsNoErr)
    return gvc::failed(error, G_IO_ERROR_FAILED, "Failed to decode LZO");
  return gvc::converted(flags, block::header_size + src_size, dest_size, bytes_read, bytes_written);
}

static void
gvc_decompressor_converter_init(GConverterIface *iface)
{
  iface->convert = gvc_decompressor_convert;
  iface->reset = [](GConverter *) {};
}
