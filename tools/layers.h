// SPDX-License-Identifier: LGPL-2.1-or-later
// The layers of a byte stream: records of the encryption, blocks of the compression, and messages.
// Each layer is fed with bytes, reports the units that it finds, and feeds their content to the
// layer above. Behind a damaged unit it goes on with the next one. If the damage hides the start of
// the next one, it waits for a piece of the layer below that looks like a start.
#pragma once

#include <gio/gio.h>

#include <deque>
#include <set>
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

  const bool strict; // notes are wanted, and the layout of payloads

  virtual void iv_record(const Unit &unit, const guint8 *iv) = 0;
  // `content` is the size of the plain text, or -1 if the key is not known.
  virtual void record(const Unit &unit, gint64 content) = 0;
  // `chunks` is 0 for a payload that is one plain stream.
  virtual void block(const Unit &unit, guint64 content, guint chunks) = 0;
  // `shown` is the part of the message that was to be kept.
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
  bool aligned = true; // the start of a piece can be the start of a unit

  // Takes the content of unit number `piece` of the layer below.
  void push(const char *bytes, gsize size, guint64 piece);
  // Bytes are missing here: how many is not known, or `count`.
  void gap();
  void missing(guint64 count);
  void end();

protected:
  // Takes a unit, or a part of one, from the front of the buffer; false if it needs more, or is
  // lost.
  virtual bool take() = 0;
  // The size of the unit that starts here as its header says, 0 if this cannot be a unit.
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
  // It is not known where the next unit starts.
  void lose_track();

  const char *const name;
  Reporter &reporter;
  guint64 index = 0;
  gsize header_piece = 0; // a header of this size can be a piece of its own

private:
  bool looks_like_start(const char *bytes, gsize size) const;
  void keep_unread(bool in_data);

  struct Origin {
    guint64 offset, piece;
  };
  std::string data;           // the bytes of a unit that is not complete
  std::string_view unread;    // in `data`, or in the bytes that have just come
  guint64 start = 0;          // the offset of unread[0]
  std::deque<Origin> origins; // the pieces that `unread` came from
  bool lost = false;
  guint64 lost_at = 0;
};

// Without a decryptor it only finds the records.
class RecordLayer : public Layer
{
public:
  RecordLayer(Reporter &reporter, GConverter *decryptor)
      : Layer("record", reporter), decryptor(decryptor)
  {
  }

protected:
  bool take() override;
  guint64 unit_size(const char *bytes, gsize size) const override;
  void report_cut() override;
  void
  forget() override
  {
    chained = false;
  }

private:
  void take_iv();
  void take_record(gsize size);
  void decrypt(const Unit &unit, std::string_view present);
  void note_padding(const Unit &unit, const std::string &plain, gsize content);
  void set_iv(const char *iv);

  GConverter *decryptor;
  bool chained = false; // the cipher text before the next record is known
  std::set<std::string> ivs;
};

class BlockLayer : public Layer
{
public:
  BlockLayer(Reporter &reporter, GConverter *decompressor)
      : Layer("block", reporter), decompressor(decompressor)
  {
  }

protected:
  bool take() override;
  guint64 unit_size(const char *bytes, gsize size) const override;
  void report_cut() override;
  void
  forget() override
  {
    after_empty = false;
  }

private:
  void take_block(gsize size, guint32 announced);
  bool decode(std::string_view block, char *room, gsize size, gsize *produced);
  guint chunks_read(std::string_view block, guint32 announced, std::string_view content);
  void note_oddities(const Unit &unit, std::string_view payload, guint32 announced, gsize content,
                     guint chunks);

  GConverter *decompressor;
  bool after_empty = false;
};

// Messages can be longer than memory; `keep` bytes of each are kept to be shown.
class MessageLayer : public Layer
{
public:
  MessageLayer(const char *name, Reporter &reporter, gsize keep) : Layer(name, reporter), keep(keep)
  {
  }

protected:
  bool
  in_the_making() const override
  {
    return begun || Layer::in_the_making();
  }
  void forget() override;
  void begin();
  void take_part(gsize size);
  void finish(guint64 size);

  gsize keep;
  bool begun = false;
  Place first{}; // where the present message starts
  guint64 arrived = 0;
  std::string shown;
};

class FrameLayer : public MessageLayer
{
public:
  FrameLayer(Reporter &reporter, gsize keep);

protected:
  bool take() override;
  guint64 unit_size(const char *bytes, gsize size) const override;
  void report_cut() override;

private:
  bool take_prefix();

  guint32 length = 0;
};

class StringLayer : public MessageLayer
{
public:
  StringLayer(Reporter &reporter, gsize keep, char terminator)
      : MessageLayer("string", reporter, keep), terminator(terminator)
  {
  }

protected:
  bool take() override;
  guint64 unit_size(const char *bytes, gsize size) const override;
  void report_cut() override;

private:
  char terminator;
};
