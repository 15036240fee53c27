// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends messages of any sizes in both directions between two channels with up to four stages,
// blocking and asynchronously, with key changes, resets and splits in between. Every message
// arrives as sent, and then the end. GIO's own asynchronous calls write some of the messages.
#include "support.h"

#include <zelgvc/gvcwire.h>

#include <array>

using namespace fuzz;

namespace
{

constexpr std::size_t stages_most = 4;

// A larger message could fill the socket while nobody reads.
constexpr std::size_t blocking_most = 16 * 1024;

struct Stage {
  unsigned kind;
  Ref<GConverter> in, out;
};

class End
{
public:
  // Both ends and both directions share the pieces.
  End(GSocketConnection *socket, View stages, Script *pieces)
      : connection_(own(gvc_connection_new(socket)))
  {
    for (auto decision : stages) {
      const unsigned kind = decision % (stage_kinds + 1);
      const bool split = kind == stage_kinds;
      if (kind != 0)
        add({kind, split ? new_splitter(pieces) : new_in_stage(kind),
             split ? new_splitter(pieces) : new_out_stage(kind)});
    }
    auto *stream = G_IO_STREAM(connection_.get());
    in = own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(stream)));
    out = own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(stream)));
  }
  const Stage *
  stage(std::size_t i) const
  {
    return stages_.empty() ? nullptr : &stages_[i % stages_.size()];
  }
  GIOStream *
  stream() const
  {
    return G_IO_STREAM(connection_.get());
  }

  Ref<GvcBytesInputStream> in;
  Ref<GvcBytesOutputStream> out;

private:
  void
  add(Stage stage)
  {
    gvc_connection_add_converters(connection_.get(), stage.in.get(), stage.out.get());
    stages_.push_back(std::move(stage));
  }

  Ref<GvcConnection> connection_;
  std::vector<Stage> stages_;
};

// More than a stage converts at once.
constexpr std::size_t largest = longest_pattern;

// Mostly small. A message of the largest size takes as long as hundreds of others.
std::size_t
message_size(Script *script, bool may_be_largest)
{
  const std::size_t decision = script->byte();
  if (decision < 0xe0)
    return decision;
  if (decision < 0xfc)
    return (decision - 0xdf) * 151;
  const auto more = script->byte();
  return may_be_largest && more == 0xff ? largest : more * 100U;
}

void
check_message(GBytes *message, const GError *error, View sent, bool blocking)
{
  if (sent.empty() && blocking) {
    FUZZ_CHECK(!message && g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED));
    return;
  }
  FUZZ_CHECK(message && !error);
  FUZZ_CHECK(equal(view(message), sent));
}

struct Form {
  bool variant, write_blocking, read_blocking, gio;
};

// A frame as vectors for GIO's writes, which use them until they end.
class Frame
{
public:
  explicit Frame(View message)
      : prefix_(gvc::wire::frame::prefix(message.size())), vectors_{{&prefix_, sizeof prefix_},
                                                                    {message.data(),
                                                                     message.size()}},
        all_(sizeof prefix_ + message.size())
  {
  }
  Frame(const Frame &) = delete;
  Frame &operator=(const Frame &) = delete;

  void
  write_async(GOutputStream *stream, Waiter *waiter)
  {
    g_output_stream_writev_all_async(stream, vectors_, vectors_[1].size > 0 ? 2 : 1, 0, nullptr,
                                     Waiter::ready, waiter);
  }
  void
  finish(GOutputStream *stream, Waiter *waiter) const
  {
    gsize written = 0;
    FUZZ_CHECK(g_output_stream_writev_all_finish(stream, waiter->wait(), &written, nullptr));
    FUZZ_CHECK(written == all_);
  }

private:
  std::uint32_t prefix_;
  GOutputVector vectors_[2];
  std::size_t all_;
};

GOutputStream *
stream_for_gio(End *end, Form form)
{
  return form.variant ? G_OUTPUT_STREAM(end->out.get())
                      : g_io_stream_get_output_stream(end->stream());
}

void
write_message(End *end, GBytes *bytes, Form form, Frame *frame, Waiter *waiter)
{
  if (form.gio)
    frame->write_async(stream_for_gio(end, form), waiter);
  else if (form.write_blocking)
    FUZZ_CHECK(put(end->out.get(), bytes, form.variant, nullptr));
  else
    start_put(end->out.get(), bytes, form.variant, 0, nullptr, waiter);
}

void
finish_write(End *end, Form form, const Frame &frame, Waiter *waiter)
{
  if (form.gio)
    frame.finish(stream_for_gio(end, form), waiter);
  else if (!form.write_blocking)
    FUZZ_CHECK(finish_put(end->out.get(), waiter->wait(), form.variant, nullptr));
}

void
read_blocking(End *end, View sent)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(end->in.get(), nullptr, &error);
  check_message(message, error, sent, true);
}

void
finish_read(End *end, Form form, View sent, Waiter *waiter)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message =
      fuzz::finish_read(end->in.get(), waiter->wait(), form.variant, &error);
  check_message(message, error, sent, false);
}

// Sends one message. Writes and reads at the same time if a blocking call could wait for ever.
void
exchange(End *from, End *to, View sent, Form form)
{
  g_autoptr(GBytes) bytes = g_bytes_new_static(sent.data(), sent.size());
  Frame frame(sent);
  Waiter written, arrived;
  if (form.read_blocking) {
    write_message(from, bytes, form, &frame, &written);
    finish_write(from, form, frame, &written);
    read_blocking(to, sent);
  } else {
    start_read(to->in.get(), form.variant, 0, nullptr, &arrived);
    write_message(from, bytes, form, &frame, &written);
    finish_read(to, form, sent, &arrived);
    finish_write(from, form, frame, &written);
  }
  run_ready(); // no second call
}

// Resets both sides of one stage, which they may do between any two messages.
void
restart(const End &from, const End &to, std::uint8_t decision)
{
  auto *out = from.stage(decision & 7);
  auto *in = to.stage(decision & 7);
  if (!out)
    return;
  if (GVC_IS_ENCRYPTOR(out->out.get()) && (decision & 8)) {
    const guint bits = decision & 16 ? 128 : 256;
    gvc_encryptor_set_key_length(GVC_ENCRYPTOR(out->out.get()), bits);
    gvc_decryptor_set_key_length(GVC_DECRYPTOR(in->in.get()), bits);
  } else {
    g_converter_reset(out->out.get());
    g_converter_reset(in->in.get());
  }
}

// Closes a channel; the other end reads no message more.
void
finish(End *from, GSocketConnection *socket, End *to, bool plain)
{
  FUZZ_CHECK(g_io_stream_close(from->stream(), nullptr, nullptr));
  FUZZ_CHECK(g_io_stream_close(G_IO_STREAM(socket), nullptr, nullptr));
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(to->in.get(), nullptr, &error);
  FUZZ_CHECK(!message);
  FUZZ_CHECK(g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
             (!plain && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT)));
}

} // namespace

// The script: the stages and then the messages. The payload: the sizes of pieces.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  std::array<std::uint8_t, stages_most> stages;
  for (auto &stage : stages)
    stage = script.byte();
  Script pieces(payload);
  memory_limit = largest;
  auto [a, b] = new_connections();
  End first(a.get(), stages, &pieces), second(b.get(), stages, &pieces);

  for (unsigned i = 0; i < 16 && !script.empty(); i++) {
    const auto decision = script.byte();
    const bool back = decision & 1;
    auto *from = back ? &second : &first;
    auto *to = back ? &first : &second;
    if (decision & 0x40)
      restart(*from, *to, script.byte());
    const auto sent = pattern(message_size(&script, i == 0), decision);
    const bool small = sent.size() <= blocking_most;
    exchange(from, to, sent,
             {(decision & 2) != 0, small && (decision & 4), small && (decision & 8),
              (decision & 0x20) != 0});
  }
  finish(&first, a.get(), &second, !first.stage(0));
  return 0;
}
