/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_RAND_H
#define GVC_RAND_H

#include <glib.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

typedef struct _GvcRand GvcRand;

GVC_EXPORT GvcRand *gvc_rand_new(void);
GVC_EXPORT gboolean gvc_rand_array(GvcRand *rand, guint8 *data, gsize len);
GVC_EXPORT void gvc_rand_free(GvcRand *rand);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcRand, gvc_rand_free)

G_END_DECLS

#endif /* GVC_RAND_H */
