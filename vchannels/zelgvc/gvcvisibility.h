/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_VISIBILITY_H
#define GVC_VISIBILITY_H

/* The headers declare types by hand: G_DECLARE_FINAL_TYPE() and G_DECLARE_DERIVABLE_TYPE() would
 * rename the members `parent` and drop class macros that programs may use. */

/* Marks exported functions; all other symbols are hidden. */
#if defined(__GNUC__) || defined(__clang__)
#define GVC_EXPORT __attribute__((visibility("default"))) extern
#else
#define GVC_EXPORT extern
#endif

#endif /* GVC_VISIBILITY_H */
