/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Sends a text and prints the answer. Usage: readme PORT TEXT, with this on the other side:
 *
 *   zelgvc listen --compress --exec 'tr a-z A-Z' 127.0.0.1:PORT
 */
#include <stdlib.h>
#include <string.h>
#include <zelgvc/zelgvc.h>

/* Sends a message over a connected socket, compressed, and waits for the answer. */
static GBytes *
ask(GSocketConnection *socket, GBytes *question, GError **error)
{
  g_autoptr(GvcConnection) channel = gvc_connection_new(socket);
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();
  gvc_connection_add_converters(channel, G_CONVERTER(decompressor), G_CONVERTER(compressor));

  GIOStream *io = G_IO_STREAM(channel);
  g_autoptr(GvcBytesInputStream) in = gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io));
  g_autoptr(GvcBytesOutputStream) out =
      gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  if (!gvc_bytes_output_stream_put_bytes(out, question, NULL, error))
    return NULL;
  return gvc_bytes_input_stream_read_bytes(in, NULL, error);
}

int
main(int argc, char **argv)
{
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_autoptr(GSocketConnection) socket = NULL;
  g_autoptr(GBytes) question = NULL;
  g_autoptr(GBytes) answer = NULL;
  g_autoptr(GError) error = NULL;

  if (argc != 3) {
    g_printerr("usage: %s PORT TEXT\n", argv[0]);
    return 2;
  }
  gvc_init();
  question = g_bytes_new(argv[2], strlen(argv[2]));
  socket =
      g_socket_client_connect_to_host(client, "127.0.0.1", (guint16)atoi(argv[1]), NULL, &error);
  if (socket)
    answer = ask(socket, question, &error);
  if (!answer) {
    g_printerr("%s\n", error->message);
    return 1;
  }
  g_print("%.*s\n", (int)g_bytes_get_size(answer), (const char *)g_bytes_get_data(answer, NULL));
  return 0;
}
