/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_BYTES_INPUT_STREAM_H
#define GVC_BYTES_INPUT_STREAM_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_BYTES_INPUT_STREAM (gvc_bytes_input_stream_get_type())
#define GVC_BYTES_INPUT_STREAM(obj)                                                                \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_BYTES_INPUT_STREAM, GvcBytesInputStream))
#define GVC_BYTES_INPUT_STREAM_CLASS(klass)                                                        \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_BYTES_INPUT_STREAM, GvcBytesInputStreamClass))
#define GVC_IS_BYTES_INPUT_STREAM(obj)                                                             \
  (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_BYTES_INPUT_STREAM))
#define GVC_IS_BYTES_INPUT_STREAM_CLASS(klass)                                                     \
  (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_BYTES_INPUT_STREAM))
#define GVC_BYTES_INPUT_STREAM_GET_CLASS(obj)                                                      \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_BYTES_INPUT_STREAM, GvcBytesInputStreamClass))

typedef struct _GvcBytesInputStream GvcBytesInputStream;
typedef struct _GvcBytesInputStreamClass GvcBytesInputStreamClass;

struct _GvcBytesInputStream {
  /*< private >*/
  GFilterInputStream parent;
};

struct _GvcBytesInputStreamClass {
  /*< private >*/
  GFilterInputStreamClass parent_class;
};

GVC_EXPORT GType gvc_bytes_input_stream_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcBytesInputStream *gvc_bytes_input_stream_new(GInputStream *base_stream);
GVC_EXPORT GBytes *gvc_bytes_input_stream_read_bytes(GvcBytesInputStream *stream,
                                                     GCancellable *cancellable, GError **error);
GVC_EXPORT void gvc_bytes_input_stream_read_bytes_async(GvcBytesInputStream *stream,
                                                        int io_priority, GCancellable *cancellable,
                                                        GAsyncReadyCallback callback,
                                                        gpointer user_data);
GVC_EXPORT GBytes *gvc_bytes_input_stream_read_bytes_finish(GvcBytesInputStream *stream,
                                                            GAsyncResult *result, GError **error);
GVC_EXPORT GVariant *gvc_bytes_input_stream_read_variant(GvcBytesInputStream *stream,
                                                         const gchar *format,
                                                         GCancellable *cancellable, GError **error);
GVC_EXPORT void gvc_bytes_input_stream_read_variant_async(GvcBytesInputStream *stream,
                                                          const gchar *format, int io_priority,
                                                          GCancellable *cancellable,
                                                          GAsyncReadyCallback callback,
                                                          gpointer user_data);
GVC_EXPORT GVariant *gvc_bytes_input_stream_read_variant_finish(GvcBytesInputStream *stream,
                                                                GAsyncResult *result,
                                                                GError **error);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcBytesInputStream, g_object_unref)

G_END_DECLS

#endif /* GVC_BYTES_INPUT_STREAM_H */
