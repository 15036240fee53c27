/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_COMPRESSOR_H
#define GVC_COMPRESSOR_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_COMPRESSOR (gvc_compressor_get_type())
#define GVC_COMPRESSOR(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_COMPRESSOR, GvcCompressor))
#define GVC_COMPRESSOR_CLASS(klass)                                                                \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_COMPRESSOR, GvcCompressorClass))
#define GVC_IS_COMPRESSOR(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_COMPRESSOR))
#define GVC_IS_COMPRESSOR_CLASS(klass) (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_COMPRESSOR))
#define GVC_COMPRESSOR_GET_CLASS(obj)                                                              \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_COMPRESSOR, GvcCompressorClass))

typedef struct _GvcCompressor GvcCompressor;
typedef struct _GvcCompressorClass GvcCompressorClass;

struct _GvcCompressor {
  /*< private >*/
  GObject parent;
};

struct _GvcCompressorClass {
  /*< private >*/
  GObjectClass parent_class;
};

GVC_EXPORT GType gvc_compressor_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcCompressor *gvc_compressor_new(void);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcCompressor, g_object_unref)

G_END_DECLS

#endif /* GVC_COMPRESSOR_H */
