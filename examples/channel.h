/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Shared by serve and call: the options for stages, a channel with these stages and a message
 * stream of each kind, and the requests. */
#ifndef EXAMPLE_CHANNEL_H
#define EXAMPLE_CHANNEL_H

#include <zelgvc/zelgvc.h>

/* A request has a kind, a count and, for a file, a name. The answer says whether the server accepts
 * the request and, if not, why. */
#define REQUEST_FORMAT "(sts)"
#define ANSWER_FORMAT "(bs)"

#define KIND_BYTES "bytes"       /* `count` byte frames; the server echoes each */
#define KIND_VARIANTS "variants" /* `count` variant frames; the server changes each */
#define KIND_STRINGS "strings"   /* `count` strings; the server returns each in capitals */
#define KIND_FILE "file"         /* byte frames of `count` bytes in total */
#define KIND_BYE "bye"           /* nothing follows; both sides close */

#define VARIANT_FORMAT "(su)"
#define STRING_END '\n'
/* After a file, the server sends the number of bytes and then the checksum of the stored file. */
#define RECEIVED_FORMAT "(t)"
#define CHECKSUM_FORMAT "(s)"

typedef struct {
  gboolean compress;
  char *key_file;
  int key_length;
  GBytes *key;
} Stages;

typedef struct {
  GvcConnection *connection;
  GvcBytesInputStream *frames_in;
  GvcBytesOutputStream *frames_out;
  GvcDataInputStream *strings_in;
} Channel;

void stages_add_options(Stages *stages, GOptionContext *context);
char *stages_describe(const Stages *stages);
void stages_clear(Stages *stages);

Channel *channel_new(GSocketConnection *socket, const Stages *stages);
gboolean channel_close(Channel *channel, GCancellable *cancellable, GError **error);
void channel_free(Channel *channel);

char *checksum_of_file(const char *path, GError **error);
char *printable(const char *text);

#endif /* EXAMPLE_CHANNEL_H */
