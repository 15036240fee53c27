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

class End
{
public:
  // Both ends and both directions share the pieces.
  End(GSocketConnection *socket, View stages, Script *pieces)
      : connection_(own(gvc_connection_new(socket)))
  {
    for (auto decision : stages)
      if (const unsigned kind = decision % (splitter + 1))
        stages_.push_back(add_stage(connection_.get(), kind, pieces));
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

struct Form {
  bool variant, write_blocking, read_blocking, gio;
};

// A message on its way: written blocking, asynchronously, or as a frame by GIO's own call.
class Write
{
public:
  Write(End *end, View message, Form form)
      : end_(end), form_(form), bytes_(g_bytes_new_static(message.data(), message.size())),
        prefix_(gvc::wire::frame::prefix(message.size())),
        size_(sizeof prefix_ + message.size()), vectors_{{&prefix_, sizeof prefix_},
                                                         {message.data(), message.size()}}
  {
    if (form.gio)
      g_output_stream_writev_all_async(stream(), vectors_, message.empty() ? 1 : 2, 0, nullptr,
                                       Waiter::ready, &waiter_);
    else if (form.write_blocking)
      FUZZ_CHECK(put(end->out.get(), bytes_.get(), form.variant, nullptr));
    else
      start_put(end->out.get(), bytes_.get(), form.variant, 0, nullptr, &waiter_);
  }
  Write(const Write &) = delete;

  void
  finish()
  {
    gsize written = 0;
    if (form_.gio)
      FUZZ_CHECK(g_output_stream_writev_all_finish(stream(), waiter_.wait(), &written, nullptr) &&
                 written == size_);
    else if (!form_.write_blocking)
      FUZZ_CHECK(finish_put(end_->out.get(), waiter_.wait(), form_.variant, nullptr));
  }

private:
  GOutputStream *
  stream() const
  {
    return form_.variant ? G_OUTPUT_STREAM(end_->out.get())
                         : g_io_stream_get_output_stream(end_->stream());
  }

  End *end_;
  Form form_;
  support::BytesRef bytes_;
  std::uint32_t prefix_;
  std::size_t size_;
  GOutputVector vectors_[2]; // GIO changes them until the write has ended
  Waiter waiter_;
};

// Sends one message. Writes and reads at the same time if a blocking call could wait for ever.
void
exchange(End *from, End *to, View sent, Form form)
{
  auto *in = to->in.get();
  Waiter arrived;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message = nullptr;
  if (!form.read_blocking)
    start_read(in, form.variant ? "ay" : nullptr, 0, nullptr, &arrived);
  Write write(from, sent, form);
  if (form.read_blocking) {
    write.finish();
    message = gvc_bytes_input_stream_read_bytes(in, nullptr, &error);
  } else {
    message = finish_read(in, arrived.wait(), form.variant, &error);
    write.finish();
  }
  run_ready(); // no second call

  if (sent.empty() && form.read_blocking)
    FUZZ_CHECK(!message && g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED));
  else
    FUZZ_CHECK(message && !error && equal(view(message), sent));
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
  auto [a, b] = support::new_socket_pair(support::Family::unix_domain);
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
