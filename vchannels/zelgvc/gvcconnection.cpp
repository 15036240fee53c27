// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcconnection.h"
#include "gvcfixedtexts.h"

#include "engine/gvcinputstage.h"
#include "engine/gvcoutputstage.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

enum {
  PROP_0,
  PROP_CONNECTION,
};

/**
 * GvcConnection:
 *
 * A channel over an established #GSocketConnection.
 *
 * At first, its streams are those of the socket connection. gvc_connection_add_converters() inserts
 * a pair of converters between the caller and the socket. Streams fetched afterwards, with
 * g_io_stream_get_input_stream() and g_io_stream_get_output_stream(), pass through them.
 *
 * Closing the channel closes its input stream and then its output stream. If a message is in
 * progress on one of them, closing fails with %G_IO_ERROR_PENDING and the message continues.
 * g_io_stream_close_async() closes within the call, on the calling thread.
 *
 * Closing an output stream with stages sends the bytes that a cancelled write has left and the end
 * of each stage. This blocks while the peer does not read. Dropping the last reference to the
 * stream, or to a message stream over it, does the same. If you have given up on the peer, close
 * the socket first with g_socket_close().
 *
 * Use a channel from one thread at a time. Before GLib 2.80 a channel sets `TCP_NODELAY` on its TCP
 * socket, as later versions of GLib do. Without this option each message waits for the
 * acknowledgement of the last one. To use Nagle's algorithm, clear the option again.
 *
 * Since: 0.1
 */
struct GvcConnectionPrivate {
  GSocketConnection *connection;
  GInputStream *in;
  GOutputStream *out;
};

G_DEFINE_TYPE_WITH_PRIVATE(GvcConnection, gvc_connection, G_TYPE_IO_STREAM)

static GvcConnectionPrivate *
get_private(gpointer self)
{
  return static_cast<GvcConnectionPrivate *>(
      gvc_connection_get_instance_private(GVC_CONNECTION(self)));
}

static gboolean
is_tcp(GSocket *socket)
{
  auto family = g_socket_get_family(socket);
  return (family == G_SOCKET_FAMILY_IPV4 || family == G_SOCKET_FAMILY_IPV6) &&
         g_socket_get_socket_type(socket) == G_SOCKET_TYPE_STREAM;
}

static void
disable_nagle(GSocketConnection *connection)
{
  gboolean glib_does_it = glib_check_version(2, 80, 0) == nullptr;
  auto *socket = g_socket_connection_get_socket(connection);

  // A socket that refuses the option still works, only slower.
  if (!glib_does_it && socket && is_tcp(socket))
    g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, TRUE, nullptr);
}

static void
adopt_connection(GvcConnectionPrivate *priv, GSocketConnection *connection)
{
  priv->connection = connection;

  constexpr char check[] = "G_IS_IO_STREAM (stream)";
  gboolean holds = connection != nullptr;
  auto *stream = G_IO_STREAM(connection);
  // GIO's getters crash without a stream.
  if (gvc::check_as_gio(holds, "g_io_stream_get_input_stream", check))
    priv->in = G_INPUT_STREAM(g_object_ref(g_io_stream_get_input_stream(stream)));
  if (gvc::check_as_gio(holds, "g_io_stream_get_output_stream", check))
    priv->out = G_OUTPUT_STREAM(g_object_ref(g_io_stream_get_output_stream(stream)));

  if (connection)
    disable_nagle(connection);
}

static void
gvc_connection_set_property(GObject *object, guint prop_id, const GValue *value, GParamSpec *pspec)
{
  if (prop_id == PROP_CONNECTION)
    adopt_connection(get_private(object), G_SOCKET_CONNECTION(g_value_dup_object(value)));
  else
    gvc::warn_invalid_property(gvc::connection_file, gvc::connection_setter_line, object, prop_id,
                               pspec);
}

static void
gvc_connection_get_property(GObject *object, guint prop_id, GValue *value, GParamSpec *pspec)
{
  if (prop_id == PROP_CONNECTION)
    g_value_set_object(value, get_private(object)->connection);
  else
    gvc::warn_invalid_property(gvc::connection_file, gvc::connection_getter_line, object, prop_id,
                               pspec);
}

static void
gvc_connection_dispose(GObject *object)
{
  auto *priv = get_private(object);

  g_clear_object(&priv->connection);
  g_clear_object(&priv->in);
  g_clear_object(&priv->out);

  G_OBJECT_CLASS(gvc_connection_parent_class)->dispose(object);
}

static GInputStream *
gvc_connection_get_input_stream(GIOStream *stream)
{
  return get_private(stream)->in;
}

static GOutputStream *
gvc_connection_get_output_stream(GIOStream *stream)
{
  return get_private(stream)->out;
}

static gboolean
gvc_connection_close_fn(GIOStream *stream, GCancellable *cancellable, GError **error)
{
  auto *priv = get_private(stream);

  if (priv->in && !g_input_stream_close(priv->in, cancellable, error))
    return FALSE;
  if (priv->out)
    return g_output_stream_close(priv->out, cancellable, error);
  return TRUE;
}

static void
gvc_connection_close_async(GIOStream *stream, int, GCancellable *cancellable,
                           GAsyncReadyCallback callback, gpointer user_data)
{
  g_autoptr(GTask) task = g_task_new(stream, cancellable, callback, user_data);
  GError *error = nullptr;

  if (G_IO_STREAM_GET_CLASS(stream)->close_fn(stream, cancellable, &error))
    g_task_return_boolean(task, TRUE);
  else
    g_task_return_error(task, error);
}

static gboolean
gvc_connection_close_finish(GIOStream *, GAsyncResult *result, GError **error)
{
  return g_task_propagate_boolean(G_TASK(result), error);
}

static void
gvc_connection_class_init(GvcConnectionClass *klass)
{
  auto *object_class = G_OBJECT_CLASS(klass);
  auto *stream_class = G_IO_STREAM_CLASS(klass);

  object_class->set_property = gvc_connection_set_property;
  object_class->get_property = gvc_connection_get_property;
  object_class->dispose = gvc_connection_dispose;

  stream_class->get_input_stream = gvc_connection_get_input_stream;
  stream_class->get_output_stream = gvc_connection_get_output_stream;
  stream_class->close_fn = gvc_connection_close_fn;
  stream_class->close_async = gvc_connection_close_async;
  stream_class->close_finish = gvc_connection_close_finish;

  /**
   * GvcConnection:connection:
   *
   * The socket connection that the channel runs over.
   *
   * Since: 0.1
   */
  g_object_class_install_property(
      object_class, PROP_CONNECTION,
      g_param_spec_object("connection", "Connection", "Connection", G_TYPE_SOCKET_CONNECTION,
                          static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT_ONLY |
                                                   G_PARAM_STATIC_STRINGS)));
}

static void
gvc_connection_init(GvcConnection *)
{
}

/**
 * gvc_connection_new:
 * @connection: an established socket connection
 *
 * Creates a channel over @connection. The channel takes its own reference.
 *
 * Returns: (transfer full): a new channel; release it with g_object_unref()
 *
 * Since: 0.1
 */
GvcConnection *
gvc_connection_new(GSocketConnection *connection)
{
  return GVC_CONNECTION(g_object_new(GVC_TYPE_CONNECTION, "connection", connection, nullptr));
}

/**
 * gvc_connection_get_connection:
 * @connection: a channel
 *
 * Gets the socket connection of the channel. Converters do not change it.
 *
 * Returns: (transfer none) (nullable): the socket connection, valid while the channel lives
 *
 * Since: 0.1
 */
GSocketConnection *
gvc_connection_get_connection(GvcConnection *connection)
{
  g_return_val_if_fail(GVC_IS_CONNECTION(connection), nullptr);

  return get_private(connection)->connection;
}

/**
 * gvc_connection_add_converters:
 * @connection: a channel
 * @in_conv: the converter for incoming bytes, for example a #GvcDecryptor or #GvcDecompressor
 * @out_conv: the converter for outgoing bytes, for example a #GvcEncryptor or #GvcCompressor
 *
 * Wraps the current streams of the channel in converter streams. The converters added last are
 * nearest to the caller: to compress before encrypting, add the encryption pair first and the
 * compression pair second. Both peers must add their stages in the same order.
 *
 * Streams fetched from the channel earlier stay unconverted. No read or write may be in progress on
 * the channel during the call. The channel takes its own references to the converters.
 *
 * Since: 0.1
 */
void
gvc_connection_add_converters(GvcConnection *connection, GConverter *in_conv, GConverter *out_conv)
{
  g_return_if_fail(GVC_IS_CONNECTION(connection));
  g_return_if_fail(G_IS_CONVERTER(in_conv));
  g_return_if_fail(G_IS_CONVERTER(out_conv));

  auto *priv = get_private(connection);
  auto *in = gvc::input_stage_new(priv->in, in_conv);
  auto *out = gvc::output_stage_new(priv->out, out_conv);

  // The new streams hold references to the old ones.
  g_clear_object(&priv->in);
  g_clear_object(&priv->out);
  priv->in = in;
  priv->out = out;
}
