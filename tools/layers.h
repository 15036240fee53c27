// SPDX-License-Identifier: LGPL-2.1-or-later
// The layers of a byte stream: encrypted records, compressed blocks and messages. Each layer
// reports the units that it finds in its bytes, and feeds their content to the layer above. After a
// damaged unit, a layer goes on with the next. If it cannot tell where the next begins, it waits
// for a piece of the layer below that looks like a start.
#pragma once

#include <gio/gio.h>

#include <deque>
#include <memory>
#include <string>

struct Place {
  const char *layer;
  gsize depth;    // how many layers lie below
  guint64 offset; // in the stream of this layer
  guint64 piece;  // the unit of the layer below that holds the byte at `offset`
};

struct Unit : Place {
  guint64 index;
  guint64 size; // with its header
};

class Reporter
{
public:
  explicit Reporter(bool strict) : strict(strict) {}
  virtual ~Reporter() = default;

  const bool strict; // report notes, and the layout of payloads

  virtual void iv_record(const Unit &unit, const char *iv) = 0;
  // `content` is the size of the plain text, or -1 if the key is not known.
  virtual void record(const Unit &unit, gint64 content) = 0;
  // `chunks` is 0 for a payload that is one plain stream.
  virtual void block(const Unit &unit, guint64 content, guint chunks) = 0;
  // `shown` is the part of the message that was kept.
  virtual void message(const Unit &unit, guint64 length, const std::string &shown) = 0;
  virtual void damage(const Place &place, const std::string &expected,
                      const std::string &found) = 0;
  virtual void skipped(const Place &place, guint64 size) = 0;
  // The unit can be read, but a careful writer would not have sent it.
  virtual void note(const Place &place, const std::string &text) = 0;
};

// Whether the library reads a block with these sizes in its header.
bool plausible_block(guint32 payload, guint32 content);

class Layer
{
public:
  Layer(const char *name, Reporter &reporter) : name(name), reporter(reporter) {}
  virtual ~Layer() = default;

  Layer *upper = nullptr;
  gsize depth = 0;
  bool aligned = true; // a piece can start with a unit

  // Takes the content of unit number `piece` of the layer below.
  void push(const char *bytes, gsize size, guint64 piece);
  // Bytes are missing here: an unknown number, or `count`.
  void gap();
  void missing(guint64 count);
  void end();

protected:
  // Takes a unit, or a part of one, from the front of the buffer. False if it needs more bytes or
  // has lost track.
  virtual bool take() = 0;
  // The size of the unit that starts here, by its header; 0 if this cannot be a unit.
  virtual guint64 unit_size(const char *bytes, gsize size) const = 0;
  // Reports the unit that will never be complete.
  virtual void report_cut() = 0;
  virtual bool
  in_the_making() const
  {
    return !unread.empty();
  }
  virtual void
  forget()
  {
  }

  std::string_view
  buffer() const
  {
    return unread;
  }
  Place
  here() const
  {
    return {name, depth, start, origins.empty() ? 0 : origins.front().piece};
  }
  Unit
  unit_here(guint64 size) const
  {
    return {here(), index, size};
  }
  void consume(gsize size);
  void pass_on(const char *bytes, gsize size);
  void pass_on_gap();
  void damaged(const std::string &expected, const std::string &found);
  // Call if it is unknown where the next unit starts.
  void lose_track();

  const char *const name;
  Reporter &reporter;
  guint64 index = 0;
  gsize header_piece = 0; // a header of this size can be a piece of its own

private:
  bool looks_like_start(const char *bytes, gsize size) const;

  struct Origin {
    guint64 offset, piece;
  };
  std::string data;           // the bytes of an incomplete unit
  std::string_view unread;    // in `data`, or in the bytes that are being pushed
  guint64 start = 0;          // the offset of unread[0]
  std::deque<Origin> origins; // the pieces that `unread` came from
  bool lost = false;
  guint64 lost_at = 0;
};

// The layers. Without a decryptor, a record layer reports the records alone. A message layer keeps
// the first `keep` bytes of each message, because messages can be longer than memory.
std::unique_ptr<Layer> record_layer(Reporter &reporter, GConverter *decryptor);
std::unique_ptr<Layer> block_layer(Reporter &reporter, GConverter *decompressor);
std::unique_ptr<Layer> frame_layer(Reporter &reporter, gsize keep);
std::unique_ptr<Layer> string_layer(Reporter &reporter, gsize keep, char terminator);
