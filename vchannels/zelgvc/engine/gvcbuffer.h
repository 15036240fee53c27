// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

#include <glib.h>

#include <cstring>

namespace gvc
{

// A queue of bytes. A stage may hold plain text on its way to a cipher, so the memory is wiped
// before it is freed.
class Buffer
{
public:
  gsize
  size() const
  {
    return end_ - begin_;
  }
  const guint8 *
  data() const
  {
    return memory_ + begin_;
  }
  guint8 *
  tail() const
  {
    return memory_ + end_;
  }
  gsize
  tail_room() const
  {
    return capacity_ - end_;
  }

  // Makes tail_room() at least `room`. Capacity doubles, so that many small appends stay linear.
  void
  reserve(gsize room)
  {
    if (tail_room() < room && begin_ > 0) {
      std::memmove(memory_, data(), size());
      end_ -= begin_;
      begin_ = 0;
    }
    if (tail_room() >= room)
      return;
    Buffer grown;
    grown.capacity_ = MAX(end_ + room, 2 * end_);
    grown.memory_ = static_cast<guint8 *>(g_malloc(grown.capacity_));
    grown.append(memory_, end_);
    release();
    *this = grown;
  }
  void
  produced(gsize count)
  {
    end_ += count;
    used_ = MAX(used_, end_);
  }
  void
  append(const void *bytes, gsize count)
  {
    reserve(count);
    if (count > 0)
      std::memcpy(tail(), bytes, count);
    produced(count);
  }
  void
  truncate(gsize count)
  {
    end_ -= count;
  }
  // Drops bytes at the front. An empty buffer gives back memory that a large message needed.
  void
  consume(gsize count)
  {
    begin_ += count;
    if (begin_ < end_)
      return;
    begin_ = end_ = 0;
    if (capacity_ > kept_capacity)
      release();
  }
  // Copies up to `count` bytes at the front. Returns how many.
  gsize
  peek(void *to, gsize count) const
  {
    count = MIN(count, size());
    if (count > 0)
      std::memcpy(to, data(), count);
    return count;
  }
  gsize
  take(void *to, gsize count)
  {
    count = peek(to, count);
    if (count > 0)
      consume(count);
    return count;
  }
  void
  release()
  {
    if (memory_)
      explicit_bzero(memory_, used_);
    g_free(memory_);
    *this = Buffer();
  }

private:
  static constexpr gsize kept_capacity = 128 * 1024;

  guint8 *memory_ = nullptr;
  gsize begin_ = 0;
  gsize end_ = 0;
  gsize used_ = 0; // bytes that have ever been written to
  gsize capacity_ = 0;
};

} // namespace gvc
