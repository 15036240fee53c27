// SPDX-License-Identifier: LGPL-2.1-or-later
// Writing from memory of the operation's owner: one or two vectors, each a write of its own to a
// stream that does not gather. The operation ends when the stages of a channel hold no byte of
// them.
#pragma once

#include "gvcoperation.h"

namespace gvc
{

class Writer : public Operation<Output>
{
public:
  // Writes a single vector, at the same priority throughout.
  void write_all(const void *from, gsize count, int io_priority);
  // Bytes that the stream has accepted.
  gsize
  accepted() const
  {
    return accepted_;
  }

protected:
  void start(int io_priority);
  void offer(const void *from, gsize count);
  // All vectors are accepted. Offers more, or sends the bytes that the stages still hold.
  virtual Next all_accepted();

  Next attempt() override;
  Next ended(GAsyncResult *result) override;

private:
  Next moved(gssize nwritten);

  GOutputVector vectors_[2] = {};
  guint n_vectors_ = 0;
  guint n_offered_ = 0; // by the current attempt
  gsize accepted_ = 0;
};

} // namespace gvc
