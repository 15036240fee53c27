// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcerror.h"

/**
 * gvc_error_quark:
 *
 * The error domain of the message streams, with the quark string "gvc-error-quark". May be called
 * from any thread.
 *
 * Returns: the quark behind %GVC_ERROR
 *
 * Since: 0.1
 */
// The name is part of the text, blanks included.
// clang-format off
G_DEFINE_QUARK(gvc-error-quark, gvc_error)
// clang-format on
