/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include <stdlib.h>
#include <zelgvc/zelgvc.h>

static GvcConnection *
open_channel(GSocketConnection *socket)
{
  GvcConnection *channel = gvc_connection_new(socket);
  /* For the example only: a real key is 32 random bytes that nobody but the two peers has. */
  g_autoptr(GBytes) key = g_bytes_new_static("0123456789abcdef0123456789abcdef", 32);
  g_autoptr(GConverter) decryptor = G_CONVERTER(gvc_decryptor_new(key));
  g_autoptr(GConverter) encryptor = G_CONVERTER(gvc_encryptor_new(key));
  g_autoptr(GConverter) decompressor = G_CONVERTER(gvc_decompressor_new());
  g_autoptr(GConverter) compressor = G_CONVERTER(gvc_compressor_new());

  /* The first pair is next to the socket: what is sent is compressed and then encrypted. */
  gvc_connection_add_converters(channel, decryptor, encryptor);
  gvc_connection_add_converters(channel, decompressor, compressor);
  return channel;
}

/* The caller sends a text and a number; the server sends them back with the next number. */
static gboolean
talk(GSocketConnection *socket, const char *text, GError **error)
{
  g_autoptr(GvcConnection) channel = open_channel(socket);
  GIOStream *io = G_IO_STREAM(channel);
  g_autoptr(GvcBytesInputStream) in = gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io));
  g_autoptr(GvcBytesOutputStream) out =
      gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  g_autoptr(GVariant) sent = text != NULL ? g_variant_new("(su)", text, 41) : NULL;
  g_autoptr(GVariant) heard = NULL;
  guint32 number;

  if (sent != NULL && !gvc_bytes_output_stream_put_variant(out, sent, NULL, error))
    return FALSE;
  heard = gvc_bytes_input_stream_read_variant(in, "(su)", NULL, error);
  if (heard == NULL)
    return FALSE;
  g_variant_get(heard, "(&su)", &text, &number);
  g_print("heard %s %u\n", text, number);
  if (sent == NULL) {
    sent = g_variant_new("(su)", text, number + 1);
    if (!gvc_bytes_output_stream_put_variant(out, sent, NULL, error))
      return FALSE;
  }
  return g_io_stream_close(io, NULL, error);
}

/* With a port alone it serves one caller there; with a port and a text it calls. */
int
main(int argc, char **argv)
{
  guint port = argc > 1 ? (guint)atoi(argv[1]) : 0;
  g_autoptr(GSocketAddress) address = g_inet_socket_address_new_from_string("127.0.0.1", port);
  g_autoptr(GSocketListener) listener = g_socket_listener_new();
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_autoptr(GSocketConnection) socket = NULL;
  g_autoptr(GError) error = NULL;

  if (argc < 2) {
    g_printerr("usage: %s PORT [TEXT]\n", argv[0]);
    return 2;
  }
  gvc_init();
  if (argc > 2)
    socket = g_socket_client_connect(client, G_SOCKET_CONNECTABLE(address), NULL, &error);
  else if (g_socket_listener_add_address(listener, address, G_SOCKET_TYPE_STREAM,
                                         G_SOCKET_PROTOCOL_TCP, NULL, NULL, &error))
    socket = g_socket_listener_accept(listener, NULL, NULL, &error);
  if (socket != NULL && talk(socket, argc > 2 ? argv[2] : NULL, &error))
    return EXIT_SUCCESS;
  g_printerr("%s\n", error->message);
  return EXIT_FAILURE;
}
