// SPDX-License-Identifier: LGPL-2.1-or-later
// The layers of a byte stream: records of the encryption, blocks of the compression, and frames.
// Each is fed with bytes, reports the units that it finds, and feeds what they hold to the layer
// above. Where a unit is damaged it goes on behind it; where the damage hides where the next one
// starts, it waits for a piece from the layer below that looks like the start of one.
#pragma once

#include <gio/gio.h>

#include <deque>
#include <string>

struct Unit {
  const char *layer;
  guint64 index;
  guint64 offset; // in the stream of this layer
  guint64 size;   // with its header
};

// What the layers tell.
class Reporter
{
public:
  virtual ~Reporter() = default;
  virtual void iv_record(const Unit &unit, guint64 piece, const guint8 *iv) = 0;
  // `content` is what the record holds, or -1 where that is not known without the key.
  virtual void record(const Unit &unit, guint64 piece, gint64 content) = 0;
  virtual void block(const Unit &unit, guint64 piece, guint64 content) = 0;
  // `shown` holds as much of the message as was to be kept.
  virtual void frame(const Unit &unit, guint64 piece, guint64 length, const std::string &shown) = 0;
  // Damage at an offset of the stream of a layer; `piece` as above.
  virtual void damage(const char *layer, guint64 offset, guint64 piece, const std::string &expected,
                      const std::string &found) = 0;
  virtual void skipped(const char *layer, guint64 offset, guint64 size) = 0;
};

class Layer
{
public:
  Layer(const char *name, Reporter &reporter) : name(name), reporter(reporter) {}
  virtual ~Layer() = default;

  Layer *upper = nullptr;
  bool bottom = false;

  // The content of unit number `piece` of the layer below.
  void push(const char *bytes, gsize size, guint64 piece);
  // Bytes are missing here.
  void gap();
  void end();

protected:
  // Takes what it can from the front of the buffer; false where it needs more, or is lost.
  virtual bool take() = 0;
  virtual bool looks_like_start(const char *bytes, gsize size) const = 0;
  // What is in the making, and how much of it is there: reported where it will never be complete.
  virtual void report_cut() = 0;
  virtual bool
  in_the_making() const
  {
    return !buffer().empty();
  }
  virtual void
  forget()
  {
  }

  std::string_view
  buffer() const
  {
    return std::string_view(data).substr(taken);
  }
  guint64
  offset() const
  {
    return start + taken;
  }
  void consume(gsize size);
  guint64 piece_at(guint64 offset) const;
  void pass_on(const char *bytes, gsize size);
  void pass_on_gap();
  void damaged(guint64 at, const std::string &expected, const std::string &found);
  // There is no telling where the next unit starts.
  void lose_track();

  const char *const name;
  Reporter &reporter;
  guint64 index = 0;

private:
  void give_up(gsize size);

  struct Origin {
    guint64 offset, piece;
  };
  std::string data;
  gsize taken = 0;
  guint64 start = 0; // the offset of data[0]
  std::deque<Origin> origins;
  bool lost = false;
  guint64 lost_at = 0;
};

// With no decryptor it only finds the records.
class RecordLayer : public Layer
{
public:
  RecordLayer(Reporter &reporter, GConverter *decryptor)
      : Layer("record", reporter), decryptor(decryptor)
  {
  }

protected:
  bool take() override;
  bool looks_like_start(const char *bytes, gsize size) const override;
  void report_cut() override;

private:
  void take_record(guint64 length);
  void set_iv(const char *iv);

  GConverter *decryptor;
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
  bool looks_like_start(const char *bytes, gsize size) const override;
  void report_cut() override;

private:
  void take_block(guint32 src_size, guint32 dest_size);

  GConverter *decompressor;
};

// Messages may be longer than memory; `keep` bytes of each are kept to be shown.
class FrameLayer : public Layer
{
public:
  FrameLayer(Reporter &reporter, gsize keep) : Layer("frame", reporter), keep(keep) {}

protected:
  bool take() override;
  bool looks_like_start(const char *bytes, gsize size) const override;
  void report_cut() override;
  bool
  in_the_making() const override
  {
    return in_payload || !buffer().empty();
  }
  void forget() override;

private:
  void finish();

  gsize keep;
  bool in_payload = false;
  guint64 begun = 0; // the offset of the present frame
  guint32 length = 0;
  guint32 arrived = 0;
  std::string shown;
};
