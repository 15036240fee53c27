/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_DECRYPTOR_H
#define GVC_DECRYPTOR_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_DECRYPTOR (gvc_decryptor_get_type())
#define GVC_DECRYPTOR(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_DECRYPTOR, GvcDecryptor))
#define GVC_DECRYPTOR_CLASS(klass)                                                                 \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_DECRYPTOR, GvcDecryptorClass))
#define GVC_IS_DECRYPTOR(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_DECRYPTOR))
#define GVC_IS_DECRYPTOR_CLASS(klass) (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_DECRYPTOR))
#define GVC_DECRYPTOR_GET_CLASS(obj)                                                               \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_DECRYPTOR, GvcDecryptorClass))

typedef struct _GvcDecryptor GvcDecryptor;
typedef struct _GvcDecryptorClass GvcDecryptorClass;

struct _GvcDecryptorClass {
  /*< private >*/
  GObjectClass parent_class;
};

GVC_EXPORT GType gvc_decryptor_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcDecryptor *gvc_decryptor_new(GBytes *key);
GVC_EXPORT void gvc_decryptor_set_key_length(GvcDecryptor *decryptor, guint key_length);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcDecryptor, g_object_unref)

G_END_DECLS

#endif /* GVC_DECRYPTOR_H */
