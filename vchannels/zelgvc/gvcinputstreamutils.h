/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_INPUT_STREAM_UTILS_H
#define GVC_INPUT_STREAM_UTILS_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

GVC_EXPORT void gvc_input_stream_util_read_all_async(GInputStream *stream, void *buffer,
                                                     gsize count, int io_priority,
                                                     GCancellable *cancellable,
                                                     GAsyncReadyCallback callback,
                                                     gpointer user_data);
GVC_EXPORT gboolean gvc_input_stream_util_read_all_finish(GInputStream *stream,
                                                          GAsyncResult *result, gsize *bytes_read,
                                                          GError **error);

G_END_DECLS

#endif /* GVC_INPUT_STREAM_UTILS_H */
