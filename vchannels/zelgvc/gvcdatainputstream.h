/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_DATA_INPUT_STREAM_H
#define GVC_DATA_INPUT_STREAM_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_DATA_INPUT_STREAM (gvc_data_input_stream_get_type())
#define GVC_DATA_INPUT_STREAM(obj)                                                                 \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_DATA_INPUT_STREAM, GvcDataInputStream))
#define GVC_DATA_INPUT_STREAM_CLASS(klass)                                                         \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_DATA_INPUT_STREAM, GvcDataInputStreamClass))
#define GVC_IS_DATA_INPUT_STREAM(obj)                                                              \
  (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_DATA_INPUT_STREAM))
#define GVC_IS_DATA_INPUT_STREAM_CLASS(klass)                                                      \
  (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_DATA_INPUT_STREAM))
#define GVC_DATA_INPUT_STREAM_GET_CLASS(obj)                                                       \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_DATA_INPUT_STREAM, GvcDataInputStreamClass))

typedef struct _GvcDataInputStream GvcDataInputStream;
typedef struct _GvcDataInputStreamClass GvcDataInputStreamClass;

struct _GvcDataInputStream {
  /*< private >*/
  GFilterInputStream parent;
};

struct _GvcDataInputStreamClass {
  /*< private >*/
  GFilterInputStreamClass parent_class;
};

GVC_EXPORT GType gvc_data_input_stream_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcDataInputStream *gvc_data_input_stream_new(GInputStream *base_stream);
GVC_EXPORT gchar *gvc_data_input_stream_read_string(GvcDataInputStream *stream, gchar string_end,
                                                    gsize *length, GCancellable *cancellable,
                                                    GError **error);
GVC_EXPORT void gvc_data_input_stream_read_string_async(GvcDataInputStream *stream,
                                                        gchar string_end, int io_priority,
                                                        GCancellable *cancellable,
                                                        GAsyncReadyCallback callback,
                                                        gpointer user_data);
GVC_EXPORT gchar *gvc_data_input_stream_read_string_finish(GvcDataInputStream *stream,
                                                           GAsyncResult *result, gsize *length,
                                                           GError **error);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcDataInputStream, g_object_unref)

G_END_DECLS

#endif /* GVC_DATA_INPUT_STREAM_H */
