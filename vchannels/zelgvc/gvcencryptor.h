/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_ENCRYPTOR_H
#define GVC_ENCRYPTOR_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_ENCRYPTOR (gvc_encryptor_get_type())
#define GVC_ENCRYPTOR(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_ENCRYPTOR, GvcEncryptor))
#define GVC_ENCRYPTOR_CLASS(klass)                                                                 \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_ENCRYPTOR, GvcEncryptorClass))
#define GVC_IS_ENCRYPTOR(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_ENCRYPTOR))
#define GVC_IS_ENCRYPTOR_CLASS(klass) (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_ENCRYPTOR))
#define GVC_ENCRYPTOR_GET_CLASS(obj)                                                               \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_ENCRYPTOR, GvcEncryptorClass))

typedef struct _GvcEncryptor GvcEncryptor;
typedef struct _GvcEncryptorClass GvcEncryptorClass;

struct _GvcEncryptorClass {
  /*< private >*/
  GObjectClass parent_class;
};

GVC_EXPORT GType gvc_encryptor_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcEncryptor *gvc_encryptor_new(GBytes *key);
GVC_EXPORT void gvc_encryptor_set_key_length(GvcEncryptor *encryptor, guint key_length);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcEncryptor, g_object_unref)

G_END_DECLS

#endif /* GVC_ENCRYPTOR_H */
