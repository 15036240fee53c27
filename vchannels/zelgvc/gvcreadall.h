// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading by the loop of gvctransfer.h: until all is there, or the stream ends or fails.
#pragma once

#include "gvctransfer.h"

namespace gvc
{

// The source of the task is the stream.
void read_all(GTask *task, void *to, gsize count, int io_priority, void (*done)(GTask *task));

// The critical of the public function where the source of a task would not be a stream.
gboolean check_input_stream(gpointer stream);

} // namespace gvc
