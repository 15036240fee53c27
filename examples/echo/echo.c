/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Messages there and back, over a channel that compresses and encrypts.
 *
 *   echo serve [--async]       sends every message back; prints the port it listens on
 *   echo call PORT [--async]   sends three messages and checks that they come back
 */
#include <stdlib.h>
#include <string.h>
#include <zelgvc/zelgvc.h>

typedef struct {
  GvcConnection *channel;
  GvcBytesInputStream *reader;
  GvcBytesOutputStream *writer;
} Peer;

/* A demonstration key. Real peers agree on 32 random bytes by a way of their own. */
static GBytes *
demonstration_key(void)
{
  guint8 key[32];

  for (guint8 i = 0; i < sizeof key; i++)
    key[i] = i;
  return g_bytes_new(key, sizeof key);
}

/* Encryption is added first and compression second: the stage added last is nearest to the caller,
 * so messages are compressed and then encrypted. Both peers add them in this order. */
static Peer *
peer_new(GSocketConnection *socket)
{
  Peer *peer = g_new0(Peer, 1);
  GIOStream *io;
  g_autoptr(GBytes) key = demonstration_key();
  g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(key);
  g_autoptr(GvcEncryptor) encryptor = gvc_encryptor_new(key);
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();

  peer->channel = gvc_connection_new(socket);
  gvc_connection_add_converters(peer->channel, G_CONVERTER(decryptor), G_CONVERTER(encryptor));
  gvc_connection_add_converters(peer->channel, G_CONVERTER(decompressor), G_CONVERTER(compressor));
  io = G_IO_STREAM(peer->channel);
  peer->reader = gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io));
  peer->writer = gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  return peer;
}

/* Closes the socket. Closing the channel would also send what its stages still hold, and wait for a
 * peer that does not read. */
static void
peer_free(Peer *peer)
{
  g_io_stream_close(G_IO_STREAM(gvc_connection_get_connection(peer->channel)), NULL, NULL);
  g_object_unref(peer->reader);
  g_object_unref(peer->writer);
  g_object_unref(peer->channel);
  g_free(peer);
}
G_DEFINE_AUTOPTR_CLEANUP_FUNC(Peer, peer_free)

static void
complain(const GError *error)
{
  g_printerr("echo: %s\n", error->message);
}

/* The server. */

/* The caller has closed its side. On a bare channel that reads as "Disconnected"; a stage reports
 * that it could not get another block. */
static gboolean
is_end(const GError *error)
{
  return g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
         g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
}

static void
serve(GSocketConnection *socket)
{
  g_autoptr(Peer) peer = peer_new(socket);
  g_autoptr(GError) error = NULL;

  for (;;) {
    g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(peer->reader, NULL, &error);
    if (!message || !gvc_bytes_output_stream_put_bytes(peer->writer, message, NULL, &error))
      break;
  }
  if (!is_end(error))
    complain(error);
}

static void
end(Peer *peer, const GError *error)
{
  if (!is_end(error))
    complain(error);
  peer_free(peer);
}

static void on_message(GObject *reader, GAsyncResult *result, gpointer user_data);

static void
read_message(Peer *peer)
{
  gvc_bytes_input_stream_read_bytes_async(peer->reader, G_PRIORITY_DEFAULT, NULL, on_message, peer);
}

static void
on_answered(GObject *writer, GAsyncResult *result, gpointer peer)
{
  g_autoptr(GError) error = NULL;

  if (gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(writer), result, &error))
    read_message(peer);
  else
    end(peer, error);
}

static void
on_message(GObject *reader, GAsyncResult *result, gpointer user_data)
{
  Peer *peer = user_data;
  g_autoptr(GError) error = NULL;
  g_autoptr(GBytes) message =
      gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(reader), result, &error);

  if (message)
    gvc_bytes_output_stream_put_bytes_async(peer->writer, message, G_PRIORITY_DEFAULT, NULL,
                                            on_answered, peer);
  else
    end(peer, error);
}

static void on_accepted(GObject *listener, GAsyncResult *result, gpointer unused);

static gboolean
accept_next(gpointer listener)
{
  g_socket_listener_accept_async(listener, NULL, on_accepted, NULL);
  return G_SOURCE_REMOVE;
}

/* Without descriptors every accept fails at once, so the next one waits. GSocketService does not.
 */
static void
on_accepted(GObject *listener, GAsyncResult *result, gpointer unused)
{
  g_autoptr(GError) error = NULL;
  g_autoptr(GSocketConnection) socket =
      g_socket_listener_accept_finish(G_SOCKET_LISTENER(listener), result, NULL, &error);

  (void)unused;
  if (socket) {
    read_message(peer_new(socket));
    accept_next(listener);
  } else {
    complain(error);
    g_timeout_add_seconds(1, accept_next, listener);
  }
}

static void
run_server(gboolean async, GError **error)
{
  g_autoptr(GSocketListener) listener = g_socket_listener_new();
  g_autoptr(GSocketAddress) wanted = g_inet_socket_address_new_from_string("127.0.0.1", 0);
  g_autoptr(GSocketAddress) actual = NULL;

  if (!g_socket_listener_add_address(listener, wanted, G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP,
                                     NULL, &actual, error))
    return;
  g_print("%d\n", g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(actual)));

  if (async) {
    g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
    accept_next(listener);
    g_main_loop_run(loop);
  }
  for (;;) {
    g_autoptr(GSocketConnection) socket = g_socket_listener_accept(listener, NULL, NULL, error);
    if (!socket)
      return;
    serve(socket);
  }
}

/* The client. */

enum { N_MESSAGES = 3 };

typedef struct {
  Peer *peer;
  GBytes *messages[N_MESSAGES];
  guint next;
  GMainLoop *loop;
  GError **error;
} Call;

static void
make_messages(GBytes **messages)
{
  g_autoptr(GVariant) variant = g_variant_ref_sink(g_variant_new("(su)", "answer", 42));
  gsize size = 1000000;
  guint8 *big = g_malloc(size);

  for (gsize i = 0; i < size; i++)
    big[i] = (guint8)(i * i / 251);
  messages[0] = g_bytes_new_static("hello", 5);
  messages[1] = g_bytes_new_take(big, size);
  messages[2] = g_variant_get_data_as_bytes(variant);
}

static gboolean
check_echo(Call *call, GBytes *echo)
{
  if (!echo)
    return FALSE;
  if (g_bytes_equal(echo, call->messages[call->next++]))
    return TRUE;
  g_set_error_literal(call->error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "The echo differs");
  return FALSE;
}

static gboolean
exchange(Call *call)
{
  g_autoptr(GBytes) echo = NULL;

  if (!gvc_bytes_output_stream_put_bytes(call->peer->writer, call->messages[call->next], NULL,
                                         call->error))
    return FALSE;
  echo = gvc_bytes_input_stream_read_bytes(call->peer->reader, NULL, call->error);
  return check_echo(call, echo);
}

static void exchange_next(Call *call);

static void
on_echo(GObject *reader, GAsyncResult *result, gpointer user_data)
{
  Call *call = user_data;
  g_autoptr(GBytes) echo =
      gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(reader), result, call->error);

  if (check_echo(call, echo) && call->next < N_MESSAGES)
    exchange_next(call);
  else
    g_main_loop_quit(call->loop);
}

static void
on_sent(GObject *writer, GAsyncResult *result, gpointer user_data)
{
  Call *call = user_data;

  if (!gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(writer), result,
                                                call->error))
    g_main_loop_quit(call->loop);
}

/* The answer is awaited while the message is still on its way: one message in each direction may be
 * in progress. */
static void
exchange_next(Call *call)
{
  gvc_bytes_output_stream_put_bytes_async(call->peer->writer, call->messages[call->next],
                                          G_PRIORITY_DEFAULT, NULL, on_sent, call);
  gvc_bytes_input_stream_read_bytes_async(call->peer->reader, G_PRIORITY_DEFAULT, NULL, on_echo,
                                          call);
}

static void
run_client(guint16 port, gboolean async, GError **error)
{
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_autoptr(GMainLoop) loop = g_main_loop_new(NULL, FALSE);
  g_autoptr(GSocketConnection) socket =
      g_socket_client_connect_to_host(client, "127.0.0.1", port, NULL, error);
  g_autofree char *name = NULL;
  Call call = {.loop = loop, .error = error};

  if (!socket)
    return;
  call.peer = peer_new(socket);
  make_messages(call.messages);
  if (async) {
    exchange_next(&call);
    g_main_loop_run(loop);
  } else {
    while (call.next < N_MESSAGES && exchange(&call)) {
    }
  }
  name = gvc_io_stream_get_remote_address_string(G_IO_STREAM(call.peer->channel));
  if (!*error)
    g_print("%d messages echoed by %s\n", N_MESSAGES, name);
  peer_free(call.peer);
  for (guint i = 0; i < N_MESSAGES; i++)
    g_bytes_unref(call.messages[i]);
}

int
main(int argc, char **argv)
{
  gboolean async = strcmp(argv[argc - 1], "--async") == 0;
  g_autoptr(GError) error = NULL;

  gvc_init();
  if (argc > 1 && strcmp(argv[1], "serve") == 0) {
    run_server(async, &error);
  } else if (argc > 2 && strcmp(argv[1], "call") == 0) {
    run_client((guint16)atoi(argv[2]), async, &error);
  } else {
    g_printerr("usage: echo serve [--async] | echo call PORT [--async]\n");
    return 2;
  }
  if (error)
    complain(error);
  return error ? 1 : 0;
}
