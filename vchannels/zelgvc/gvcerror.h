/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_ERROR_H
#define GVC_ERROR_H

#include <glib.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

/**
 * GVC_ERROR:
 *
 * The error domain of the message streams. Its codes are those of #GvcError.
 *
 * Since: 0.1
 */
#define GVC_ERROR (gvc_error_quark())

/**
 * GvcError:
 * @GVC_ERROR_DISCONNECTED: the stream ended before or within a message; message "Disconnected"
 *
 * The codes of %GVC_ERROR.
 *
 * Since: 0.1
 */
/* clang-format off */
typedef enum {
  GVC_ERROR_DISCONNECTED = 0,
#ifdef __GI_SCANNER__
  /* The scanner removes the common prefix of the names only if there are two. */
  /*< private >*/
  GVC_ERROR_PREFIX_END
#endif
} GvcError;
/* clang-format on */

GVC_EXPORT GQuark gvc_error_quark(void);

G_END_DECLS

#endif /* GVC_ERROR_H */
