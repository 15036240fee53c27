/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* The serving side: answers messages and takes files from any number of callers at once, in one
 * main loop: every read from a channel and every write to one is asynchronous. */
#include "channel.h"

#include <glib-unix.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>

/* A GSocketService that runs out of descriptors tries again at once, and for ever. */
#define MOST_AT_ONCE 100

typedef struct {
  Stages stages;
  char *address;
  int port;
  char *directory;
  int callers;
  int timeout;
  GSocketService *service;
  GMainLoop *loop;
  int served;
  int running;
  gboolean failed;
} Server;

typedef struct Session Session;

/* One caller. Exactly one operation is under way for it at any time, so a session is freed by the
 * callback that finds it at its end. */
struct Session {
  Server *server;
  Channel *channel;
  char *peer;
  void (*read)(Session *session); /* starts to read what the last request announced */
  guint64 remaining;              /* how much of that is still to come: messages or bytes */
  char *string;                   /* an answer on its way */
  char *path;                     /* the file on its way */
  guint64 size;
  GOutputStream *file;
  GCancellable *cancellable;
  guint watchdog;   /* cancels the operation that is under way */
  gboolean refused; /* a request, which is logged once: a caller must not fill the log */
};

static void read_request(Session *session);

static gboolean
on_watchdog(gpointer data)
{
  Session *session = data;

  session->watchdog = 0;
  g_cancellable_cancel(session->cancellable);
  return G_SOURCE_REMOVE;
}

/* What cancels the next operation when its time is over. A timeout of the socket would start anew
 * with each byte, and a string never ends at the end of the stream. */
static GCancellable *
limited(Session *session)
{
  g_clear_handle_id(&session->watchdog, g_source_remove);
  session->watchdog = g_timeout_add_seconds((guint)session->server->timeout, on_watchdog, session);
  return session->cancellable;
}

static void
session_free(Session *session)
{
  Server *server = session->server;

  g_clear_handle_id(&session->watchdog, g_source_remove);
  g_clear_object(&session->file);
  g_object_unref(session->cancellable);
  channel_free(session->channel);
  g_free(session->string);
  g_free(session->path);
  g_free(session->peer);
  g_free(session);

  server->running--;
  if (server->running == MOST_AT_ONCE - 1 &&
      (server->callers == 0 || server->served < server->callers))
    g_socket_service_start(server->service);
  if (server->running == 0 && server->callers > 0 && server->served >= server->callers)
    g_main_loop_quit(server->loop);
}

static void
session_fail(Session *session, const char *doing, const GError *error)
{
  gboolean late = g_cancellable_is_cancelled(session->cancellable);

  g_printerr("%s: %s: %s\n", session->peer, doing, late ? "it took too long" : error->message);
  session->server->failed = TRUE;
  session_free(session);
}

static void
on_closed(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GError) error = NULL;

  if (!g_output_stream_close_finish(G_OUTPUT_STREAM(object), result, &error)) {
    session_fail(session, "closing", error);
    return;
  }
  g_print("%s: done\n", session->peer);
  session_free(session);
}

/* The end of the stages is sent as a message is: the caller may not read it. */
static void
session_end(Session *session)
{
  GIOStream *io = G_IO_STREAM(session->channel->connection);

  g_output_stream_close_async(g_io_stream_get_output_stream(io), G_PRIORITY_DEFAULT,
                              limited(session), on_closed, session);
}

static void
session_continue(Session *session)
{
  if (session->remaining > 0)
    session->read(session);
  else
    read_request(session);
}

static void
put_variant(Session *session, GVariant *variant, GAsyncReadyCallback callback)
{
  g_autoptr(GVariant) sunk = g_variant_ref_sink(variant);

  gvc_bytes_output_stream_put_variant_async(session->channel->frames_out, sunk, G_PRIORITY_DEFAULT,
                                            limited(session), callback, session);
}

static gboolean
put_variant_finish(Session *session, GAsyncResult *result)
{
  g_autoptr(GError) error = NULL;

  if (gvc_bytes_output_stream_put_variant_finish(session->channel->frames_out, result, &error))
    return TRUE;
  session_fail(session, "answering", error);
  return FALSE;
}

static GVariant *
read_variant_finish(Session *session, GAsyncResult *result)
{
  g_autoptr(GError) error = NULL;
  GVariant *variant =
      gvc_bytes_input_stream_read_variant_finish(session->channel->frames_in, result, &error);

  if (variant != NULL)
    return g_variant_ref_sink(variant);
  session_fail(session, "reading", error);
  return NULL;
}

static GBytes *
read_bytes_finish(Session *session, GAsyncResult *result)
{
  g_autoptr(GError) error = NULL;
  GBytes *bytes =
      gvc_bytes_input_stream_read_bytes_finish(session->channel->frames_in, result, &error);

  if (bytes == NULL)
    session_fail(session, "reading", error);
  return bytes;
}

/* Byte messages. */

static void
on_bytes_answered(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GError) error = NULL;

  if (gvc_bytes_output_stream_put_bytes_finish(session->channel->frames_out, result, &error))
    session_continue(session);
  else
    session_fail(session, "answering", error);
}

static void
on_bytes(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GBytes) bytes = read_bytes_finish(session, result);

  if (bytes == NULL)
    return;
  session->remaining--;
  gvc_bytes_output_stream_put_bytes_async(session->channel->frames_out, bytes, G_PRIORITY_DEFAULT,
                                          limited(session), on_bytes_answered, session);
}

static void
read_bytes(Session *session)
{
  gvc_bytes_input_stream_read_bytes_async(session->channel->frames_in, G_PRIORITY_DEFAULT,
                                          limited(session), on_bytes, session);
}

/* Variants. */

static void
on_variant_answered(GObject *object, GAsyncResult *result, gpointer data)
{
  if (put_variant_finish(data, result))
    session_continue(data);
}

static void
on_variant(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GVariant) variant = read_variant_finish(session, result);
  g_autofree char *backwards = NULL;
  const char *text;
  guint32 number;

  if (variant == NULL)
    return;
  /* Nobody has checked what arrived; GVariant gives default values for parts that are broken. */
  g_variant_get(variant, "(&su)", &text, &number);
  backwards = g_utf8_strreverse(text, -1);
  session->remaining--;
  put_variant(session, g_variant_new(VARIANT_FORMAT, backwards, number + 1), on_variant_answered);
}

static void
read_variant(Session *session)
{
  gvc_bytes_input_stream_read_variant_async(session->channel->frames_in, VARIANT_FORMAT,
                                            G_PRIORITY_DEFAULT, limited(session), on_variant,
                                            session);
}

/* Strings. */

static void
on_string_answered(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GError) error = NULL;

  g_clear_pointer(&session->string, g_free);
  if (gvc_output_stream_util_write_all_finish(G_OUTPUT_STREAM(object), result, NULL, &error))
    session_continue(session);
  else
    session_fail(session, "answering", error);
}

static void
on_string(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GError) error = NULL;
  gsize length;

  session->string = gvc_data_input_stream_read_string_finish(session->channel->strings_in, result,
                                                             &length, &error);
  if (session->string == NULL) {
    session_fail(session, "reading a string", error);
    return;
  }
  /* The terminator is the last byte, and no NUL follows it. */
  for (gsize i = 0; i < length; i++)
    session->string[i] = g_ascii_toupper(session->string[i]);
  session->remaining--;
  gvc_output_stream_util_write_all_async(G_OUTPUT_STREAM(session->channel->frames_out),
                                         session->string, length, G_PRIORITY_DEFAULT,
                                         limited(session), on_string_answered, session);
}

static void
read_string(Session *session)
{
  gvc_data_input_stream_read_string_async(session->channel->strings_in, STRING_END,
                                          G_PRIORITY_DEFAULT, limited(session), on_string, session);
}

/* Files. */

static void
on_checksum(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GError) error = NULL;
  g_autofree char *checksum = g_task_propagate_pointer(G_TASK(result), &error);

  if (checksum == NULL) {
    session_fail(session, session->path, error);
    return;
  }
  g_print("%s: %s, %" G_GUINT64_FORMAT " bytes, SHA-256 %s\n", session->peer, session->path,
          session->size, checksum);
  put_variant(session, g_variant_new(CHECKSUM_FORMAT, checksum), on_variant_answered);
}

static void
compute_checksum(GTask *task, gpointer source, gpointer path, GCancellable *cancellable)
{
  GError *error = NULL;
  char *checksum = checksum_of_file(path, &error);

  if (checksum != NULL)
    g_task_return_pointer(task, checksum, g_free);
  else
    g_task_return_error(task, error);
}

/* Reading the whole file once more would keep the other callers waiting, so a thread does it. */
static void
on_received_answered(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GTask) task = NULL;

  if (!put_variant_finish(session, result))
    return;
  g_clear_handle_id(&session->watchdog, g_source_remove);
  task = g_task_new(NULL, NULL, on_checksum, session);
  g_task_set_task_data(task, g_strdup(session->path), g_free);
  g_task_run_in_thread(task, compute_checksum);
}

static void
finish_file(Session *session)
{
  g_autoptr(GError) error = NULL;

  if (!g_output_stream_close(session->file, NULL, &error)) {
    session_fail(session, session->path, error);
    return;
  }
  g_clear_object(&session->file);
  put_variant(session, g_variant_new(RECEIVED_FORMAT, session->size), on_received_answered);
}

static gboolean
store(Session *session, GBytes *bytes, GError **error)
{
  gsize size;
  gconstpointer data = g_bytes_get_data(bytes, &size);

  if (size > session->remaining) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                "the caller sends more bytes than it announced");
    return FALSE;
  }
  session->remaining -= size;
  return g_output_stream_write_all(session->file, data, size, NULL, NULL, error);
}

static void
on_file_bytes(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GBytes) bytes = read_bytes_finish(session, result);
  g_autoptr(GError) error = NULL;

  if (bytes == NULL)
    return;
  if (!store(session, bytes, &error))
    session_fail(session, session->path, error);
  else
    session->read(session);
}

static void
read_file(Session *session)
{
  if (session->remaining == 0)
    finish_file(session);
  else
    gvc_bytes_input_stream_read_bytes_async(session->channel->frames_in, G_PRIORITY_DEFAULT,
                                            limited(session), on_file_bytes, session);
}

/* The name comes from the caller and must not lead out of the directory, nor over an old file. */
static gboolean
open_file(Session *session, const char *name, guint64 size, GError **error)
{
  g_autoptr(GFile) file = NULL;

  if (session->server->directory == NULL) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "no files are taken here");
    return FALSE;
  }
  if (name[0] == '\0' || name[0] == '.' || strchr(name, G_DIR_SEPARATOR) != NULL) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_FILENAME, "not a name for a file: \"%s\"",
                name);
    return FALSE;
  }
  g_free(session->path);
  session->path = g_build_filename(session->server->directory, name, NULL);
  session->size = size;
  file = g_file_new_for_path(session->path);
  session->file = G_OUTPUT_STREAM(g_file_create(file, G_FILE_CREATE_PRIVATE, NULL, error));
  return session->file != NULL;
}

/* Requests. */

static const struct {
  const char *kind;
  void (*read)(Session *session);
} kinds[] = {
    {KIND_BYTES, read_bytes}, {KIND_VARIANTS, read_variant}, {KIND_STRINGS, read_string},
    {KIND_FILE, read_file},   {KIND_BYE, session_end},
};

static gboolean
take_request(Session *session, const char *kind, guint64 count, const char *name, GError **error)
{
  session->read = NULL;
  for (guint i = 0; i < G_N_ELEMENTS(kinds); i++) {
    if (strcmp(kind, kinds[i].kind) == 0)
      session->read = kinds[i].read;
  }
  if (session->read == NULL) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "no such request: \"%s\"", kind);
    return FALSE;
  }
  if (session->read == read_file && !open_file(session, name, count, error))
    return FALSE;
  session->remaining = count;
  return TRUE;
}

static void
on_taken(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;

  if (!put_variant_finish(session, result))
    return;
  if (session->read == read_file || session->read == session_end)
    session->read(session);
  else
    session_continue(session);
}

static void
on_request(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  g_autoptr(GVariant) request = read_variant_finish(session, result);
  g_autoptr(GError) error = NULL;
  const char *kind;
  const char *name;
  guint64 count;

  if (request == NULL)
    return;
  g_variant_get(request, "(&st&s)", &kind, &count, &name);
  if (take_request(session, kind, count, name, &error)) {
    put_variant(session, g_variant_new(ANSWER_FORMAT, TRUE, ""), on_taken);
  } else {
    if (!session->refused)
      g_printerr("%s: refused: %s\n", session->peer, error->message);
    session->refused = TRUE;
    session->remaining = 0;
    put_variant(session, g_variant_new(ANSWER_FORMAT, FALSE, error->message), on_variant_answered);
  }
}

static void
read_request(Session *session)
{
  gvc_bytes_input_stream_read_variant_async(session->channel->frames_in, REQUEST_FORMAT,
                                            G_PRIORITY_DEFAULT, limited(session), on_request,
                                            session);
}

/* The server. */

static gboolean
on_incoming(GSocketService *service, GSocketConnection *socket, GObject *source, gpointer data)
{
  Server *server = data;
  Session *session = g_new0(Session, 1);

  session->server = server;
  session->channel = channel_new(socket, &server->stages, 0);
  session->peer =
      gvc_io_stream_get_remote_address_string(G_IO_STREAM(session->channel->connection));
  session->cancellable = g_cancellable_new();
  server->running++;
  server->served++;
  if (server->running >= MOST_AT_ONCE || (server->callers > 0 && server->served >= server->callers))
    g_socket_service_stop(service);
  g_print("%s: connected\n", session->peer);
  read_request(session);
  return TRUE;
}

static gboolean
on_signal(gpointer data)
{
  g_main_loop_quit(data);
  return G_SOURCE_CONTINUE;
}

static gboolean
listen_on(Server *server, GError **error)
{
  g_autoptr(GSocketAddress) asked = NULL;
  g_autoptr(GSocketAddress) given = NULL;
  g_autofree char *stages = stages_describe(&server->stages);

  asked = g_inet_socket_address_new_from_string(server->address, (guint)server->port);
  if (asked == NULL) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_ARGUMENT, "not an address: \"%s\"",
                server->address);
    return FALSE;
  }
  server->service = g_socket_service_new();
  g_signal_connect(server->service, "incoming", G_CALLBACK(on_incoming), server);
  if (!g_socket_listener_add_address(G_SOCKET_LISTENER(server->service), asked,
                                     G_SOCKET_TYPE_STREAM, G_SOCKET_PROTOCOL_TCP, NULL, &given,
                                     error))
    return FALSE;
  g_print("listening on %s port %u, %s\n", server->address,
          g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(given)), stages);
  return TRUE;
}

static gboolean
parse_arguments(Server *server, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"address", 0, 0, G_OPTION_ARG_STRING, &server->address, "Listen here (127.0.0.1)",
       "ADDRESS"},
      {"port", 0, 0, G_OPTION_ARG_INT, &server->port, "Listen on this port (any free one)", "PORT"},
      {"directory", 0, 0, G_OPTION_ARG_FILENAME, &server->directory, "Take files and put them here",
       "DIRECTORY"},
      {"callers", 0, 0, G_OPTION_ARG_INT, &server->callers, "Stop after so many (never)", "N"},
      {"timeout", 0, 0, G_OPTION_ARG_INT, &server->timeout, "Give up on a silent caller (10)",
       "SECONDS"},
      {NULL, 0, 0, 0, NULL, NULL, NULL},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("- answer messages and take files");

  server->address = g_strdup("127.0.0.1");
  server->timeout = 10;
  stages_add_options(&server->stages, context);
  g_option_context_add_main_entries(context, entries, NULL);
  if (!g_option_context_parse(context, argc, argv, error))
    return FALSE;
  if (*argc > 1) {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_FAILED, "what is \"%s\" for?", (*argv)[1]);
    return FALSE;
  }
  if (server->port < 0 || server->port > 65535 || server->timeout < 1) {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, "port or timeout out of range");
    return FALSE;
  }
  return TRUE;
}

/* The exit status: 0 when every caller said good-bye, 1 when something failed, 2 for wrong use. */
int
main(int argc, char **argv)
{
  Server server = {0};
  g_autoptr(GError) error = NULL;
  int status = EXIT_SUCCESS;

  setlocale(LC_ALL, "");
  gvc_init();
  server.loop = g_main_loop_new(NULL, FALSE);
  g_unix_signal_add(SIGINT, on_signal, server.loop);
  g_unix_signal_add(SIGTERM, on_signal, server.loop);

  if (!parse_arguments(&server, &argc, &argv, &error)) {
    g_printerr("%s: %s\n", g_get_prgname(), error->message);
    status = 2;
  } else if (!listen_on(&server, &error)) {
    g_printerr("%s: %s\n", g_get_prgname(), error->message);
    status = EXIT_FAILURE;
  } else {
    g_main_loop_run(server.loop);
    status = server.failed ? EXIT_FAILURE : EXIT_SUCCESS;
  }

  g_clear_object(&server.service);
  g_main_loop_unref(server.loop);
  stages_clear(&server.stages);
  g_free(server.directory);
  g_free(server.address);
  return status;
}
