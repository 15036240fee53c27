/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_BYTES_OUTPUT_STREAM_H
#define GVC_BYTES_OUTPUT_STREAM_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_BYTES_OUTPUT_STREAM (gvc_bytes_output_stream_get_type())
#define GVC_BYTES_OUTPUT_STREAM(obj)                                                               \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_BYTES_OUTPUT_STREAM, GvcBytesOutputStream))
#define GVC_BYTES_OUTPUT_STREAM_CLASS(klass)                                                       \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_BYTES_OUTPUT_STREAM, GvcBytesOutputStreamClass))
#define GVC_IS_BYTES_OUTPUT_STREAM(obj)                                                            \
  (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_BYTES_OUTPUT_STREAM))
#define GVC_IS_BYTES_OUTPUT_STREAM_CLASS(klass)                                                    \
  (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_BYTES_OUTPUT_STREAM))
#define GVC_BYTES_OUTPUT_STREAM_GET_CLASS(obj)                                                     \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_BYTES_OUTPUT_STREAM, GvcBytesOutputStreamClass))

typedef struct _GvcBytesOutputStream GvcBytesOutputStream;
typedef struct _GvcBytesOutputStreamClass GvcBytesOutputStreamClass;

struct _GvcBytesOutputStream {
  /*< private >*/
  GFilterOutputStream parent;
};

struct _GvcBytesOutputStreamClass {
  /*< private >*/
  GFilterOutputStreamClass parent_class;
};

GVC_EXPORT GType gvc_bytes_output_stream_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcBytesOutputStream *gvc_bytes_output_stream_new(GOutputStream *base_stream);
GVC_EXPORT gboolean gvc_bytes_output_stream_put_bytes(GvcBytesOutputStream *stream, GBytes *bytes,
                                                      GCancellable *cancellable, GError **error);
GVC_EXPORT void gvc_bytes_output_stream_put_bytes_async(GvcBytesOutputStream *stream, GBytes *bytes,
                                                        int io_priority, GCancellable *cancellable,
                                                        GAsyncReadyCallback callback,
                                                        gpointer user_data);
GVC_EXPORT gboolean gvc_bytes_output_stream_put_bytes_finish(GvcBytesOutputStream *stream,
                                                             GAsyncResult *result, GError **error);
GVC_EXPORT gboolean gvc_bytes_output_stream_put_variant(GvcBytesOutputStream *stream,
                                                        GVariant *variant,
                                                        GCancellable *cancellable, GError **error);
GVC_EXPORT void gvc_bytes_output_stream_put_variant_async(GvcBytesOutputStream *stream,
                                                          GVariant *variant, int io_priority,
                                                          GCancellable *cancellable,
                                                          GAsyncReadyCallback callback,
                                                          gpointer user_data);
GVC_EXPORT gboolean gvc_bytes_output_stream_put_variant_finish(GvcBytesOutputStream *stream,
                                                               GAsyncResult *result,
                                                               GError **error);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcBytesOutputStream, g_object_unref)

G_END_DECLS

#endif /* GVC_BYTES_OUTPUT_STREAM_H */
