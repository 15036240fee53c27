// SPDX-License-Identifier: LGPL-2.1-or-later
#include "layers.h"

#include <algorithm>
#include <cstring>

static constexpr gsize aes_block = 16;
static constexpr gsize record_header = 8;
static constexpr gsize iv_record = record_header + aes_block;
static constexpr gsize block_header = 8;
static constexpr gsize frame_header = 4;

static guint32
load_u32(const char *from)
{
  guint32 value;
  std::memcpy(&value, from, sizeof value);
  return GUINT32_FROM_LE(value);
}

static guint64
load_u64(const char *from)
{
  guint64 value;
  std::memcpy(&value, from, sizeof value);
  return GUINT64_FROM_LE(value);
}

static std::string
bytes_text(guint64 count)
{
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

void
Layer::push(const char *bytes, gsize size, guint64 piece)
{
  if (lost && !bottom && looks_like_start(bytes, size)) {
    lost = false;
    if (offset() > lost_at)
      reporter.skipped(name, lost_at, offset() - lost_at);
  }
  if (lost) {
    start += size;
    return;
  }
  if (origins.empty() || origins.back().piece != piece)
    origins.push_back({start + data.size(), piece});
  data.append(bytes, size);
  while (!lost && take()) {
  }

  // What has been taken goes in one go, and so do the pieces that it came from.
  data.erase(0, taken);
  start += taken;
  taken = 0;
  while (origins.size() > 1 && origins[1].offset <= start)
    origins.pop_front();
}

void
Layer::consume(gsize size)
{
  taken += size;
}

guint64
Layer::piece_at(guint64 offset) const
{
  guint64 piece = 0;
  for (auto &origin : origins)
    if (origin.offset <= offset)
      piece = origin.piece;
  return piece;
}

void
Layer::pass_on(const char *bytes, gsize size)
{
  if (upper)
    upper->push(bytes, size, index);
}

void
Layer::pass_on_gap()
{
  if (upper)
    upper->gap();
}

void
Layer::damaged(guint64 at, const std::string &expected, const std::string &found)
{
  reporter.damage(name, at, piece_at(at), expected, found);
}

void
Layer::lose_track()
{
  lost = true;
  lost_at = offset();
  start += data.size();
  taken = 0;
  data.clear();
  origins.clear();
  forget();
  pass_on_gap();
}

void
Layer::gap()
{
  if (lost)
    return;
  if (in_the_making())
    report_cut();
  lose_track();
}

void
Layer::end()
{
  if (!lost && in_the_making())
    report_cut();
  if (lost && offset() > lost_at)
    reporter.skipped(name, lost_at, offset() - lost_at);
  if (upper)
    upper->end();
}

bool
RecordLayer::looks_like_start(const char *bytes, gsize size) const
{
  if (size < record_header)
    return false;
  auto length = load_u64(bytes);
  return length == 0 ? size == iv_record
                     : length % aes_block == 0 && length == size - record_header;
}

void
RecordLayer::report_cut()
{
  auto present = buffer();
  if (present.size() < record_header) {
    damaged(offset(), "a record header of 8 bytes", bytes_text(present.size()));
    return;
  }
  auto length = load_u64(present.data());
  damaged(offset(),
          length == 0 ? "an IV record of 24 bytes"
                      : "a record of " + bytes_text(record_header + length),
          bytes_text(present.size()));
}

// The way to set the chain is the stream's own.
void
RecordLayer::set_iv(const char *iv)
{
  if (!decryptor)
    return;
  char record[iv_record] = {};
  std::memcpy(record + record_header, iv, aes_block);
  gsize consumed, produced;
  char nothing;
  g_converter_convert(decryptor, record, sizeof record, &nothing, 1, G_CONVERTER_NO_FLAGS,
                      &consumed, &produced, nullptr);
}

bool
RecordLayer::take()
{
  auto present = buffer();
  if (present.size() < record_header)
    return false;

  auto length = load_u64(present.data());
  if (length % aes_block != 0 || length > G_MAXINT32) {
    damaged(offset(), "a record length that is a multiple of 16 and below 2 GiB",
            std::to_string(length));
    lose_track();
    return false;
  }
  if (present.size() < (length == 0 ? iv_record : record_header + length))
    return false;

  if (length > 0) {
    take_record(length);
  } else {
    auto *iv = present.data() + record_header;
    reporter.iv_record({name, index, offset(), iv_record}, piece_at(offset()),
                       reinterpret_cast<const guint8 *>(iv));
    set_iv(iv);
    consume(iv_record);
  }
  index++;
  return true;
}

void
RecordLayer::take_record(guint64 length)
{
  auto present = buffer().substr(0, record_header + length);
  Unit unit{name, index, offset(), present.size()};
  if (!decryptor) {
    reporter.record(unit, piece_at(unit.offset), -1);
    consume(present.size());
    return;
  }

  std::string plain(length, 0);
  gsize consumed, produced = 0;
  auto result = g_converter_convert(decryptor, present.data(), present.size(), plain.data(), length,
                                    G_CONVERTER_NO_FLAGS, &consumed, &produced, nullptr);
  auto padding = length - produced;
  if (result == G_CONVERTER_CONVERTED && padding >= 1 && padding <= aes_block) {
    reporter.record(unit, piece_at(unit.offset), static_cast<gint64>(produced));
    pass_on(plain.data(), produced);
  } else {
    damaged(unit.offset, "1 to 16 bytes of padding at the end of a record",
            (result == G_CONVERTER_CONVERTED ? std::to_string(padding)
                                             : std::string("more than the record holds")) +
                " (is it another key or key length?)");
    // The chain goes on with what was sent, whatever became of it here.
    set_iv(present.data() + present.size() - aes_block);
    pass_on_gap();
  }
  consume(present.size());
}

bool
BlockLayer::looks_like_start(const char *bytes, gsize size) const
{
  return size >= block_header && load_u32(bytes) + guint64{block_header} == size;
}

void
BlockLayer::report_cut()
{
  auto present = buffer();
  if (present.size() < block_header)
    damaged(offset(), "a block header of 8 bytes", bytes_text(present.size()));
  else
    damaged(offset(), "a block of " + bytes_text(load_u32(present.data()) + guint64{block_header}),
            bytes_text(present.size()));
}

// No encoder makes more of its input than this, and a byte of a payload stands for 255 bytes at
// most.
static bool
plausible(guint64 src_size, guint64 dest_size)
{
  if (src_size == 0 || dest_size == 0)
    return src_size == 0 && dest_size == 0;
  return src_size <= dest_size + dest_size / 8 + 1024 && dest_size <= src_size * 255;
}

bool
BlockLayer::take()
{
  auto present = buffer();
  if (present.size() < block_header)
    return false;
  auto src_size = load_u32(present.data());
  auto dest_size = load_u32(present.data() + 4);
  if (!plausible(src_size, dest_size)) {
    damaged(offset(), "the sizes of a block and of what it holds",
            std::to_string(src_size) + " and " + std::to_string(dest_size));
    lose_track();
    return false;
  }
  if (present.size() < block_header + guint64{src_size})
    return false;
  take_block(src_size, dest_size);
  index++;
  return true;
}

void
BlockLayer::take_block(guint32 src_size, guint32 dest_size)
{
  auto present = buffer().substr(0, block_header + gsize{src_size});
  Unit unit{name, index, offset(), present.size()};
  std::string plain(gsize{dest_size} + 1, 0);
  gsize consumed, produced = 0;
  auto result =
      g_converter_convert(decompressor, present.data(), present.size(), plain.data(), plain.size(),
                          G_CONVERTER_NO_FLAGS, &consumed, &produced, nullptr);
  if (result == G_CONVERTER_CONVERTED && produced == dest_size) {
    reporter.block(unit, piece_at(unit.offset), produced);
    pass_on(plain.data(), produced);
  } else {
    damaged(unit.offset, "an LZO1X stream that gives " + bytes_text(dest_size),
            result == G_CONVERTER_CONVERTED ? bytes_text(produced) : "a broken one");
    pass_on_gap();
  }
  consume(present.size());
}

// The prefix of a frame is a write of its own, and so a piece of its own.
bool
FrameLayer::looks_like_start(const char *bytes, gsize size) const
{
  if (size < frame_header)
    return false;
  auto announced = load_u32(bytes);
  return announced <= G_MAXINT32 && (size == frame_header || size == frame_header + announced);
}

void
FrameLayer::report_cut()
{
  if (in_payload)
    damaged(begun, "a message of " + bytes_text(length), bytes_text(arrived));
  else
    damaged(offset(), "the 4 bytes of a message's length", bytes_text(buffer().size()));
}

void
FrameLayer::forget()
{
  in_payload = false;
  shown.clear();
}

bool
FrameLayer::take()
{
  auto present = buffer();
  if (in_payload) {
    auto part = std::min<gsize>(present.size(), length - arrived);
    shown.append(present.substr(0, std::min(part, keep - std::min(keep, shown.size()))));
    arrived += static_cast<guint32>(part);
    consume(part);
    if (arrived < length)
      return false;
    finish();
    return true;
  }

  if (present.size() < frame_header)
    return false;
  auto announced = load_u32(present.data());
  if (announced > G_MAXINT32) {
    damaged(offset(), "a message length that is not negative",
            std::to_string(static_cast<gint32>(announced)));
    lose_track();
    return false;
  }
  begun = offset();
  length = announced;
  arrived = 0;
  in_payload = true;
  consume(frame_header);
  return true;
}

void
FrameLayer::finish()
{
  reporter.frame({name, index, begun, frame_header + guint64{length}}, piece_at(begun), length,
                 shown);
  index++;
  forget();
}
