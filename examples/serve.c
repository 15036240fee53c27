/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* The server: answers messages and stores files for many callers at once, in one main loop. Every
 * read from a channel and every write to a channel is asynchronous. */
#include "channel.h"

#include <glib-unix.h>
#include <glib/gstdio.h>
#include <locale.h>
#include <signal.h>
#include <stdlib.h>

/* Each caller costs a descriptor and memory. Further callers wait in the listen queue. */
#define MOST_AT_ONCE 100

typedef struct {
  Stages stages;
  char *address;
  int port;
  char *directory;
  int callers;
  int timeout;
  GSocketListener *listener;
  GMainLoop *loop;
  int served;
  GQueue sessions;
  gboolean accepting;
  gboolean failed;
} Server;

typedef struct Session Session;
/* Starts an operation. FALSE if that fails. */
typedef gboolean (*Start)(Session *session, GError **error);
/* Takes the result of the pending operation and starts the next one. */
typedef gboolean (*Step)(Session *session, GAsyncResult *result, GError **error);

typedef struct {
  const char *name;
  void (*read)(Session *session, Step step);
  Step take;    /* what was read */
  Start finish; /* when nothing is left to read */
} Kind;

/* One caller. Exactly one operation is pending for it at any time. */
struct Session {
  Server *server;
  Channel *channel;
  char *peer;
  const char *doing; /* the pending operation, for the log */
  Step step;         /* follows when this operation has ended */
  Start next;        /* follows when the pending answer has been sent */
  const Kind *kind;  /* of the last request */
  guint64 remaining; /* messages or bytes that it announced and are still to come */
  char *string;      /* the pending answer to a string */
  char *path;        /* the file that is being received */
  guint64 size;
  GOutputStream *file;
  GCancellable *cancellable;
  guint watchdog;   /* cancels the pending operation */
  gboolean refused; /* logs one refused request per caller, so that nobody can fill the log */
};

static void accept_next(Server *server);

static gboolean
served_all(const Server *server)
{
  return server->callers > 0 && server->served >= server->callers;
}

/* A file that has not been closed is not complete. */
static void
remove_incomplete_file(gpointer data)
{
  Session *session = data;

  if (session->file != NULL)
    g_unlink(session->path);
}

static void
session_free(Session *session)
{
  Server *server = session->server;

  remove_incomplete_file(session);
  g_queue_remove(&server->sessions, session);
  g_clear_object(&session->file);
  g_object_unref(session->cancellable);
  channel_free(session->channel);
  g_free(session->string);
  g_free(session->path);
  g_free(session->peer);
  g_free(session);

  accept_next(server);
  if (server->sessions.length == 0 && served_all(server))
    g_main_loop_quit(server->loop);
}

static gboolean
on_watchdog(gpointer data)
{
  Session *session = data;

  session->watchdog = 0;
  g_cancellable_cancel(session->cancellable);
  return G_SOURCE_REMOVE;
}

/* Sets what follows the operation that the caller of this function starts. Returns a cancellable
 * that ends this operation at a deadline. The timeout of a socket is no deadline: it starts again
 * with each byte. */
static GCancellable *
begin(Session *session, const char *doing, Step step)
{
  session->doing = doing;
  session->step = step;
  session->watchdog = g_timeout_add_seconds((guint)session->server->timeout, on_watchdog, session);
  return session->cancellable;
}

/* The callback of all operations. A step that starts no other operation ends the session. */
static void
on_step(GObject *object, GAsyncResult *result, gpointer data)
{
  Session *session = data;
  Step step = g_steal_pointer(&session->step);
  g_autoptr(GError) error = NULL;

  g_clear_handle_id(&session->watchdog, g_source_remove);
  if (!step(session, result, &error)) {
    gboolean late = g_cancellable_is_cancelled(session->cancellable);

    g_printerr("%s: %s: %s\n", session->peer, session->doing,
               late ? "it took too long" : error->message);
    session->server->failed = TRUE;
  } else if (session->step != NULL) {
    return;
  }
  session_free(session);
}

static gboolean
go_on(Session *session, GError **error)
{
  if (session->remaining == 0)
    return session->kind->finish(session, error);
  session->kind->read(session, session->kind->take);
  return TRUE;
}

static gboolean
answered(Session *session, GAsyncResult *result, GError **error)
{
  return gvc_bytes_output_stream_put_variant_finish(session->channel->frames_out, result, error) &&
         session->next(session, error);
}

static gboolean
answer(Session *session, GVariant *variant, Start next)
{
  g_autoptr(GVariant) sunk = g_variant_ref_sink(variant);

  session->next = next;
  gvc_bytes_output_stream_put_variant_async(session->channel->frames_out, sunk, G_PRIORITY_DEFAULT,
                                            begin(session, "answering", answered), on_step,
                                            session);
  return TRUE;
}

static void
read_variant(Session *session, const char *format, Step step)
{
  gvc_bytes_input_stream_read_variant_async(session->channel->frames_in, format, G_PRIORITY_DEFAULT,
                                            begin(session, "reading", step), on_step, session);
}

static GVariant *
read_variant_finish(Session *session, GAsyncResult *result, GError **error)
{
  GVariant *variant =
      gvc_bytes_input_stream_read_variant_finish(session->channel->frames_in, result, error);

  return variant != NULL ? g_variant_ref_sink(variant) : NULL;
}

/* Byte messages. */

static void
read_bytes(Session *session, Step step)
{
  gvc_bytes_input_stream_read_bytes_async(session->channel->frames_in, G_PRIORITY_DEFAULT,
                                          begin(session, "reading", step), on_step, session);
}

static gboolean
bytes_answered(Session *session, GAsyncResult *result, GError **error)
{
  return gvc_bytes_output_stream_put_bytes_finish(session->channel->frames_out, result, error) &&
         go_on(session, error);
}

static gboolean
answer_bytes(Session *session, GAsyncResult *result, GError **error)
{
  g_autoptr(GBytes) bytes =
      gvc_bytes_input_stream_read_bytes_finish(session->channel->frames_in, result, error);

  if (bytes == NULL)
    return FALSE;
  session->remaining--;
  gvc_bytes_output_stream_put_bytes_async(session->channel->frames_out, bytes, G_PRIORITY_DEFAULT,
                                          begin(session, "answering", bytes_answered), on_step,
                                          session);
  return TRUE;
}

/* Variants. */

static gboolean
answer_variant(Session *session, GAsyncResult *result, GError **error)
{
  g_autoptr(GVariant) variant = read_variant_finish(session, result, error);
  g_autofree char *backwards = NULL;
  const char *text;
  guint32 number;

  if (variant == NULL)
    return FALSE;
  /* The variant is not validated. GVariant returns default values for malformed parts. */
  g_variant_get(variant, "(&su)", &text, &number);
  backwards = g_utf8_strreverse(text, -1);
  session->remaining--;
  return answer(session, g_variant_new(VARIANT_FORMAT, backwards, number + 1), go_on);
}

static void
read_message_variant(Session *session, Step step)
{
  read_variant(session, VARIANT_FORMAT, step);
}

/* Strings. */

static gboolean
string_answered(Session *session, GAsyncResult *result, GError **error)
{
  GOutputStream *out = G_OUTPUT_STREAM(session->channel->frames_out);

  g_clear_pointer(&session->string, g_free);
  return gvc_output_stream_util_write_all_finish(out, result, NULL, error) && go_on(session, error);
}

static gboolean
answer_string(Session *session, GAsyncResult *result, GError **error)
{
  gsize length;

  session->string = gvc_data_input_stream_read_string_finish(session->channel->strings_in, result,
                                                             &length, error);
  if (session->string == NULL)
    return FALSE;
  /* The last byte is the terminator. No NUL follows. */
  for (gsize i = 0; i < length; i++)
    session->string[i] = g_ascii_toupper(session->string[i]);
  session->remaining--;
  gvc_output_stream_util_write_all_async(
      G_OUTPUT_STREAM(session->channel->frames_out), session->string, length, G_PRIORITY_DEFAULT,
      begin(session, "answering", string_answered), on_step, session);
  return TRUE;
}

static void
read_string(Session *session, Step step)
{
  gvc_data_input_stream_read_string_async(
      session->channel->strings_in, STRING_END, G_PRIORITY_DEFAULT,
      begin(session, "reading a string", step), on_step, session);
}

/* Requests. */

static gboolean take_request(Session *session, GAsyncResult *result, GError **error);

static gboolean
read_request(Session *session, GError **error)
{
  read_variant(session, REQUEST_FORMAT, take_request);
  return TRUE;
}

/* Files. */

static gboolean
answer_checksum(Session *session, GAsyncResult *result, GError **error)
{
  g_autofree char *checksum = g_task_propagate_pointer(G_TASK(result), error);

  if (checksum == NULL)
    return FALSE;
  g_print("%s: %s, %" G_GUINT64_FORMAT " bytes, SHA-256 %s\n", session->peer, session->path,
          session->size, checksum);
  return answer(session, g_variant_new(CHECKSUM_FORMAT, checksum), read_request);
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

/* A thread reads the file again, so that other callers do not wait. It needs no deadline. */
static gboolean
start_checksum(Session *session, GError **error)
{
  g_autoptr(GTask) task = g_task_new(NULL, NULL, on_step, session);

  session->doing = session->path;
  session->step = answer_checksum;
  g_task_set_task_data(task, g_strdup(session->path), g_free);
  g_task_run_in_thread(task, compute_checksum);
  return TRUE;
}

static gboolean
finish_file(Session *session, GError **error)
{
  session->doing = session->path;
  if (!g_output_stream_close(session->file, NULL, error))
    return FALSE;
  g_clear_object(&session->file);
  return answer(session, g_variant_new(RECEIVED_FORMAT, session->size), start_checksum);
}

static gboolean
store(Session *session, GAsyncResult *result, GError **error)
{
  g_autoptr(GBytes) bytes =
      gvc_bytes_input_stream_read_bytes_finish(session->channel->frames_in, result, error);
  gconstpointer data;
  gsize size;

  if (bytes == NULL)
    return FALSE;
  session->doing = session->path;
  data = g_bytes_get_data(bytes, &size);
  if (size > session->remaining) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
                "the caller sends more bytes than it announced");
    return FALSE;
  }
  session->remaining -= size;
  return g_output_stream_write_all(session->file, data, size, NULL, NULL, error) &&
         go_on(session, error);
}

/* The caller chooses the name. It must not lead out of the directory, replace a file or control a
 * terminal. */
static gboolean
open_file(Session *session, const char *name, guint64 size, GError **error)
{
  g_autoptr(GFile) file = NULL;
  g_autofree char *shown = printable(name);

  if (session->server->directory == NULL) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "no files are taken here");
    return FALSE;
  }
  if (name[0] == '\0' || name[0] == '.' || strchr(name, G_DIR_SEPARATOR) != NULL ||
      strcmp(name, shown) != 0) {
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_FILENAME, "not a name for a file: \"%s\"",
                shown);
    return FALSE;
  }
  g_free(session->path);
  session->path = g_build_filename(session->server->directory, name, NULL);
  session->size = size;
  file = g_file_new_for_path(session->path);
  session->file = G_OUTPUT_STREAM(g_file_create(file, G_FILE_CREATE_PRIVATE, NULL, error));
  return session->file != NULL;
}

/* The end. */

static gboolean
closed(Session *session, GAsyncResult *result, GError **error)
{
  GOutputStream *out = G_OUTPUT_STREAM(g_async_result_get_source_object(result));
  gboolean done = g_output_stream_close_finish(out, result, error);

  g_object_unref(out);
  if (done)
    g_print("%s: done\n", session->peer);
  return done;
}

/* Closing sends the end of the stages. A blocking close would wait for a caller that does not
 * read. */
static gboolean
close_session(Session *session, GError **error)
{
  GIOStream *io = G_IO_STREAM(session->channel->connection);

  g_output_stream_close_async(g_io_stream_get_output_stream(io), G_PRIORITY_DEFAULT,
                              begin(session, "closing", closed), on_step, session);
  return TRUE;
}

static const Kind kinds[] = {
    {KIND_BYTES, read_bytes, answer_bytes, read_request},
    {KIND_VARIANTS, read_message_variant, answer_variant, read_request},
    {KIND_STRINGS, read_string, answer_string, read_request},
    {KIND_FILE, read_bytes, store, finish_file},
    {KIND_BYE, NULL, NULL, close_session},
};

static gboolean
accept_request(Session *session, const char *name, guint64 count, const char *file, GError **error)
{
  const Kind *kind = kinds;

  while (kind < kinds + G_N_ELEMENTS(kinds) && strcmp(name, kind->name) != 0)
    kind++;
  if (kind == kinds + G_N_ELEMENTS(kinds)) {
    g_autofree char *shown = printable(name);

    g_set_error(error, G_IO_ERROR, G_IO_ERROR_NOT_SUPPORTED, "no such request: \"%s\"", shown);
    return FALSE;
  }
  session->kind = kind;
  session->remaining = kind->read != NULL ? count : 0;
  return kind->take != store || open_file(session, file, count, error);
}

static gboolean
take_request(Session *session, GAsyncResult *result, GError **error)
{
  g_autoptr(GVariant) request = read_variant_finish(session, result, error);
  g_autoptr(GError) refusal = NULL;
  const char *kind;
  const char *name;
  guint64 count;

  if (request == NULL)
    return FALSE;
  g_variant_get(request, "(&st&s)", &kind, &count, &name);
  if (accept_request(session, kind, count, name, &refusal))
    return answer(session, g_variant_new(ANSWER_FORMAT, TRUE, ""), go_on);
  if (!session->refused)
    g_printerr("%s: refused: %s\n", session->peer, refusal->message);
  session->refused = TRUE;
  return answer(session, g_variant_new(ANSWER_FORMAT, FALSE, refusal->message), read_request);
}

/* The server. */

static void
session_start(Server *server, GSocketConnection *socket)
{
  Session *session = g_new0(Session, 1);

  session->server = server;
  session->channel = channel_new(socket, &server->stages);
  session->peer =
      gvc_io_stream_get_remote_address_string(G_IO_STREAM(session->channel->connection));
  session->cancellable = g_cancellable_new();
  g_queue_push_tail(&server->sessions, session);
  server->served++;
  g_print("%s: connected\n", session->peer);
  read_request(session, NULL);
}

static gboolean
on_pause_over(gpointer data)
{
  Server *server = data;

  server->accepting = FALSE;
  accept_next(server);
  return G_SOURCE_REMOVE;
}

static void
on_accepted(GObject *object, GAsyncResult *result, gpointer data)
{
  Server *server = data;
  g_autoptr(GError) error = NULL;
  g_autoptr(GSocketConnection) socket =
      g_socket_listener_accept_finish(server->listener, result, NULL, &error);

  if (socket == NULL) {
    /* Without a pause this would spin while the system is out of descriptors. */
    g_printerr("accepting: %s\n", error->message);
    g_timeout_add_seconds(1, on_pause_over, server);
    return;
  }
  server->accepting = FALSE;
  session_start(server, socket);
  accept_next(server);
}

static void
accept_next(Server *server)
{
  if (server->accepting || server->sessions.length >= MOST_AT_ONCE || served_all(server))
    return;
  server->accepting = TRUE;
  g_socket_listener_accept_async(server->listener, NULL, on_accepted, server);
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
  server->listener = g_socket_listener_new();
  if (!g_socket_listener_add_address(server->listener, asked, G_SOCKET_TYPE_STREAM,
                                     G_SOCKET_PROTOCOL_TCP, NULL, &given, error))
    return FALSE;
  g_print("listening on %s port %u, %s\n", server->address,
          g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(given)), stages);
  accept_next(server);
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

/* Exits with 0 if every caller said goodbye, 1 if something failed, 2 for a wrong command line. */
int
main(int argc, char **argv)
{
  Server server = {.address = g_strdup("127.0.0.1"), .timeout = 10};
  g_autoptr(GError) error = NULL;
  int status = EXIT_SUCCESS;

  setlocale(LC_ALL, "");
  gvc_init();
  server.loop = g_main_loop_new(NULL, FALSE);
  g_unix_signal_add(SIGINT, on_signal, server.loop);
  g_unix_signal_add(SIGTERM, on_signal, server.loop);

  if (!parse_arguments(&server, &argc, &argv, &error))
    status = 2;
  else if (!listen_on(&server, &error))
    status = EXIT_FAILURE;
  else
    g_main_loop_run(server.loop);
  g_queue_clear_full(&server.sessions, remove_incomplete_file);
  if (server.failed)
    status = EXIT_FAILURE;
  if (error != NULL)
    g_printerr("%s: %s\n", g_get_prgname(), error->message);

  g_clear_object(&server.listener);
  g_main_loop_unref(server.loop);
  stages_clear(&server.stages);
  g_free(server.directory);
  g_free(server.address);
  return status;
}
