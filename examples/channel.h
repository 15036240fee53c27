/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* What serve and call do alike: the stages that the command line asks for, a channel with these
 * stages and a message stream of every kind on it, and the requests that travel on it. */
#ifndef EXAMPLE_CHANNEL_H
#define EXAMPLE_CHANNEL_H

#include <zelgvc/zelgvc.h>

/* A caller sends a request frame of the first type, the server answers with one of the second:
 * what follows (one of the kinds below), how much of it, and for a file its name; then whether the
 * server takes it and, if not, why not. */
#define REQUEST_FORMAT "(sts)"
#define ANSWER_FORMAT "(bs)"

#define KIND_BYTES "bytes"       /* as many byte frames, each answered with the same bytes */
#define KIND_VARIANTS "variants" /* as many variant frames, each answered with a changed one */
#define KIND_STRINGS "strings"   /* as many strings, each answered with the same in capitals */
#define KIND_FILE "file"         /* byte frames that add up to as many bytes: a file */
#define KIND_BYE "bye"           /* nothing; both sides close */

#define VARIANT_FORMAT "(su)"
#define STRING_END '\n'
/* When a file has arrived the server says how much it got, and then the checksum of what it wrote.
 */
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

Channel *channel_new(GSocketConnection *socket, const Stages *stages, guint timeout);
gboolean channel_close(Channel *channel, GError **error);
void channel_free(Channel *channel);

char *checksum_of_file(const char *path, GError **error);

#endif /* EXAMPLE_CHANNEL_H */
