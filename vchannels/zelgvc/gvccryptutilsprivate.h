/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_CRYPT_UTILS_PRIVATE_H
#define GVC_CRYPT_UTILS_PRIVATE_H

#include <glib-object.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

GVC_EXPORT gint gvc_get_crypt_key_len(const GValue *value);

G_END_DECLS

#endif /* GVC_CRYPT_UTILS_PRIVATE_H */
