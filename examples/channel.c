/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "channel.h"

#define KEY_SIZE 32

static gboolean
check_stages(GOptionContext *context, GOptionGroup *group, gpointer data, GError **error)
{
  Stages *stages = data;
  g_autofree char *key = NULL;
  gsize size;

  if (stages->key_length == 0)
    stages->key_length = 256;
  if (stages->key_length != 128 && stages->key_length != 256) {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
                "a key length is 128 or 256 bits, not %d", stages->key_length);
    return FALSE;
  }
  if (stages->key_file == NULL)
    return TRUE;
  if (!g_file_get_contents(stages->key_file, &key, &size, error))
    return FALSE;
  if (size != KEY_SIZE) {
    g_set_error(error, G_OPTION_ERROR, G_OPTION_ERROR_BAD_VALUE,
                "%s: a key file holds %d bytes, not %" G_GSIZE_FORMAT, stages->key_file, KEY_SIZE,
                size);
    return FALSE;
  }
  stages->key = g_bytes_new_take(g_steal_pointer(&key), size);
  return TRUE;
}

/* Adds the options for stages to a context, which may get further main entries. */
void
stages_add_options(Stages *stages, GOptionContext *context)
{
  const GOptionEntry entries[] = {
      {"compress", 0, 0, G_OPTION_ARG_NONE, &stages->compress, "Compress (as the peer does)", NULL},
      {"encrypt", 0, 0, G_OPTION_ARG_FILENAME, &stages->key_file,
       "Encrypt with the 32 bytes of this file (as the peer does)", "KEYFILE"},
      {"key-length", 0, 0, G_OPTION_ARG_INT, &stages->key_length,
       "Use 128 or 256 bits of the key (256)", "BITS"},
      {NULL, 0, 0, 0, NULL, NULL, NULL},
  };
  GOptionGroup *group = g_option_group_new("main", NULL, NULL, stages, NULL);

  g_option_group_add_entries(group, entries);
  g_option_group_set_parse_hooks(group, NULL, check_stages);
  g_option_context_set_main_group(context, group);
}

char *
stages_describe(const Stages *stages)
{
  if (stages->key == NULL)
    return g_strdup(stages->compress ? "compressed" : "plain");
  return g_strdup_printf("%sencrypted with %d bits", stages->compress ? "compressed and " : "",
                         stages->key_length);
}

void
stages_clear(Stages *stages)
{
  g_clear_pointer(&stages->key, g_bytes_unref);
  g_clear_pointer(&stages->key_file, g_free);
}

/* The first stage that is added is next to the socket. Encryption goes first, so that data is
 * compressed before it is encrypted; encrypted data does not compress. The peer adds its stages in
 * the same order. */
static void
add_stages(GvcConnection *connection, const Stages *stages)
{
  if (stages->key != NULL) {
    g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(stages->key);
    g_autoptr(GvcEncryptor) encryptor = gvc_encryptor_new(stages->key);

    gvc_decryptor_set_key_length(decryptor, (guint)stages->key_length);
    gvc_encryptor_set_key_length(encryptor, (guint)stages->key_length);
    gvc_connection_add_converters(connection, G_CONVERTER(decryptor), G_CONVERTER(encryptor));
  }
  if (stages->compress) {
    g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
    g_autoptr(GvcCompressor) compressor = gvc_compressor_new();

    gvc_connection_add_converters(connection, G_CONVERTER(decompressor), G_CONVERTER(compressor));
  }
}

/* Gets the streams of the connection after all stages are added, because each stage replaces them.
 * The message streams buffer nothing, so frames and strings can share one pair. */
Channel *
channel_new(GSocketConnection *socket, const Stages *stages)
{
  Channel *channel = g_new0(Channel, 1);
  GIOStream *io;

  channel->connection = gvc_connection_new(socket);
  add_stages(channel->connection, stages);
  io = G_IO_STREAM(channel->connection);
  channel->frames_in = gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io));
  channel->frames_out = gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  channel->strings_in = gvc_data_input_stream_new(g_io_stream_get_input_stream(io));
  return channel;
}

/* Closing a channel sends the end of its stages and closes its two streams. The socket stays open
 * until it is closed too. */
gboolean
channel_close(Channel *channel, GCancellable *cancellable, GError **error)
{
  GIOStream *socket = G_IO_STREAM(gvc_connection_get_connection(channel->connection));
  gboolean closed = g_io_stream_close(G_IO_STREAM(channel->connection), cancellable, error);

  return g_io_stream_close(socket, NULL, closed ? error : NULL) && closed;
}

/* Closes the socket first. Otherwise, after a cancelled write, freeing the streams would wait for a
 * peer that does not read. */
void
channel_free(Channel *channel)
{
  GSocketConnection *socket = gvc_connection_get_connection(channel->connection);

  g_socket_close(g_socket_connection_get_socket(socket), NULL);
  g_object_unref(channel->strings_in);
  g_object_unref(channel->frames_in);
  g_object_unref(channel->frames_out);
  g_object_unref(channel->connection);
  g_free(channel);
}

/* A peer must not control the terminal. */
char *
printable(const char *text)
{
  GString *shown = g_string_new(NULL);

  for (; *text != '\0'; text = g_utf8_next_char(text)) {
    gunichar c = g_utf8_get_char(text);

    g_string_append_unichar(shown, g_unichar_isprint(c) ? c : '?');
  }
  return g_string_free(shown, FALSE);
}

/* Reads the file. If it were mapped and another program made it shorter, a signal would end this
 * program. */
char *
checksum_of_file(const char *path, GError **error)
{
  g_autoptr(GFile) file = g_file_new_for_path(path);
  g_autoptr(GFileInputStream) stream = g_file_read(file, NULL, error);
  g_autoptr(GChecksum) checksum = g_checksum_new(G_CHECKSUM_SHA256);
  guint8 buffer[16 * 1024];
  gssize size = stream != NULL ? 1 : -1;

  while (size > 0) {
    size = g_input_stream_read(G_INPUT_STREAM(stream), buffer, sizeof buffer, NULL, error);
    g_checksum_update(checksum, buffer, MAX(size, 0));
  }
  return size == 0 ? g_strdup(g_checksum_get_string(checksum)) : NULL;
}
