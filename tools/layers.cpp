// SPDX-License-Identifier: LGPL-2.1-or-later
#include "layers.h"
#include "errors.h"

#include <zelgvc/gvcwire.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>
#include <sys/mman.h>

namespace frame = gvc::wire::frame;
namespace block = gvc::wire::block;
namespace record = gvc::wire::record;

static std::string
bytes_text(guint64 count)
{
  return std::to_string(count) + (count == 1 ? " byte" : " bytes");
}

// Whether the piece consists of whole units, or is a header that was sent by itself.
bool
Layer::looks_like_start(const char *bytes, gsize size) const
{
  for (gsize at = 0; at < size;) {
    auto unit = unit_size(bytes + at, size - at);
    if (unit == 0)
      return false;
    if (unit > size - at)
      return size == header_piece;
    at += unit;
  }
  return true;
}

void
Layer::push(const char *bytes, gsize size, guint64 piece)
{
  if (size == 0)
    return;
  if (lost && aligned && looks_like_start(bytes, size)) {
    lost = false;
    if (start > lost_at)
      reporter.skipped({name, depth, lost_at, 0}, start - lost_at);
  }
  if (lost) {
    start += size;
    return;
  }

  // Avoids a copy if the bytes begin a unit, because a unit can be large.
  bool in_data = !data.empty();
  if (!in_data)
    origins.clear();
  if (origins.empty() || origins.back().piece != piece)
    origins.push_back({start + data.size(), piece});
  if (in_data)
    data.append(bytes, size);
  unread = in_data ? std::string_view(data) : std::string_view(bytes, size);
  while (!lost && take()) {
  }
  if (in_data)
    data.erase(0, data.size() - unread.size());
  else
    data.assign(unread);
  unread = data;
}

void
Layer::consume(gsize size)
{
  unread.remove_prefix(size);
  start += size;
  while (origins.size() > 1 && origins[1].offset <= start)
    origins.pop_front();
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
Layer::damaged(const std::string &expected, const std::string &found)
{
  reporter.damage(here(), expected, found);
}

void
Layer::lose_track()
{
  lost = true;
  lost_at = start;
  start += unread.size();
  unread = {};
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
  data.clear();
}

void
Layer::missing(guint64 count)
{
  auto place = here();
  place.offset += unread.size();
  reporter.damage(place, bytes_text(count), "none of them in the capture");
  if (!lost)
    lose_track();
  data.clear();
  start += count;
}

void
Layer::end()
{
  if (!lost && in_the_making())
    report_cut();
  if (lost && start > lost_at)
    reporter.skipped({name, depth, lost_at, 0}, start - lost_at);
  if (upper)
    upper->end();
}

// An LZO1X stream, chunked or not, is never longer than the first bound. A reader of the library
// gives up when it has offered the second.
bool
plausible_block(guint32 payload, guint32 content)
{
  guint64 most = std::max<guint64>(guint64{payload} * 255, 1024 * 1024);
  return payload <= content + guint64{content / 4} + 1024 && content <= std::bit_ceil(most);
}

namespace
{
// Takes whole units with a header: records or blocks.
class UnitLayer : public Layer
{
public:
  UnitLayer(const char *name, Reporter &reporter, GConverter *converter)
      : Layer(name, reporter), converter(converter)
  {
  }

protected:
  static constexpr gsize header_size = 8;

  bool
  take() override
  {
    auto present = buffer();
    if (present.size() < header_size)
      return false;
    auto size = unit_size(present.data(), present.size());
    if (size == 0) {
      report_bad_header(present.data());
      lose_track();
      return false;
    }
    if (present.size() < size)
      return false;
    take_unit(present.substr(0, size));
    consume(size);
    index++;
    return true;
  }

  void
  report_cut() override
  {
    auto present = buffer();
    auto size = unit_size(present.data(), present.size());
    damaged(size == 0 ? std::string("a ") + name + " header of 8 bytes"
                      : unit_name(present.data()) + bytes_text(size),
            bytes_text(present.size()));
  }

  virtual void take_unit(std::string_view unit) = 0;
  // "a record of ", say.
  virtual std::string unit_name(const char *header) const = 0;
  virtual void report_bad_header(const char *header) = 0;

  GConverter *const converter; // of the stage; a record layer may have none
};

class RecordLayer : public UnitLayer
{
public:
  using UnitLayer::UnitLayer;

protected:
  guint64
  unit_size(const char *bytes, gsize size) const override
  {
    if (size < header_size)
      return 0;
    auto length = record::load_length(bytes);
    if (length == 0)
      return record::iv_record_size;
    return length % record::aes_block == 0 && length <= G_MAXINT32 ? header_size + length : 0;
  }

  void
  take_unit(std::string_view unit) override
  {
    if (record::load_length(unit.data()) == 0)
      take_iv(unit.substr(header_size));
    else
      take_record(unit);
  }

  std::string
  unit_name(const char *header) const override
  {
    return record::load_length(header) == 0 ? "an IV record of " : "a record of ";
  }

  void
  report_bad_header(const char *header) override
  {
    damaged("a record length that is a multiple of 16 and below 2 GiB",
            std::to_string(record::load_length(header)));
  }

  void
  forget() override
  {
    chained = false;
  }

private:
  void
  take_iv(std::string_view iv)
  {
    auto unit = unit_here(record::iv_record_size);
    reporter.iv_record(unit, iv.data());
    if (reporter.strict && !ivs.insert(std::string(iv)).second)
      reporter.note(unit, "an initialisation vector that came before");
    set_iv(iv.data());
  }

  void
  take_record(std::string_view present)
  {
    auto unit = unit_here(present.size());
    bool known = chained;
    if (!known)
      damaged("an IV record, or the record before", "no IV record before");
    if (!converter)
      reporter.record(unit, -1);
    else if (known)
      decrypt(unit, present);
    else
      pass_on_gap();
    // The chain depends on the cipher text alone, even if it was not decrypted here.
    if (!known || !converter)
      set_iv(present.data() + present.size() - record::aes_block);
  }

  void
  decrypt(const Unit &unit, std::string_view present)
  {
    std::string plain(present.size() - header_size, 0);
    gsize consumed, content = 0;
    auto result =
        g_converter_convert(converter, present.data(), present.size(), plain.data(), plain.size(),
                            G_CONVERTER_NO_FLAGS, &consumed, &content, nullptr);
    if (result == G_CONVERTER_CONVERTED) {
      reporter.record(unit, static_cast<gint64>(content));
      note_padding(unit, plain, content);
      pass_on(plain.data(), content);
      return;
    }
    damaged("a record with no more padding than it has bytes",
            "more (is it another key or key length?)");
    set_iv(present.data() + present.size() - record::aes_block);
    pass_on_gap();
  }

  void
  note_padding(const Unit &unit, const std::string &plain, gsize content)
  {
    auto padding = plain.size() - content;
    auto value = static_cast<char>(padding);
    if (padding < 1 || padding > record::aes_block)
      reporter.note(unit, "padding of " + bytes_text(padding) + ", not 1 to 16");
    else if (plain.find_first_not_of(value, content) != std::string::npos)
      reporter.note(unit, "padding that is not " + bytes_text(padding) + " of the value " +
                              std::to_string(padding));
    if (content == 0)
      reporter.note(unit, "a record that holds nothing");
  }

  // Sets the chain of the decryptor, for which an IV record is the only way.
  void
  set_iv(const char *iv)
  {
    chained = true;
    if (!converter)
      return;
    char iv_record[record::iv_record_size] = {};
    std::memcpy(iv_record + header_size, iv, record::aes_block);
    gsize consumed, produced;
    char nothing;
    g_converter_convert(converter, iv_record, sizeof iv_record, &nothing, 1, G_CONVERTER_NO_FLAGS,
                        &consumed, &produced, nullptr);
  }

  bool chained = false; // the cipher text before the next record is known
  std::set<std::string> ivs;
};

// Memory for the decoded size in a header. A header can lie, so the memory is mapped, and pages
// that are not used take no room.
class Room
{
public:
  explicit Room(guint32 announced)
      : size(std::max<gsize>(announced, 1)),
        bytes(mmap(nullptr, size, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0))
  {
    if (bytes == MAP_FAILED)
      fail(Exit::local, "not enough memory for a block that announces %u bytes", announced);
  }
  ~Room()
  {
    munmap(bytes, size);
  }
  Room(const Room &) = delete;

  char *
  data()
  {
    return static_cast<char *>(bytes);
  }

  const gsize size;

private:
  void *const bytes;
};

// Returns the number of chunks if the payload begins like the chunk layout, 0 otherwise.
static guint
chunks_announced(std::string_view payload)
{
  auto byte = [&](gsize at) { return static_cast<guint8>(payload[at]); };
  bool chunked = payload.size() >= 3 && byte(0) == 0x55 && byte(1) >= 1 && byte(1) <= 32 &&
                 byte(2) == (byte(1) ^ 0x55);
  return chunked ? byte(1) : 0;
}

class BlockLayer : public UnitLayer
{
public:
  using UnitLayer::UnitLayer;

protected:
  guint64
  unit_size(const char *bytes, gsize size) const override
  {
    if (size < header_size)
      return 0;
    auto payload = block::load_payload_size(bytes);
    return plausible_block(payload, block::load_decoded_size(bytes))
               ? header_size + guint64{payload}
               : 0;
  }

  void
  take_unit(std::string_view present) override
  {
    auto unit = unit_here(present.size());
    auto announced = block::load_decoded_size(present.data());
    Room room(announced);
    gsize content;
    if (!decode(present, room.data(), room.size, &content)) {
      damaged("an LZO1X stream that gives at most " + bytes_text(announced), "a broken one");
      pass_on_gap();
      return;
    }
    auto chunks = reporter.strict ? chunks_read(present, announced, {room.data(), content}) : 0;
    reporter.block(unit, content, chunks);
    note_oddities(unit, present.substr(header_size), announced, content, chunks);
    pass_on(room.data(), content);
  }

  std::string
  unit_name(const char *) const override
  {
    return "a block of ";
  }

  void
  report_bad_header(const char *header) override
  {
    damaged("the sizes of a block and of what it holds",
            std::to_string(block::load_payload_size(header)) + " and " +
                std::to_string(block::load_decoded_size(header)));
  }

  void
  forget() override
  {
    after_empty = false;
  }

private:
  bool
  decode(std::string_view unit, char *room, gsize size, gsize *produced)
  {
    gsize consumed;
    return g_converter_convert(converter, unit.data(), unit.size(), room, size,
                               G_CONVERTER_NO_FLAGS, &consumed, produced,
                               nullptr) == G_CONVERTER_CONVERTED;
  }

  // Returns how many chunks the library has read, 0 for a plain stream. A plain stream that begins
  // with 0x55 opens with 68 literals. The long form of the same run, 0 and 50, does not begin like
  // chunks. So the payload was read as plain if the long form decodes to the same content.
  guint
  chunks_read(std::string_view present, guint32 announced, std::string_view content)
  {
    auto chunks = chunks_announced(present.substr(header_size));
    if (chunks == 0)
      return 0;
    std::string plain(header_size, 0);
    block::store_header(plain.data(), static_cast<guint32>(present.size() - header_size + 1),
                        announced);
    plain += {0, 68 - 18};
    plain += present.substr(header_size + 1);
    Room room(announced);
    gsize produced;
    bool same = decode(plain, room.data(), room.size, &produced) &&
                content == std::string_view(room.data(), produced);
    return same ? 0 : chunks;
  }

  void
  note_oddities(const Unit &unit, std::string_view payload, guint32 announced, gsize content,
                guint chunks)
  {
    if (content != announced)
      reporter.note(unit,
                    "announces " + bytes_text(announced) + " and holds " + bytes_text(content));
    if (content == 0 && !payload.empty())
      reporter.note(unit, "a payload that holds nothing");
    if (chunks == 1)
      reporter.note(unit, "a single chunk, which another reader can take for a plain stream");
    if (chunks == 0 && chunks_announced(payload) > 0)
      reporter.note(unit, "a plain stream that another reader can take for chunks");
    if (after_empty)
      reporter.note(unit, "a block after an empty one, which ends a stream");
    after_empty = payload.empty();
  }

  bool after_empty = false;
};

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
  void
  forget() override
  {
    begun = false;
    shown.clear();
  }

  void
  begin()
  {
    begun = true;
    first = here();
    arrived = 0;
  }

  void
  take_part(gsize size)
  {
    shown.append(buffer().substr(0, std::min(size, keep - shown.size())));
    arrived += size;
    consume(size);
  }

  void
  finish(guint64 size)
  {
    reporter.message({first, index, size}, arrived, shown);
    index++;
    forget();
  }

  gsize keep;
  bool begun = false;
  Place first{}; // the start of the current message
  guint64 arrived = 0;
  std::string shown;
};

class FrameLayer : public MessageLayer
{
public:
  FrameLayer(Reporter &reporter, gsize keep) : MessageLayer("frame", reporter, keep)
  {
    header_piece = frame::prefix_size;
  }

protected:
  bool
  take() override
  {
    if (!begun)
      return take_prefix();
    take_part(std::min<gsize>(buffer().size(), length - arrived));
    if (arrived < length)
      return false;
    auto place = first;
    finish(frame::prefix_size + guint64{length});
    if (length == 0)
      reporter.note(place, "an empty message, which blocking readers take for the end");
    return true;
  }

  guint64
  unit_size(const char *bytes, gsize size) const override
  {
    if (size < frame::prefix_size || frame::load_length(bytes) < 0)
      return 0;
    return frame::prefix_size + static_cast<guint64>(frame::load_length(bytes));
  }

  void
  report_cut() override
  {
    if (begun)
      reporter.damage(first, "a message of " + bytes_text(length), bytes_text(arrived));
    else
      damaged("the 4 bytes of a message's length", bytes_text(buffer().size()));
  }

private:
  bool
  take_prefix()
  {
    auto present = buffer();
    if (present.size() < frame::prefix_size)
      return false;
    length = static_cast<guint32>(frame::load_length(present.data()));
    if (unit_size(present.data(), present.size()) == 0) {
      damaged("a message length that is not negative", std::to_string(static_cast<gint32>(length)));
      lose_track();
      return false;
    }
    begin();
    consume(frame::prefix_size);
    return true;
  }

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
  bool
  take() override
  {
    if (buffer().empty())
      return false;
    if (!begun)
      begin();
    auto size = unit_size(buffer().data(), buffer().size());
    take_part(size == 0 ? buffer().size() : size - 1);
    if (size == 0)
      return false;
    consume(1);
    finish(arrived + 1);
    return true;
  }

  guint64
  unit_size(const char *bytes, gsize size) const override
  {
    auto at = std::string_view(bytes, size).find(terminator);
    return at == std::string_view::npos ? 0 : at + 1;
  }

  void
  report_cut() override
  {
    reporter.damage(first, "a string with its terminator", bytes_text(arrived) + " without it");
  }

private:
  char terminator;
};
} // namespace

std::unique_ptr<Layer>
record_layer(Reporter &reporter, GConverter *decryptor)
{
  return std::make_unique<RecordLayer>("record", reporter, decryptor);
}

std::unique_ptr<Layer>
block_layer(Reporter &reporter, GConverter *decompressor)
{
  return std::make_unique<BlockLayer>("block", reporter, decompressor);
}

std::unique_ptr<Layer>
frame_layer(Reporter &reporter, gsize keep)
{
  return std::make_unique<FrameLayer>(reporter, keep);
}

std::unique_ptr<Layer>
string_layer(Reporter &reporter, gsize keep, char terminator)
{
  return std::make_unique<StringLayer>(reporter, keep, terminator);
}
