/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Sends a message through both stages, over a pair of connected sockets. */
#include <string.h>
#include <sys/socket.h>
#include <zelgvc/zelgvc.h>

static GvcConnection *
channel_new(int fd, GBytes *key)
{
  g_autoptr(GSocket) socket = g_socket_new_from_fd(fd, NULL);
  g_autoptr(GSocketConnection) connection = g_socket_connection_factory_create_connection(socket);
  GvcConnection *channel = gvc_connection_new(connection);
  g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(key);
  g_autoptr(GvcEncryptor) encryptor = gvc_encryptor_new(key);
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();

  gvc_connection_add_converters(channel, G_CONVERTER(decryptor), G_CONVERTER(encryptor));
  gvc_connection_add_converters(channel, G_CONVERTER(decompressor), G_CONVERTER(compressor));
  return channel;
}

int
main(void)
{
  static const guint8 key_data[32] = {1, 2, 3};
  g_autoptr(GBytes) key = g_bytes_new_static(key_data, sizeof key_data);
  g_autoptr(GBytes) message = g_bytes_new_static("hello", 5);
  int fds[2];

  gvc_init();
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
    return 1;
  g_autoptr(GvcConnection) here = channel_new(fds[0], key);
  g_autoptr(GvcConnection) there = channel_new(fds[1], key);
  g_autoptr(GvcBytesOutputStream) out =
      gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(here)));
  g_autoptr(GvcBytesInputStream) in =
      gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(there)));

  if (!gvc_bytes_output_stream_put_bytes(out, message, NULL, NULL))
    return 1;
  g_autoptr(GBytes) got = gvc_bytes_input_stream_read_bytes(in, NULL, NULL);
  return got && g_bytes_equal(got, message) ? 0 : 1;
}
