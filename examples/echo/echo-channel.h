/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* What the C server and the C client share. */
#ifndef ECHO_CHANNEL_H
#define ECHO_CHANNEL_H

#include <zelgvc/zelgvc.h>

/* A demonstration key. Real peers agree on 32 random bytes by a way of their own. */
static inline GBytes *
echo_key(void)
{
  guint8 key[32];

  for (guint8 i = 0; i < sizeof key; i++)
    key[i] = i;
  return g_bytes_new(key, sizeof key);
}

/* Encryption is added first and compression second: the stage added last is nearest to the caller,
 * so messages are compressed and then encrypted. Both peers add them in this order. */
static inline GvcConnection *
echo_channel_new(GSocketConnection *socket)
{
  GvcConnection *channel = gvc_connection_new(socket);
  g_autoptr(GBytes) key = echo_key();
  g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(key);
  g_autoptr(GvcEncryptor) encryptor = gvc_encryptor_new(key);
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();

  gvc_connection_add_converters(channel, G_CONVERTER(decryptor), G_CONVERTER(encryptor));
  gvc_connection_add_converters(channel, G_CONVERTER(decompressor), G_CONVERTER(compressor));
  return channel;
}

static inline GvcBytesInputStream *
echo_reader_new(GvcConnection *channel)
{
  return gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(channel)));
}

static inline GvcBytesOutputStream *
echo_writer_new(GvcConnection *channel)
{
  return gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel)));
}

/* Closes the socket. Closing the channel would also send what its stages still hold, and wait for a
 * peer that does not read. */
static inline void
echo_channel_close(GvcConnection *channel)
{
  g_io_stream_close(G_IO_STREAM(gvc_connection_get_connection(channel)), NULL, NULL);
}

/* The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
 * that it could not get another block. */
static inline gboolean
echo_is_end(const GError *error)
{
  return g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
}

#endif /* ECHO_CHANNEL_H */
