/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_H
#define GVC_H

#include <glib.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

GVC_EXPORT void gvc_init(void);

G_END_DECLS

#endif /* GVC_H */
