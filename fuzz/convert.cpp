// SPDX-License-Identifier: LGPL-2.1-or-later
// Decompresses and decrypts any bytes, in calls of the converter with any part of the bytes and any
// room, and in a converter stream over any pieces. Every call keeps the converter's contract,
// progress never stops, and output and room stay within what the bytes can mean.
#include "support.h"

#include "tests/support/convert.h"

#include <zelgvc/gvcwire.h>

using namespace fuzz;
namespace block = gvc::wire::block;
namespace record = gvc::wire::record;

namespace
{

constexpr bool
is_decompressor(unsigned kind)
{
  return kind == 1;
}

// The size of the block or record at the start of `in`, if its header is complete.
std::optional<std::uint64_t>
announced(unsigned kind, View in)
{
  if (in.size() < record::header_size)
    return std::nullopt;
  if (is_decompressor(kind))
    return block::header_size + std::uint64_t{block::load_payload_size(in.data())};
  const auto length = record::load_length(in.data());
  if (length == 0)
    return record::iv_record_size;
  return length > UINT64_MAX - record::header_size ? UINT64_MAX : record::header_size + length;
}

// The room that the block or record asks for.
std::uint64_t
announced_room(unsigned kind, View in)
{
  return is_decompressor(kind) ? block::load_decoded_size(in.data())
                               : record::load_length(in.data());
}

// A block that announces more than its payload can hold may fail, or succeed if the room is enough.
bool
exaggerates(unsigned kind, View in)
{
  const auto length = announced(kind, in);
  return is_decompressor(kind) && length &&
         announced_room(kind, in) > std::max<std::uint64_t>((*length - 8) * 255, 1024 * 1024);
}

bool
matches(const ErrorPtr &error, int code) // in G_IO_ERROR
{
  return g_error_matches(error.get(), G_IO_ERROR, code);
}

// Checks the contract of every call.
void
check_call(const Conversion &call, unsigned kind, View in, std::size_t room, GConverterFlags flags)
{
  if (flags & G_CONVERTER_FLUSH) {
    FUZZ_CHECK(call.result == G_CONVERTER_FLUSHED && call.read == 0 && call.written == 0);
    return;
  }
  const auto length = announced(kind, in);
  if (call.result == G_CONVERTER_ERROR) {
    FUZZ_CHECK(call.error && call.read == untouched && call.written == untouched);
    const bool partial = !length || *length > in.size();
    const bool narrow = !partial && announced_room(kind, in) > room;
    if (matches(call.error, G_IO_ERROR_PARTIAL_INPUT))
      FUZZ_CHECK(partial);
    else if (matches(call.error, G_IO_ERROR_NO_SPACE))
      FUZZ_CHECK(narrow);
    else
      FUZZ_CHECK(matches(call.error, G_IO_ERROR_FAILED) && length);
    return;
  }
  FUZZ_CHECK(!call.error);
  FUZZ_CHECK(call.result ==
             (flags & G_CONVERTER_INPUT_AT_END ? G_CONVERTER_FINISHED : G_CONVERTER_CONVERTED));
  FUZZ_CHECK(length && call.read == *length && call.read <= in.size());
  FUZZ_CHECK(call.written <= announced_room(kind, in) && call.written <= room);
}

// Converts with growing room until the converter asks for no more of it. A room that it still finds
// too small when it is larger than all that the input can stand for would grow without end.
Conversion
convert_growing(GConverter *converter, unsigned kind, View in, std::size_t room,
                GConverterFlags flags)
{
  const auto most = std::max<std::size_t>(in.size() * 255, 1024 * 1024);
  for (;; room *= 2) {
    auto call = ::convert(converter, in, room, flags);
    check_call(call, kind, in, room, flags);
    if (!matches(call.error, G_IO_ERROR_NO_SPACE))
      return call;
    FUZZ_CHECK(room < most);
  }
}

enum class End { partial, broken, exaggerated };

// Converts everything in calls of the converter. Returns the output and the kind of its end.
Bytes
convert_directly(unsigned kind, View in, Script script, End *end)
{
  auto converter = new_in_stage(kind);
  Bytes out;
  std::size_t offered = 0;

  for (;;) {
    const auto decision = script.byte();
    const auto flags = decision == 0xff   ? G_CONVERTER_FLUSH
                       : decision == 0xfe ? G_CONVERTER_INPUT_AT_END
                                          : G_CONVERTER_NO_FLAGS;
    const auto room = decision & 0x80 ? std::size_t{decision} * 64 : std::size_t{decision} + 1;
    const auto part = in.first(offered);
    const auto call = convert_growing(converter.get(), kind, part, room, flags);
    if (exaggerates(kind, part) && !matches(call.error, G_IO_ERROR_PARTIAL_INPUT)) {
      // The result depends on the room, which differs in a stream.
      *end = End::exaggerated;
      return out;
    }
    if (call.result == G_CONVERTER_CONVERTED || call.result == G_CONVERTER_FINISHED) {
      out.insert(out.end(), call.room.begin(),
                 call.room.begin() + static_cast<std::ptrdiff_t>(call.written));
      in = in.subspan(call.read);
      offered -= call.read;
    } else if (matches(call.error, G_IO_ERROR_PARTIAL_INPUT)) {
      *end = End::partial;
      if (offered == in.size())
        return out;
      const auto more = script.byte();
      offered = more == 0 ? in.size() : std::min(in.size(), offered + more);
    } else if (call.result == G_CONVERTER_ERROR) {
      *end = End::broken;
      return out;
    }
  }
}

// Converts the same bytes in GIO's stream, which delivers the same output and then fails.
void
convert_in_stream(unsigned kind, View in, Script script, View expected, End end)
{
  Source source{.data = in, .pieces = script};
  auto base = new_input(&source);
  auto converter = new_in_stage(kind);
  auto stream = own(g_converter_input_stream_new(base.get(), converter.get()));

  while (end != End::exaggerated || !expected.empty()) {
    Bytes buffer(1 + script.byte() * 16U);
    g_autoptr(GError) error = nullptr;
    const auto nread =
        g_input_stream_read(stream.get(), buffer.data(), buffer.size(), nullptr, &error);
    if (nread <= 0) {
      const bool broken = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_FAILED);
      const bool partial = !error || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
      FUZZ_CHECK(expected.empty() && (end == End::broken ? broken : partial));
      return;
    }
    const auto got = static_cast<std::size_t>(nread);
    FUZZ_CHECK(got <= expected.size() && equal(View(buffer).first(got), expected.first(got)));
    expected = expected.subspan(got);
  }
}

} // namespace

// The script: the converter, and pieces and rooms.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto decision = script.byte();
  const auto kind = 1 + decision % (stage_kinds - 1);
  End end;
  const auto out = convert_directly(kind, payload, script, &end);
  FUZZ_CHECK(out.size() <= payload.size() * 255);
  convert_in_stream(kind, payload, script, out, end);
  return 0;
}
