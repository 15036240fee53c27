/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Sends every message back. Usage: echo-server [--async]; prints the port it listens on. */
#include "echo-channel.h"

#include <string.h>

static void
serve(GSocketConnection *socket)
{
  g_autoptr(GvcConnection) channel = echo_channel_new(socket);
  g_autoptr(GvcBytesInputStream) reader = echo_reader_new(channel);
  g_autoptr(GvcBytesOutputStream) writer = echo_writer_new(channel);
  g_autoptr(GError) error = NULL;

  for (;;) {
    g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(reader, NULL, &error);
    if (!message || !gvc_bytes_output_stream_put_bytes(writer, message, NULL, &error))
      break;
  }
  if (!echo_is_end(error))
    g_printerr("echo-server: %s\n", error->message);
  echo_channel_close(channel);
}

typedef struct {
  GvcConnection *channel;
  GvcBytesInputStream *reader;
  GvcBytesOutputStream *writer;
} Session;

static void
session_end(Session *session, const GError *error)
{
  if (!echo_is_end(error))
    g_printerr("echo-server: %s\n", error->message);
  echo_channel_close(session->channel);
  g_object_unref(session->reader);
  g_object_unref(session->writer);
  g_object_unref(session->channel);
  g_free(session);
}

static void on_message(GObject *source, GAsyncResult *result, gpointer user_data);

static void
on_sent(GObject *source, GAsyncResult *result, gpointer user_data)
{
  Session *session = user_data;
  g_autoptr(GError) error = NULL;

  if (!gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(source), result, &error)) {
    session_end(session, error);
    return;
  }
  gvc_bytes_input_stream_read_bytes_async(session->reader, G_PRIORITY_DEFAULT, NULL, on_message,
                                          session);
}

static void
on_message(GObject *source, GAsyncResult *result, gpointer user_data)
{
  Session *session = user_data;
  g_autoptr(GError) error = NULL;
  g_autoptr(GBytes) message =
      gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(source), result, &error);

  if (!message) {
    session_end(session, error);
    return;
  }
  gvc_bytes_output_stream_put_bytes_async(session->writer, message, G_PRIORITY_DEFAULT, NULL,
                                          on_sent, session);
}

static gboolean
on_incoming(GSocketService *service, GSocketConnection *socket, GObject *source, gpointer data)
{
  (void)service;
  (void)source;
  (void)data;

  Session *session = g_new0(Session, 1);
  session->channel = echo_channel_new(socket);
  session->reader = echo_reader_new(session->channel);
  session->writer = echo_writer_new(session->channel);
  gvc_bytes_input_stream_read_bytes_async(session->reader, G_PRIORITY_DEFAULT, NULL, on_message,
                                          session);
  return TRUE;
}

static GSocketAddress *
listen_address(void)
{
  g_autoptr(GInetAddress) loopback = g_inet_address_new_loopback(G_SOCKET_FAMILY_IPV4);

  return g_inet_socket_address_new(loopback, 0);
}

int
main(int argc, char **argv)
{
  gboolean async = argc > 1 && strcmp(argv[1], "--async") == 0;
  g_autoptr(GSocketService) service = g_socket_service_new();
  g_autoptr(GSocketAddress) wanted = listen_address();
  g_autoptr(GSocketAddress) actual = NULL;
  g_autoptr(GError) error = NULL;

  gvc_init();
  g_socket_service_stop(service);
  if (!g_socket_listener_add_address(G_SOCKET_LISTENER(service), wanted, G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_TCP, NULL, &actual, &error)) {
    g_printerr("echo-server: %s\n", error->message);
    return 1;
  }
  g_print("%d\n", g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(actual)));

  if (async) {
    g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
    g_signal_connect(service, "incoming", G_CALLBACK(on_incoming), NULL);
    g_socket_service_start(service);
    g_main_loop_run(loop);
  }
  for (;;) {
    g_autoptr(GSocketConnection) socket =
        g_socket_listener_accept(G_SOCKET_LISTENER(service), NULL, NULL, NULL);
    if (socket)
      serve(socket);
  }
}
