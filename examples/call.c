/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* The client: exchanges messages of every kind with serve, checks every answer, and sends files. It
 * does one thing at a time, so it uses the blocking calls. */
#include "channel.h"

#include <locale.h>
#include <stdlib.h>
#include <string.h>

typedef struct {
  Stages stages;
  char *address;
  int port;
  int messages;
  int chunk;
  int timeout;
  gboolean summary;
  char **files;
} Options;

typedef struct {
  Channel *channel;
  GCancellable *cancellable;
  GMainContext *clock; /* of the thread that watches the deadline */
  GSource *deadline;
  int over; /* ends this thread */
  guint timeout;
  guint messages;      /* of each kind */
  guint64 frames;      /* sent and received */
  guint64 strings;     /* likewise */
  guint64 payload;     /* their bytes, without lengths and terminators */
  gint64 message_time; /* microseconds */
  gint64 file_time;    /* likewise, without the time for checksums */
} Call;

/* The deadline. A blocking call ends early only if another thread cancels it. The timeout of a
 * socket is no deadline: it starts again with each byte. */

static gpointer
run_clock(gpointer data)
{
  Call *call = data;

  while (!g_atomic_int_get(&call->over))
    g_main_context_iteration(call->clock, TRUE);
  return NULL;
}

static gboolean
on_late(gpointer cancellable)
{
  g_cancellable_cancel(cancellable);
  return G_SOURCE_REMOVE;
}

/* Sets the deadline of the next blocking call. */
static GCancellable *
limited(Call *call)
{
  g_source_set_ready_time(call->deadline,
                          g_get_monotonic_time() + (gint64)call->timeout * G_USEC_PER_SEC);
  return call->cancellable;
}

static void
remove_deadline(Call *call)
{
  g_source_set_ready_time(call->deadline, -1);
}

/* Messages. */

static gboolean
put_bytes(Call *call, GBytes *bytes, GError **error)
{
  gboolean done =
      gvc_bytes_output_stream_put_bytes(call->channel->frames_out, bytes, limited(call), error);

  call->frames++;
  call->payload += g_bytes_get_size(bytes);
  return done;
}

static GBytes *
read_bytes(Call *call, GError **error)
{
  GBytes *bytes = gvc_bytes_input_stream_read_bytes(call->channel->frames_in, limited(call), error);

  if (bytes == NULL)
    return NULL;
  call->frames++;
  call->payload += g_bytes_get_size(bytes);
  return bytes;
}

static gboolean
put_variant(Call *call, GVariant *variant, GError **error)
{
  g_autoptr(GVariant) sunk = g_variant_ref_sink(variant);
  gboolean done =
      gvc_bytes_output_stream_put_variant(call->channel->frames_out, sunk, limited(call), error);

  call->frames++;
  call->payload += g_variant_get_size(sunk);
  return done;
}

static GVariant *
read_variant(Call *call, const char *format, GError **error)
{
  GVariant *variant =
      gvc_bytes_input_stream_read_variant(call->channel->frames_in, format, limited(call), error);

  if (variant == NULL)
    return NULL;
  call->frames++;
  call->payload += g_variant_get_size(variant);
  return g_variant_ref_sink(variant);
}

static gboolean
put_string(Call *call, const char *string, GError **error)
{
  g_autofree char *line = g_strdup_printf("%s%c", string, STRING_END);
  gboolean done = g_output_stream_write_all(G_OUTPUT_STREAM(call->channel->frames_out), line,
                                            strlen(line), NULL, limited(call), error);

  call->strings++;
  call->payload += strlen(string);
  return done;
}

/* At the end of the stream, this reader waits for its terminator until the deadline. */
static char *
read_string(Call *call, GError **error)
{
  gsize length;
  char *string = gvc_data_input_stream_read_string(call->channel->strings_in, STRING_END, &length,
                                                   limited(call), error);

  if (string == NULL)
    return NULL;
  call->strings++;
  call->payload += length - 1;
  string[length - 1] = '\0'; /* replaces the terminator */
  return string;
}

static gboolean
fail_unequal(const char *what, GError **error)
{
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA, "wrong answer to %s", what);
  return FALSE;
}

/* Announces what follows. FALSE if the server refuses it. */
static gboolean
request(Call *call, const char *kind, guint64 count, const char *name, GError **error)
{
  g_autoptr(GVariant) answer = NULL;
  g_autofree char *shown = NULL;
  const char *reason;
  gboolean taken;

  if (!put_variant(call, g_variant_new(REQUEST_FORMAT, kind, count, name), error))
    return FALSE;
  answer = read_variant(call, ANSWER_FORMAT, error);
  if (answer == NULL)
    return FALSE;
  g_variant_get(answer, "(b&s)", &taken, &reason);
  shown = printable(reason);
  if (!taken)
    g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "the server refuses: %s", shown);
  return taken;
}

/* Never empty: the blocking reader takes an empty frame for the end of the channel. */
static GBytes *
some_bytes(guint number)
{
  gsize size = 1 + (number * 997) % 8192;
  guint8 *data = g_malloc(size);

  for (gsize i = 0; i < size; i++)
    data[i] = (guint8)((i / 8) ^ number);
  return g_bytes_new_take(data, size);
}

static gboolean
exchange_bytes(Call *call, guint number, GError **error)
{
  g_autoptr(GBytes) bytes = some_bytes(number);
  g_autoptr(GBytes) answer = NULL;

  if (!put_bytes(call, bytes, error))
    return FALSE;
  answer = read_bytes(call, error);
  if (answer == NULL)
    return FALSE;
  return g_bytes_equal(bytes, answer) || fail_unequal("a byte message", error);
}

static gboolean
exchange_variant(Call *call, guint number, GError **error)
{
  g_autofree char *text = g_strdup_printf("message %u of %u", number, call->messages);
  g_autofree char *backwards = g_utf8_strreverse(text, -1);
  g_autoptr(GVariant) answer = NULL;
  const char *answer_text;
  guint32 answer_number;

  if (!put_variant(call, g_variant_new(VARIANT_FORMAT, text, number), error))
    return FALSE;
  answer = read_variant(call, VARIANT_FORMAT, error);
  if (answer == NULL)
    return FALSE;
  g_variant_get(answer, "(&su)", &answer_text, &answer_number);
  if (strcmp(answer_text, backwards) != 0 || answer_number != number + 1)
    return fail_unequal("a variant", error);
  return TRUE;
}

static gboolean
exchange_string(Call *call, guint number, GError **error)
{
  g_autofree char *string = g_strdup_printf("line %u of %u", number, call->messages);
  g_autofree char *capitals = g_ascii_strup(string, -1);
  g_autofree char *answer = NULL;

  if (!put_string(call, string, error))
    return FALSE;
  answer = read_string(call, error);
  if (answer == NULL)
    return FALSE;
  return strcmp(answer, capitals) == 0 || fail_unequal("a string", error);
}

/* The parts share the memory of the file. */
static gboolean
send_parts(Call *call, GBytes *bytes, gsize chunk, GError **error)
{
  gsize size = g_bytes_get_size(bytes);

  for (gsize sent = 0; sent < size;) {
    gsize length = MIN(chunk, size - sent);
    g_autoptr(GBytes) part = g_bytes_new_from_bytes(bytes, sent, length);

    if (!put_bytes(call, part, error))
      return FALSE;
    sent += length;
  }
  return TRUE;
}

static gboolean
hear_received(Call *call, guint64 size, GError **error)
{
  g_autoptr(GVariant) answer = read_variant(call, RECEIVED_FORMAT, error);
  guint64 received;

  if (answer == NULL)
    return FALSE;
  g_variant_get(answer, RECEIVED_FORMAT, &received);
  return received == size || fail_unequal("a file", error);
}

static gboolean
hear_checksum(Call *call, const char *path, const char *checksum, GError **error)
{
  g_autoptr(GVariant) answer = read_variant(call, CHECKSUM_FORMAT, error);
  g_autofree char *shown = NULL;
  const char *theirs;

  if (answer == NULL)
    return FALSE;
  g_variant_get(answer, "(&s)", &theirs);
  if (strcmp(checksum, theirs) == 0)
    return TRUE;
  shown = printable(theirs);
  g_set_error(error, G_IO_ERROR, G_IO_ERROR_INVALID_DATA,
              "%s arrived with the SHA-256 checksum %s instead of %s", path, shown, checksum);
  return FALSE;
}

static gboolean
send_file(Call *call, const char *path, gsize chunk, GError **error)
{
  g_autoptr(GMappedFile) file = g_mapped_file_new(path, FALSE, error);
  g_autoptr(GBytes) bytes = NULL;
  g_autofree char *name = g_path_get_basename(path);
  g_autofree char *checksum = NULL;
  double seconds;
  gint64 start;
  gint64 taken;
  gsize size;

  if (file == NULL)
    return FALSE;
  bytes = g_mapped_file_get_bytes(file);
  size = g_bytes_get_size(bytes);
  remove_deadline(call); /* hashing takes as long as it takes */
  checksum = g_compute_checksum_for_bytes(G_CHECKSUM_SHA256, bytes);

  start = g_get_monotonic_time();
  if (!request(call, KIND_FILE, size, name, error) || !send_parts(call, bytes, chunk, error) ||
      !hear_received(call, size, error))
    return FALSE;
  taken = g_get_monotonic_time() - start;
  call->file_time += taken;
  seconds = (double)taken / G_USEC_PER_SEC;
  if (!hear_checksum(call, path, checksum, error))
    return FALSE;
  g_print("%s: %" G_GSIZE_FORMAT " bytes in %.3f s, %.1f MB/s, SHA-256 agrees: %s\n", path, size,
          seconds, (double)size / 1e6 / MAX(seconds, 1e-6), checksum);
  return TRUE;
}

static const struct {
  const char *kind;
  gboolean (*exchange)(Call *call, guint number, GError **error);
} kinds[] = {
    {KIND_BYTES, exchange_bytes},
    {KIND_VARIANTS, exchange_variant},
    {KIND_STRINGS, exchange_string},
};

static gboolean
exchange_messages(Call *call, guint count, GError **error)
{
  gint64 start = g_get_monotonic_time();

  call->messages = count;
  for (guint kind = 0; kind < G_N_ELEMENTS(kinds); kind++) {
    if (!request(call, kinds[kind].kind, count, "", error))
      return FALSE;
    for (guint i = 0; i < count; i++) {
      if (!kinds[kind].exchange(call, i, error))
        return FALSE;
    }
  }
  call->message_time = g_get_monotonic_time() - start;
  g_print("%u byte messages, %u variants and %u strings sent and answered\n", count, count, count);
  return TRUE;
}

static gboolean
run(Call *call, const Options *options, GError **error)
{
  if (options->messages > 0 && !exchange_messages(call, (guint)options->messages, error))
    return FALSE;
  for (char **file = options->files; file != NULL && *file != NULL; file++) {
    if (!send_file(call, *file, (gsize)options->chunk, error))
      return FALSE;
  }
  /* A reader cannot tell an orderly close from a lost connection. So the end is a message too. */
  return request(call, KIND_BYE, 0, "", error);
}

static gboolean
close_call(Call *call, GError **error)
{
  return channel_close(call->channel, limited(call), error);
}

static GSocketConnection *
connect_to_server(Call *call, const Options *options, GError **error)
{
  g_autoptr(GSocketClient) client = g_socket_client_new();

  /* Proxies are for the internet; this server is near. */
  g_socket_client_set_enable_proxy(client, FALSE);
  return g_socket_client_connect_to_host(client, options->address, (guint16)options->port,
                                         limited(call), error);
}

static gboolean
call_server(Call *call, const Options *options, GError **error)
{
  g_autoptr(GSocketConnection) socket = connect_to_server(call, options, error);
  g_autofree char *stages = stages_describe(&options->stages);
  gboolean done;

  if (socket == NULL)
    return FALSE;
  call->channel = channel_new(socket, &options->stages);
  g_print("connected to %s port %d, %s\n", options->address, options->port, stages);
  done = run(call, options, error) && close_call(call, error);
  if (done && options->summary)
    g_print("frames=%" G_GUINT64_FORMAT " strings=%" G_GUINT64_FORMAT " payload=%" G_GUINT64_FORMAT
            " message_microseconds=%" G_GINT64_FORMAT " file_microseconds=%" G_GINT64_FORMAT "\n",
            call->frames, call->strings, call->payload, call->message_time, call->file_time);
  channel_free(call->channel);
  return done;
}

/* Runs the call beside the thread that watches its deadline. */
static gboolean
call_within_deadline(const Options *options, GError **error)
{
  g_autoptr(GMainContext) clock = g_main_context_new();
  g_autoptr(GCancellable) cancellable = g_cancellable_new();
  g_autoptr(GSource) deadline = g_timeout_source_new_seconds((guint)options->timeout);
  Call call = {.cancellable = cancellable,
               .clock = clock,
               .deadline = deadline,
               .timeout = (guint)options->timeout};
  GThread *thread;
  gboolean done;

  g_source_set_callback(deadline, on_late, cancellable, NULL);
  g_source_attach(deadline, clock);
  thread = g_thread_new("clock", run_clock, &call);
  done = call_server(&call, options, error);

  if (!done && g_cancellable_is_cancelled(cancellable)) {
    g_clear_error(error);
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT, "the server took too long");
  }
  g_atomic_int_set(&call.over, TRUE);
  g_main_context_wakeup(clock);
  g_thread_join(thread);
  return done;
}

static gboolean
check_options(Options *options, GError **error)
{
  const char *wrong = NULL;

  if (options->port < 1 || options->port > 65535)
    wrong = "--port PORT is needed, 1 to 65535";
  else if (options->messages < 0)
    wrong = "a number of messages is not negative";
  else if (options->chunk < 1)
    wrong = "a chunk is at least one byte";
  else if (options->timeout < 1)
    wrong = "a timeout is at least one second";
  if (wrong != NULL)
    g_set_error_literal(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE, wrong);
  return wrong == NULL;
}

static gboolean
parse_arguments(Options *options, int *argc, char ***argv, GError **error)
{
  const GOptionEntry entries[] = {
      {"address", 0, 0, G_OPTION_ARG_STRING, &options->address, "Call this host (127.0.0.1)",
       "HOST"},
      {"port", 0, 0, G_OPTION_ARG_INT, &options->port, "Call this port", "PORT"},
      {"messages", 0, 0, G_OPTION_ARG_INT, &options->messages,
       "Exchange so many messages of each kind (100)", "N"},
      {"chunk", 0, 0, G_OPTION_ARG_INT, &options->chunk,
       "Send files in messages of so many bytes (65536)", "BYTES"},
      {"timeout", 0, 0, G_OPTION_ARG_INT, &options->timeout, "Give up on a silent server (10)",
       "SECONDS"},
      {"summary", 0, 0, G_OPTION_ARG_NONE, &options->summary, "End with the figures for a script",
       NULL},
      {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &options->files, NULL, "[FILE…]"},
      {NULL, 0, 0, 0, NULL, NULL, NULL},
  };
  g_autoptr(GOptionContext) context = g_option_context_new("- exchange messages and send files");

  stages_add_options(&options->stages, context);
  g_option_context_add_main_entries(context, entries, NULL);
  return g_option_context_parse(context, argc, argv, error) && check_options(options, error);
}

/* Exits with 0 if every answer was right, 1 if something failed, 2 for a wrong command line. */
int
main(int argc, char **argv)
{
  Options options = {
      .address = g_strdup("127.0.0.1"), .messages = 100, .chunk = 64 * 1024, .timeout = 10};
  g_autoptr(GError) error = NULL;
  int status = EXIT_SUCCESS;

  setlocale(LC_ALL, "");
  gvc_init();
  if (!parse_arguments(&options, &argc, &argv, &error))
    status = 2;
  else if (!call_within_deadline(&options, &error))
    status = EXIT_FAILURE;
  if (error != NULL)
    g_printerr("%s: %s\n", g_get_prgname(), error->message);

  stages_clear(&options.stages);
  g_strfreev(options.files);
  g_free(options.address);
  return status;
}
