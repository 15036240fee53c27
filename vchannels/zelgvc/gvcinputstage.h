// SPDX-License-Identifier: LGPL-2.1-or-later
// The input stage of a channel: a GConverterInputStream that can be skipped in.
//
// GIO's own hands a skip on to the stream below, as every filter stream does, and so drops bytes
// that have not been converted yet: whole records, or parts of them.
#pragma once

#include <gio/gio.h>

namespace gvc
{

GInputStream *input_stage_new(GInputStream *base_stream, GConverter *converter);

} // namespace gvc
