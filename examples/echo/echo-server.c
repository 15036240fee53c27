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

static void
session_start(GSocketConnection *socket)
{
  Session *session = g_new0(Session, 1);

  session->channel = echo_channel_new(socket);
  session->reader = echo_reader_new(session->channel);
  session->writer = echo_writer_new(session->channel);
  gvc_bytes_input_stream_read_bytes_async(session->reader, G_PRIORITY_DEFAULT, NULL, on_message,
                                          session);
}

static void on_accepted(GObject *source, GAsyncResult *result, gpointer user_data);

static gboolean
accept_next(gpointer listener)
{
  g_socket_listener_accept_async(listener, NULL, on_accepted, NULL);
  return G_SOURCE_REMOVE;
}

/* Without descriptors every accept fails at once, so the next one waits. GSocketService does not.
 */
static void
on_accepted(GObject *source, GAsyncResult *result, gpointer user_data)
{
  GSocketListener *listener = G_SOCKET_LISTENER(source);
  g_autoptr(GError) error = NULL;
  g_autoptr(GSocketConnection) socket =
      g_socket_listener_accept_finish(listener, result, NULL, &error);

  (void)user_data;
  if (socket) {
    session_start(socket);
    accept_next(listener);
  } else {
    g_printerr("echo-server: %s\n", error->message);
    g_timeout_add_seconds(1, accept_next, listener);
  }
}

static guint16
listen_on_loopback(GSocketListener *listener, GError **error)
{
  g_autoptr(GSocketAddress) wanted = g_inet_socket_address_new_from_string("127.0.0.1", 0);
  g_autoptr(GSocketAddress) actual = NULL;

  if (!g_socket_listener_add_address(listener, wanted, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                                     NULL, &actual, error))
    return 0;
  return g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(actual));
}

int
main(int argc, char **argv)
{
  g_autoptr(GSocketListener) listener = g_socket_listener_new();
  g_autoptr(GError) error = NULL;
  guint16 port = 0;

  gvc_init();
  port = listen_on_loopback(listener, &error);
  if (port != 0)
    g_print("%d\n", port);

  if (port != 0 && argc > 1 && strcmp(argv[1], "--async") == 0) {
    g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
    accept_next(listener);
    g_main_loop_run(loop);
  }
  while (!error) {
    g_autoptr(GSocketConnection) socket = g_socket_listener_accept(listener, NULL, NULL, &error);
    if (socket)
      serve(socket);
  }
  g_printerr("echo-server: %s\n", error->message);
  return 1;
}
