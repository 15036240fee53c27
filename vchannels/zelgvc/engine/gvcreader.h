// SPDX-License-Identifier: LGPL-2.1-or-later
// Reading into memory of the operation's owner: part after part, each until it is complete or the
// stream has ended.
#pragma once

#include "gvcoperation.h"

namespace gvc
{

class Reader : public Operation<Input>
{
public:
  // Reads a single part, at the same priority throughout.
  void read_all(void *to, gsize count, int io_priority);
  // Bytes of the current part that have arrived.
  gsize
  received() const
  {
    return received_;
  }

protected:
  void start(int io_priority);
  void expect(void *to, gsize count);
  // The part is complete, or the stream has ended within it. Begins the next, or ends the
  // operation, as it does by default.
  virtual Next part_done();

  Next attempt() override;
  Next ended(GAsyncResult *result) override;

private:
  Next moved(gssize nread);

  guint8 *buffer_ = nullptr;
  gsize missing_ = 0;
  gsize received_ = 0;
};

// Copies bytes that the next read of `stream` will deliver. Returns their number, 0 if the stream
// cannot be looked into, and -1 with an error, G_IO_ERROR_WOULD_BLOCK if there are none yet.
gssize look_ahead(GInputStream *stream, void *to, gsize room, GError **error);

} // namespace gvc
