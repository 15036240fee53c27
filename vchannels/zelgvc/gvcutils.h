/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_UTILS_H
#define GVC_UTILS_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

GVC_EXPORT gchar *gvc_io_stream_get_remote_address_string(GIOStream *stream);

G_END_DECLS

#endif /* GVC_UTILS_H */
