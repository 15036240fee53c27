/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Everything that most test programs share. */
#pragma once

#include "tests/support/converters.h"
#include "tests/support/log.h"
#include "tests/support/mainloop.h"
#include "tests/support/objects.h"
#include "tests/support/scripted.h"
#include "tests/support/sockets.h"
#include "tests/support/values.h"
