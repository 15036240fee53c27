// SPDX-License-Identifier: LGPL-2.1-or-later
// Writes seeds for all targets into a directory: small inputs, mostly of what the library writes.
#include "support.h"

#include <lzo/lzo1x.h>

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);

using namespace fuzz;

namespace
{

constexpr std::string_view text = "a channel, a channel, a channel and another channel";

Bytes
bytes(std::string_view text)
{
  return {text.begin(), text.end()};
}

Bytes
join(std::initializer_list<Bytes> parts)
{
  Bytes all;
  for (const auto &part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

class Corpus
{
public:
  Corpus(std::string root, const char *target) : directory_(std::move(root) + '/' + target)
  {
    FUZZ_CHECK(g_mkdir_with_parents(directory_.c_str(), 0777) == 0);
  }
  void
  put(const std::string &name, const Bytes &input) const
  {
    FUZZ_CHECK(g_file_set_contents((directory_ + '/' + name).c_str(),
                                   reinterpret_cast<const char *>(input.data()),
                                   static_cast<gssize>(input.size()), nullptr));
  }
  void
  put(const std::string &name, const Bytes &script, const Bytes &payload) const
  {
    FUZZ_CHECK(script.size() < 256);
    put(name, join({{static_cast<std::uint8_t>(script.size())}, script, payload}));
  }

private:
  std::string directory_;
};

// A frame as GvcBytesOutputStream writes it.
Bytes
frame(GBytes *message)
{
  auto memory = own(g_memory_output_stream_new_resizable());
  auto stream = own(gvc_bytes_output_stream_new(memory.get()));
  FUZZ_CHECK(put(stream.get(), message, false, nullptr));
  auto *buffer = G_MEMORY_OUTPUT_STREAM(memory.get());
  auto *data = static_cast<std::uint8_t *>(g_memory_output_stream_get_data(buffer));
  return {data, data + g_memory_output_stream_get_data_size(buffer)};
}

Bytes
frame(std::string_view message)
{
  g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
  return frame(bytes);
}

Bytes
variant_frame(const char *value)
{
  g_autoptr(GVariant) variant = g_variant_ref_sink(g_variant_new_parsed(value));
  g_autoptr(GBytes) bytes = g_variant_get_data_as_bytes(variant);
  return frame(bytes);
}

// The output of a stage, for one write or writes of seven bytes.
Bytes
staged(unsigned kind, const Bytes &plain, bool in_pieces = false)
{
  const Bytes sevens(100, 7);
  Script pieces(in_pieces ? View(sevens) : View());
  return convert_all(new_out_stage(kind).get(), plain, &pieces);
}

void
put_frames(const Corpus &corpus)
{
  const auto two = join({frame("hello"), frame(""), frame(text)});
  corpus.put("bytes", {}, two);
  corpus.put("in-pieces", {0, 0, 0, 0, 1, 0x83, 2, 0x80, 5}, two);
  corpus.put("in-threads", {0xfc, 0, 0, 0, 1, 3}, two);
  corpus.put("cut-off", {}, Bytes(two.begin(), two.end() - 9));
  corpus.put("fails", {0, 1, 12, 0}, two);
  corpus.put("cancelled", {0, 2, 3, 0}, two);
  corpus.put("negative", {}, {0xff, 0xff, 0xff, 0xff, 1});
  corpus.put("large", {}, {0, 0, 0, 1, 1});
  corpus.put("large-and-there", {0xef}, {0, 0, 0, 1, 1});
  corpus.put("string", {2}, variant_frame("'hello'"));
  corpus.put("pair", {3}, variant_frame("('hello', uint32 7)"));
  corpus.put("dictionary", {4}, variant_frame("{'one': <1>, 'two': <'zwei'>}"));
  corpus.put("tuple", {8}, variant_frame("(byte 1, int64 2, @ms 'three', <4>)"));
}

void
put_strings(const Corpus &corpus)
{
  const auto lines = bytes("one\ntwo\n\nthree");
  corpus.put("lines", {0, 0, 0, '\n', '\n'}, lines);
  corpus.put("waits", {0, 0, 0, '\n', '\n', 0x80, 1, 0x80, 1, 1, 0x80}, lines);
  corpus.put("two-terminators", {0, 0, 0, 'o', '\n'}, lines);
  corpus.put("zero", {}, bytes({"a\0b\0", 4}));
  corpus.put("fails", {3, 6, 0, '\n', '\n'}, lines);
  corpus.put("in-threads", {0xf8, 0, 0, '\n', '\n'}, lines);
  corpus.put("grows", {4, 0, 0, '\n', '\n'}, join({Bytes(27, 'a'), {'\n'}}));
  // Streams that the reader can peek: a buffer, the socket, a stage, a buffer over the channel.
  corpus.put("buffered", {8, 0, 0, '\n', '\n', 3, 5, 1, 0, 2}, lines);
  corpus.put("buffered-fails", {11, 6, 0, '\n', '\n', 15}, lines);
  corpus.put("socket", {16, 0, 0, '\n', '\n', 0, 1, 3, 1, 5}, lines);
  corpus.put("socket-grows", {20, 0, 0, '\n', '\n', 0, 100}, join({Bytes(27, 'a'), {'\n'}}));
  for (std::uint8_t kind = 1; kind < stage_kinds; kind++) {
    const auto name = std::to_string(kind);
    corpus.put("stage-" + name, {16, 0, 0, '\n', '\n', kind, 5, 3, 20, 9}, lines);
    corpus.put("split-stage-" + name,
               {16, 0, 0, '\n', 'o', static_cast<std::uint8_t>(kind + 4), 9, 1, 7, 30, 2}, lines);
    corpus.put("buffered-stage-" + name,
               {24, 0, 0, '\n', '\n', static_cast<std::uint8_t>(kind + 8), 4, 40}, lines);
  }
}

void
put_convert(const Corpus &corpus)
{
  static constexpr const char *names[] = {"decompress", "decrypt-256", "decrypt-128"};
  for (unsigned kind = 1; kind < stage_kinds; kind++) {
    const std::string name = names[kind - 1];
    const auto script = static_cast<std::uint8_t>(kind - 1);
    const auto one = staged(kind, bytes(text));
    corpus.put(name, {script}, one);
    corpus.put(name + "-several", {static_cast<std::uint8_t>(script + 0x81), 0, 9, 0, 40},
               staged(kind, bytes(text), true));
    corpus.put(name + "-cut-off", {script, 1, 8, 1, 8}, Bytes(one.begin(), one.end() - 2));
  }
  corpus.put("decompress-run", {0}, staged(1, Bytes(10'000, 'a')));
  corpus.put("decompress-lies", {0}, {3, 0, 0, 0, 0xff, 0xff, 0xff, 0xff, 0x11, 0, 0});
  // Announces more than its payload can hold, but less than the largest room.
  corpus.put("decompress-boasts", {0, 0, 0, 0x5c},
             {5, 0, 0, 0, 0, 0, 0x11, 0, 0x12, 'a', 0x11, 0, 0});
  corpus.put("decrypt-lies", {1}, {0, 0, 0, 0x40, 0, 0, 0, 0, 1, 2, 3});
}

void
put_chunked(const Corpus &corpus)
{
  corpus.put("one", {1}, bytes(text));
  corpus.put("two", {1, 0, 0, 1}, bytes(text));
  corpus.put("thirty-two", {1, 0, 0, 31}, bytes(text));
  corpus.put("too-many", {1, 0, 0, 32}, bytes(text));
  corpus.put("wrong-total", {1, 0, 0, 2, 0xf1}, bytes(text));
  corpus.put("wrong-size", {1, 0, 0, 2, 0, 0xe1}, bytes(text));
  const auto block = staged(1, bytes(text));
  corpus.put("plain", {0, 0, 1}, Bytes(block.begin() + 8, block.end()));
  // Two chunks of "a" and "bc".
  corpus.put("raw", {0, 0, 1}, {0x55, 2,   0x57, 3, 0, 0,    0,   5,   0,    0, 0,
                                0x12, 'a', 0x11, 0, 0, 0x13, 'b', 'c', 0x11, 0, 0});
  // A plain stream of 68 bytes, and a single chunk of as many.
  Bytes both{0x55, 1, 0x54, 68, 0, 0, 0, 17 + 57};
  for (std::uint8_t byte = 'A'; byte < 'A' + 57; byte++)
    both.push_back(byte);
  both.insert(both.end(), {40, 13, 0, 33, 0x11, 0, 0});
  corpus.put("both-ways", {0, 68}, both);
}

void
put_channel(const Corpus &corpus)
{
  const auto frames = join({frame("hello"), frame(""), frame(text), frame("end")});
  corpus.put("plain", {0, 0}, frames);
  // In pieces to a source that stays attached, which reads a few bytes at a time.
  corpus.put("watched", {0, 0x38, 3, 5, 60, 1, 1, 9}, frames);
  corpus.put("watched-stages", {6, 0x0a, 40, 5, 60, 1, 1, 9}, frames);
  corpus.put("plain-cut-off", {0, 0, 3, 3}, Bytes(frames.begin(), frames.end() - 1));
  for (unsigned first = 1; first < stage_kinds; first++)
    for (unsigned second = 0; second < stage_kinds; second++) {
      const auto stages = static_cast<std::uint8_t>(first + second * stage_kinds);
      const auto name = std::to_string(first) + std::to_string(second);
      const auto outer = second == 0 ? frames : staged(second, frames);
      corpus.put("peer-" + name, {stages, 2}, frames);
      if (first <= 2 && second <= 2) {
        corpus.put("wire-" + name, {stages, 0}, staged(first, outer));
        corpus.put("split-" + name, {stages, 4, 3, 5, 60, 1, 1, 9}, staged(first, outer));
      }
    }
}

void
put_roundtrip(const Corpus &corpus)
{
  // In both directions, blocking and asynchronously, bytes and variants, with a reset in between.
  const Bytes messages{0x0c, 5, 1, 60, 2, 0xd0, 0x0d, 0, 0x40, 9, 30, 0x0e, 70, 3, 0xfd, 40};
  static const struct {
    const char *name;
    Bytes stages;
  } orders[] = {
      {"none", {0, 0, 0, 0}}, {"c", {1, 0, 0, 0}},  {"e", {2, 0, 0, 0}},    {"ec", {2, 1, 0, 0}},
      {"ce", {1, 3, 0, 0}},   {"cc", {1, 1, 0, 0}}, {"ecec", {2, 1, 3, 1}}, {"split", {4, 1, 4, 2}},
  };
  corpus.put("largest", {2, 1, 0, 0, 1, 0xff, 0xff}, {});
  corpus.put("largest-by-gio", {2, 1, 0, 0, 0x20, 0xff, 0xff}, {});
  for (const std::uint8_t stage : {0, 1, 2})
    corpus.put("by-gio-" + std::to_string(stage),
               {stage, 0, 0, 0, 0x20, 60, 0x22, 0xd0, 0x23, 0, 0x28, 9, 0x2e, 70, 0x21, 0xfd, 40},
               {});
  for (const auto &order : orders) {
    corpus.put(order.name, join({order.stages, messages}), {});
    corpus.put(std::string(order.name) + "-in-pieces", join({order.stages, messages}),
               Bytes(40, 3));
  }
}

// The numbers of the calls in the target `states`.
enum Call : std::uint8_t {
  add_stage = 0,
  open_reader = 1,
  open_writer = 2,
  read_async = 3,
  read_blocking = 5,
  write_async = 6,
  write_blocking = 8,
  cancel = 9,
  close_something = 10,
  drop_something = 11,
  iterate = 12,
  peer_sends_message = 14,
  peer_reads = 15,
  peer_sends_payload = 16,
  peer_goes = 17,
  write_by_gio = 18,
};

void
put_states(const Corpus &corpus)
{
  for (std::uint8_t kind = 0; kind < stage_kinds - 1; kind++) {
    const std::uint8_t other = kind == 0 ? 1 : 0;
    const Bytes stages{add_stage, kind, add_stage, other};
    const auto name = "stages-" + std::to_string(kind) + std::to_string(other);
    corpus.put(name + "-read",
               join({stages,
                     {open_reader, 1, peer_sends_message, 20, 0, 0, read_async, 0, 0, iterate, 15},
                     {iterate, 15, peer_sends_message, 9, 3, 3, 3, read_blocking, peer_goes, 1},
                     {read_async, 1, 0, iterate, 15, close_something, 1}}),
               {});
    corpus.put(name + "-write",
               join({stages,
                     {open_writer, 0, write_async, 30, 0, iterate, 15, peer_reads, 0},
                     {write_blocking, 40, peer_reads, 0, write_async, 0xff, 0, iterate, 9, cancel},
                     {0, iterate, 15, peer_goes, 0, close_something, 1}}),
               {});
  }
  corpus.put("drop-while-reading",
             {open_reader, 1, read_async, 0, 0, drop_something, 0, drop_something, 2, iterate, 3,
              peer_sends_message, 5, iterate, 15},
             {});
  corpus.put("close-while-writing",
             {open_writer, 4, write_async, 0xfc, 0, close_something, 1, close_something, 4,
              peer_reads, 0, iterate, 15, peer_reads, 0, iterate, 15, close_something, 4},
             {});
  corpus.put("strings",
             {open_reader, 0, read_async, '\n', 0, peer_sends_payload, 3, iterate, 9,
              peer_sends_payload, 9, iterate, 15, read_async, '\n', 0, cancel, 0},
             bytes("one\ntwo\n"));
  for (std::uint8_t kind = 0; kind < stage_kinds; kind++)
    corpus.put("writes-by-gio-" + std::to_string(kind),
               join({kind == 0 ? Bytes() : Bytes{add_stage, static_cast<std::uint8_t>(kind - 1)},
                     {open_writer, 0, write_by_gio, 0xf8, 0, iterate, 15, peer_reads, 0, iterate},
                     {15, peer_reads, 0, iterate, 15, write_by_gio, 31, 0, iterate, 9, write_async},
                     {0xfe, 0, iterate, 5, peer_reads, 90, cancel, 0, iterate, 9, peer_reads, 0},
                     {write_by_gio, 0xfb, 0, peer_reads, 0, iterate, 15, peer_goes, 0}}),
               {});
  corpus.put("ill-behaved",
             {add_stage, 0, open_reader, 1, read_async, 0, 0, peer_sends_payload, 40, iterate, 15,
              close_something, 0, 0, iterate, 15},
             staged(1, frame("hello")));
}

// Data, and the same data encoded by the fastest and by the best encoder of another library.
void
put_codec(const std::string &root)
{
  const Corpus roundtrip(root, "lzo1xroundtrip");
  const Corpus decoders[] = {{root, "lzo1xdecode"}, {root, "lzo1xreference"}};
  const auto noise = pattern(2000, 1);
  std::string words;
  for (const auto decision : noise.first(120))
    words += std::array{"the ", "of ", "channel ", "window ", "session\n"}[decision % 5];
  // Matches of many lengths and distances between runs of literals.
  Bytes mixed;
  for (unsigned i = 0; i < 60; i++) {
    const auto literals = noise.subspan(i * 30, i % 40);
    mixed.insert(mixed.end(), literals.begin(), literals.end());
    mixed.insert(mixed.end(), words.begin() + i, words.begin() + 4 + i * 3);
  }
  Bytes periods;
  for (unsigned i = 0; i < 180; i++)
    periods.push_back(static_cast<std::uint8_t>(16 + i % 3 * 16));
  const struct {
    const char *name;
    Bytes data;
  } samples[] = {
      {"empty", {}},
      {"one", {'x'}},
      {"run", Bytes(700, 'a')},
      {"period3", periods},
      {"text", bytes(words)},
      {"noise", Bytes(noise.begin(), noise.begin() + 300)},
      {"mixed", mixed},
  };
  FUZZ_CHECK(lzo_init() == LZO_E_OK);
  Bytes memory(LZO1X_999_MEM_COMPRESS);
  for (const auto &[name, data] : samples) {
    roundtrip.put(name, join({{0}, data}));
    for (auto *encode : {lzo1x_1_compress, lzo1x_999_compress}) {
      Bytes stream(data.size() + data.size() / 16 + 64 + 3);
      lzo_uint size = stream.size();
      FUZZ_CHECK(encode(data.data(), data.size(), stream.data(), &size, memory.data()) == LZO_E_OK);
      stream.resize(size);
      const Bytes room{static_cast<std::uint8_t>(data.size()),
                       static_cast<std::uint8_t>(data.size() >> 8), 0};
      for (const auto &decoder : decoders)
        decoder.put(std::string(name) + (encode == lzo1x_1_compress ? "-1" : "-999"),
                    join({room, stream}));
    }
  }
}

} // namespace

int
main(int argc, char **argv)
{
  LLVMFuzzerInitialize(&argc, &argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  const std::string root = argv[1];
  put_frames({root, "frames"});
  put_strings({root, "strings"});
  put_convert({root, "convert"});
  put_chunked({root, "chunked"});
  put_channel({root, "channel"});
  put_roundtrip({root, "roundtrip"});
  put_states({root, "states"});
  put_codec(root);
  return 0;
}
