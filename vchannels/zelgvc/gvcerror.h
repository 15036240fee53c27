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
 * @GVC_ERROR_DISCONNECTED: the stream ended where a message, or the rest of one, was expected;
 *   message "Disconnected"
 *
 * The codes of %GVC_ERROR.
 *
 * Since: 0.1
 */
typedef enum { GVC_ERROR_DISCONNECTED = 0 } GvcError;

GVC_EXPORT GQuark gvc_error_quark(void);

G_END_DECLS

#endif /* GVC_ERROR_H */
