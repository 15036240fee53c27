// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

#include <gio/gio.h>

namespace bench
{

// A fresh self-signed certificate with its key (ECDSA, P-256), for the length of a run.
GTlsCertificate *makeCertificate();

} // namespace bench
