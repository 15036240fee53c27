/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* A channel over TLS, for peers that must know whom they talk to: one message there and back.
 *
 *   tls-echo serve SERVER.pem   certificate and key in one file; prints the port it listens on
 *   tls-echo call PORT CA.pem   trusts what CA.pem vouches for and nothing else
 */
#include <stdlib.h>
#include <string.h>
#include <zelgvc/zelgvc.h>

/* A TLS connection is no socket connection; wrapped together with the socket below it, it is. */
static GSocketConnection *
accept_tls(GSocketConnection *socket, GTlsCertificate *certificate, GError **error)
{
  g_autoptr(GIOStream) tls = g_tls_server_connection_new(G_IO_STREAM(socket), certificate, error);

  if (!tls || !g_tls_connection_handshake(G_TLS_CONNECTION(tls), NULL, error))
    return NULL;
  return g_tcp_wrapper_connection_new(tls, g_socket_connection_get_socket(socket));
}

/* Before the handshake: whom to trust. */
static void
on_client_event(GSocketClient *client, GSocketClientEvent event, GSocketConnectable *connectable,
                GIOStream *stream, gpointer trusted)
{
  (void)client;
  (void)connectable;
  if (event == G_SOCKET_CLIENT_TLS_HANDSHAKING)
    g_tls_connection_set_database(G_TLS_CONNECTION(stream), trusted);
}

/* GSocketClient wraps what it returns already. */
static GSocketConnection *
connect_tls(guint16 port, GTlsDatabase *trusted, GError **error)
{
  g_autoptr(GSocketClient) client = g_socket_client_new();

  g_socket_client_set_tls(client, TRUE);
  g_signal_connect(client, "event", G_CALLBACK(on_client_event), trusted);
  return g_socket_client_connect_to_host(client, "127.0.0.1", port, NULL, error);
}

/* TLS encrypts and authenticates; compression stays worth its while. */
static GvcConnection *
channel_new(GSocketConnection *connection)
{
  GvcConnection *channel = gvc_connection_new(connection);
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();

  gvc_connection_add_converters(channel, G_CONVERTER(decompressor), G_CONVERTER(compressor));
  return channel;
}

static GBytes *
receive(GvcConnection *channel, GError **error)
{
  g_autoptr(GvcBytesInputStream) reader =
      gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(channel)));

  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(reader), FALSE);
  return gvc_bytes_input_stream_read_bytes(reader, NULL, error);
}

static gboolean
transmit(GvcConnection *channel, GBytes *message, GError **error)
{
  g_autoptr(GvcBytesOutputStream) writer =
      gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel)));

  g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(writer), FALSE);
  return gvc_bytes_output_stream_put_bytes(writer, message, NULL, error);
}

static gboolean
serve(const char *certificate_file, GError **error)
{
  g_autoptr(GTlsCertificate) certificate = g_tls_certificate_new_from_file(certificate_file, error);
  g_autoptr(GSocketListener) listener = g_socket_listener_new();
  guint16 port = g_socket_listener_add_any_inet_port(listener, NULL, error);

  if (!certificate || port == 0)
    return FALSE;
  g_print("%d\n", port);

  g_autoptr(GSocketConnection) socket = g_socket_listener_accept(listener, NULL, NULL, error);
  if (!socket)
    return FALSE;
  g_autoptr(GSocketConnection) connection = accept_tls(socket, certificate, error);
  if (!connection)
    return FALSE;
  g_autoptr(GvcConnection) channel = channel_new(connection);
  g_autoptr(GBytes) message = receive(channel, error);
  return message && transmit(channel, message, error) &&
         g_io_stream_close(G_IO_STREAM(channel), NULL, error);
}

static gboolean
call(guint16 port, const char *trusted_file, GError **error)
{
  static const char greeting[] = "hello over TLS";
  g_autoptr(GBytes) message = g_bytes_new_static(greeting, strlen(greeting));
  g_autoptr(GTlsDatabase) trusted = g_tls_file_database_new(trusted_file, error);

  if (!trusted)
    return FALSE;
  g_autoptr(GSocketConnection) connection = connect_tls(port, trusted, error);
  if (!connection)
    return FALSE;
  g_autoptr(GvcConnection) channel = channel_new(connection);
  if (!transmit(channel, message, error))
    return FALSE;
  g_autoptr(GBytes) echo = receive(channel, error);
  if (!echo)
    return FALSE;
  if (!g_bytes_equal(echo, message)) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "The echo differs");
    return FALSE;
  }
  g_print("%s\n", greeting);
  return g_io_stream_close(G_IO_STREAM(channel), NULL, error);
}

int
main(int argc, char **argv)
{
  g_autoptr(GError) error = NULL;
  gboolean done = FALSE;

  gvc_init();
  if (argc == 3 && strcmp(argv[1], "serve") == 0)
    done = serve(argv[2], &error);
  else if (argc == 4 && strcmp(argv[1], "call") == 0)
    done = call((guint16)atoi(argv[2]), argv[3], &error);
  else
    g_printerr("usage: tls-echo serve SERVER.pem | tls-echo call PORT CA.pem\n");

  if (error)
    g_printerr("tls-echo: %s\n", error->message);
  return done ? 0 : 1;
}
