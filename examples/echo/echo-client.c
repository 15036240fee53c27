/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Sends three messages and checks that they come back. Usage: echo-client PORT [--async] */
#include "echo-channel.h"

#include <stdlib.h>
#include <string.h>

enum { N_MESSAGES = 3 };

typedef struct {
  GvcBytesInputStream *reader;
  GvcBytesOutputStream *writer;
  GBytes *messages[N_MESSAGES];
  guint next;
  GMainLoop *loop;
  GError *error;
} Client;

static GBytes *
big_message(void)
{
  gsize size = 1000000;
  guint8 *data = g_malloc(size);

  for (gsize i = 0; i < size; i++)
    data[i] = (guint8)(i * i / 251);
  return g_bytes_new_take(data, size);
}

static void
make_messages(Client *client)
{
  g_autoptr(GVariant) variant = g_variant_ref_sink(g_variant_new("(su)", "answer", 42));

  client->messages[0] = g_bytes_new_static("hello", 5);
  client->messages[1] = big_message();
  client->messages[2] = g_variant_get_data_as_bytes(variant);
}

static gboolean
check_echo(Client *client, GBytes *echo)
{
  if (!echo)
    return FALSE;
  if (g_bytes_equal(echo, client->messages[client->next]))
    return TRUE;
  g_set_error_literal(&client->error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "The echo differs");
  return FALSE;
}

static void
run_blocking(Client *client)
{
  for (; client->next < N_MESSAGES; client->next++) {
    if (!gvc_bytes_output_stream_put_bytes(client->writer, client->messages[client->next], NULL,
                                           &client->error))
      return;
    g_autoptr(GBytes) echo =
        gvc_bytes_input_stream_read_bytes(client->reader, NULL, &client->error);
    if (!check_echo(client, echo))
      return;
  }
}

static void send_next(Client *client);

static void
on_echo(GObject *source, GAsyncResult *result, gpointer user_data)
{
  Client *client = user_data;
  g_autoptr(GBytes) echo = gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(source),
                                                                    result, &client->error);

  if (check_echo(client, echo)) {
    client->next++;
    send_next(client);
  } else {
    g_main_loop_quit(client->loop);
  }
}

static void
on_sent(GObject *source, GAsyncResult *result, gpointer user_data)
{
  Client *client = user_data;

  if (!gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(source), result,
                                                &client->error))
    g_main_loop_quit(client->loop);
}

/* The answer is awaited while the message is still on its way: one message in each direction may be
 * in progress. */
static void
send_next(Client *client)
{
  if (client->next == N_MESSAGES) {
    g_main_loop_quit(client->loop);
    return;
  }
  gvc_bytes_output_stream_put_bytes_async(client->writer, client->messages[client->next],
                                          G_PRIORITY_DEFAULT, NULL, on_sent, client);
  gvc_bytes_input_stream_read_bytes_async(client->reader, G_PRIORITY_DEFAULT, NULL, on_echo,
                                          client);
}

static void
run_async(Client *client)
{
  client->loop = g_main_loop_new(NULL, FALSE);
  send_next(client);
  g_main_loop_run(client->loop);
  g_main_loop_unref(client->loop);
}

int
main(int argc, char **argv)
{
  guint16 port = argc > 1 ? (guint16)atoi(argv[1]) : 0;
  gboolean async = argc > 2 && strcmp(argv[2], "--async") == 0;
  g_autoptr(GSocketClient) connector = g_socket_client_new();
  g_autoptr(GSocketConnection) socket = NULL;
  g_autoptr(GvcConnection) channel = NULL;
  g_autofree char *peer = NULL;
  Client client = {0};

  gvc_init();
  socket = g_socket_client_connect_to_host(connector, "127.0.0.1", port, NULL, &client.error);
  if (!socket) {
    g_printerr("echo-client: %s\n", client.error->message);
    return 1;
  }

  channel = echo_channel_new(socket);
  client.reader = echo_reader_new(channel);
  client.writer = echo_writer_new(channel);
  make_messages(&client);
  (async ? run_async : run_blocking)(&client);

  if (client.error) {
    g_printerr("echo-client: %s\n", client.error->message);
  } else {
    peer = gvc_io_stream_get_remote_address_string(G_IO_STREAM(channel));
    g_print("%u messages echoed by %s\n", client.next, peer);
  }
  echo_channel_close(channel);
  for (guint i = 0; i < N_MESSAGES; i++)
    g_bytes_unref(client.messages[i]);
  g_object_unref(client.reader);
  g_object_unref(client.writer);
  return client.error ? 1 : 0;
}
