/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_DECOMPRESSOR_H
#define GVC_DECOMPRESSOR_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_DECOMPRESSOR (gvc_decompressor_get_type())
#define GVC_DECOMPRESSOR(obj)                                                                      \
  (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_DECOMPRESSOR, GvcDecompressor))
#define GVC_DECOMPRESSOR_CLASS(klass)                                                              \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_DECOMPRESSOR, GvcDecompressorClass))
#define GVC_IS_DECOMPRESSOR(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_DECOMPRESSOR))
#define GVC_IS_DECOMPRESSOR_CLASS(klass) (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_DECOMPRESSOR))
#define GVC_DECOMPRESSOR_GET_CLASS(obj)                                                            \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_DECOMPRESSOR, GvcDecompressorClass))

typedef struct _GvcDecompressor GvcDecompressor;
typedef struct _GvcDecompressorClass GvcDecompressorClass;

struct _GvcDecompressor {
  /*< private >*/
  GObject parent;
};

struct _GvcDecompressorClass {
  /*< private >*/
  GObjectClass parent_class;
};

GVC_EXPORT GType gvc_decompressor_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcDecompressor *gvc_decompressor_new(void);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcDecompressor, g_object_unref)

G_END_DECLS

#endif /* GVC_DECOMPRESSOR_H */
