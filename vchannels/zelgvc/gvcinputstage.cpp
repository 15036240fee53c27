// SPDX-License-Identifier: LGPL-2.1-or-later
#include "gvcinputstage.h"

namespace
{
struct GvcInputStage {
  GConverterInputStream parent;
};

struct GvcInputStageClass {
  GConverterInputStreamClass parent_class;
};
} // namespace

static GType gvc_input_stage_get_type();

G_DEFINE_TYPE(GvcInputStage, gvc_input_stage, G_TYPE_CONVERTER_INPUT_STREAM)

static void
gvc_input_stage_class_init(GvcInputStageClass *klass)
{
  auto *input_class = static_cast<GInputStreamClass *>(g_type_class_peek(G_TYPE_INPUT_STREAM));

  // That of streams in general, which reads and forgets.
  G_INPUT_STREAM_CLASS(klass)->skip = input_class->skip;
}

static void
gvc_input_stage_init(GvcInputStage *)
{
}

GInputStream *
gvc::input_stage_new(GInputStream *base_stream, GConverter *converter)
{
  // As GIO's constructor says it.
  if (!G_IS_INPUT_STREAM(base_stream)) {
    g_return_if_fail_warning("GLib-GIO", "g_converter_input_stream_new",
                             "G_IS_INPUT_STREAM (base_stream)");
    return nullptr;
  }

  return static_cast<GInputStream *>(g_object_new(gvc_input_stage_get_type(), "base-stream",
                                                  base_stream, "converter", converter, nullptr));
}
