/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_OUTPUT_STREAM_UTILS_H
#define GVC_OUTPUT_STREAM_UTILS_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

GVC_EXPORT void gvc_output_stream_util_write_all_async(GOutputStream *stream, const void *buffer,
                                                       gsize count, int io_priority,
                                                       GCancellable *cancellable,
                                                       GAsyncReadyCallback callback,
                                                       gpointer user_data);
GVC_EXPORT gboolean gvc_output_stream_util_write_all_finish(GOutputStream *stream,
                                                            GAsyncResult *result,
                                                            gsize *bytes_written, GError **error);

G_END_DECLS

#endif /* GVC_OUTPUT_STREAM_UTILS_H */
