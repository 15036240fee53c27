// SPDX-License-Identifier: LGPL-2.1-or-later
// Writing by the loop of gvctransfer.h, the mirror image of gvcreadall.h: until all is accepted, or
// the stream fails. Over the output stages of a channel the writing ends when these hold nothing of
// it any more.
#pragma once

#include "gvctransfer.h"

namespace gvc
{

// The source of the task is the stream.
void write_all(GTask *task, const void *from, gsize count, int io_priority,
               void (*done)(GTask *task));

// The critical of the public function where the source of a task would not be a stream.
gboolean check_output_stream(gpointer stream);

} // namespace gvc
