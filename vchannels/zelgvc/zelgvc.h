/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Every public header of the library. */
#ifndef ZELGVC_H
#define ZELGVC_H

#include <zelgvc/gvc.h>
#include <zelgvc/gvcbytesinputstream.h>
#include <zelgvc/gvcbytesoutputstream.h>
#include <zelgvc/gvccompressor.h>
#include <zelgvc/gvcconnection.h>
#include <zelgvc/gvccryptutilsprivate.h>
#include <zelgvc/gvcdatainputstream.h>
#include <zelgvc/gvcdecompressor.h>
#include <zelgvc/gvcdecryptor.h>
#include <zelgvc/gvcencryptor.h>
#include <zelgvc/gvcerror.h>
#include <zelgvc/gvcinputstreamutils.h>
#include <zelgvc/gvcoutputstreamutils.h>
#include <zelgvc/gvcrand.h>
#include <zelgvc/gvcutils.h>

#endif /* ZELGVC_H */
