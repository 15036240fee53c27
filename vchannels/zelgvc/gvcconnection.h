/* SPDX-License-Identifier: LGPL-2.1-or-later */
#ifndef GVC_CONNECTION_H
#define GVC_CONNECTION_H

#include <gio/gio.h>
#include <zelgvc/gvcvisibility.h>

G_BEGIN_DECLS

#define GVC_TYPE_CONNECTION (gvc_connection_get_type())
#define GVC_CONNECTION(obj) (G_TYPE_CHECK_INSTANCE_CAST((obj), GVC_TYPE_CONNECTION, GvcConnection))
#define GVC_CONNECTION_CLASS(klass)                                                                \
  (G_TYPE_CHECK_CLASS_CAST((klass), GVC_TYPE_CONNECTION, GvcConnectionClass))
#define GVC_IS_CONNECTION(obj) (G_TYPE_CHECK_INSTANCE_TYPE((obj), GVC_TYPE_CONNECTION))
#define GVC_IS_CONNECTION_CLASS(klass) (G_TYPE_CHECK_CLASS_TYPE((klass), GVC_TYPE_CONNECTION))
#define GVC_CONNECTION_GET_CLASS(obj)                                                              \
  (G_TYPE_INSTANCE_GET_CLASS((obj), GVC_TYPE_CONNECTION, GvcConnectionClass))

typedef struct _GvcConnection GvcConnection;
typedef struct _GvcConnectionClass GvcConnectionClass;

struct _GvcConnection {
  /*< private >*/
  GIOStream parent;
};

struct _GvcConnectionClass {
  /*< private >*/
  GIOStreamClass parent_class;
};

GVC_EXPORT GType gvc_connection_get_type(void) G_GNUC_CONST;
GVC_EXPORT GvcConnection *gvc_connection_new(GSocketConnection *connection);
GVC_EXPORT GSocketConnection *gvc_connection_get_connection(GvcConnection *connection);
GVC_EXPORT void gvc_connection_add_converters(GvcConnection *connection, GConverter *in_conv,
                                              GConverter *out_conv);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(GvcConnection, g_object_unref)

G_END_DECLS

#endif /* GVC_CONNECTION_H */
