// SPDX-License-Identifier: LGPL-2.1-or-later
// Reads any bytes as strings with any terminators, blocking and asynchronously, from a stream that
// can only be read, from a buffered stream, and from channels, which the reader can peek. Only a
// terminator, an error or cancellation ends a string, so the data end with an error or
// cancellation. Each string is what precedes its terminator, and nothing behind the terminator is
// consumed.
#include "support.h"

#include <algorithm>

using namespace fuzz;

namespace
{

struct Terminators {
  std::uint8_t first, second; // in turn
  char
  of(unsigned string) const
  {
    return static_cast<char>(string % 2 == 0 ? first : second);
  }
};

// The bytes that the reader has consumed of the source, if `base` may buffer more.
std::size_t
consumed(const Source &source, GInputStream *base)
{
  return source.position -
         (G_IS_BUFFERED_INPUT_STREAM(base)
              ? g_buffered_input_stream_get_available(G_BUFFERED_INPUT_STREAM(base))
              : 0);
}

void
check_string(const Source &source, GInputStream *base, std::size_t *at, char terminator,
             View string, const GError *error)
{
  const auto end = std::min({source.data.size(), source.fail_at, source.cancel_at});
  const auto rest = source.data.subspan(*at, end - *at);
  const auto found = std::ranges::find(rest, static_cast<std::uint8_t>(terminator));
  if (found == rest.end()) {
    FUZZ_CHECK(string.empty());
    FUZZ_CHECK(g_error_matches(error, G_IO_ERROR,
                               end == source.cancel_at ? int{G_IO_ERROR_CANCELLED} : source_error));
    *at = end;
    return;
  }
  const auto length = static_cast<std::size_t>(found - rest.begin()) + 1;
  FUZZ_CHECK(!error && equal(string, rest.first(length)));
  *at += length;
  FUZZ_CHECK(consumed(source, base) == *at);
}

gchar *
read_async(GvcDataInputStream *stream, char terminator, gsize *length, GCancellable *cancellable,
           GError **error)
{
  Waiter waiter;
  gvc_data_input_stream_read_string_async(stream, terminator, 0, cancellable, Waiter::ready,
                                          &waiter);
  FUZZ_CHECK(!waiter.done());
  auto *string = gvc_data_input_stream_read_string_finish(stream, waiter.wait(), length, error);
  run_ready(); // no second call
  return string;
}

// `buffer` is the size of a buffer over the source, 0 for none.
void
read_all(Source source, Terminators terminators, std::size_t buffer, bool blocking)
{
  auto cancellable = own(g_cancellable_new());
  source.cancellable = cancellable.get();
  auto base = new_input(&source);
  if (buffer > 0)
    base = own(g_buffered_input_stream_new_sized(base.get(), buffer));
  auto stream = own(gvc_data_input_stream_new(base.get()));
  std::size_t at = 0;

  for (unsigned i = 0;; i++) {
    g_autoptr(GError) error = nullptr;
    gsize length = 0;
    const auto terminator = terminators.of(i);
    g_autofree gchar *string =
        blocking ? gvc_data_input_stream_read_string(stream.get(), terminator, &length,
                                                     cancellable.get(), &error)
                 : read_async(stream.get(), terminator, &length, cancellable.get(), &error);
    check_string(source, base.get(), &at, terminator,
                 {reinterpret_cast<std::uint8_t *>(string), length}, error);
    if (!string)
      break;
  }
}

// ---- Channels

struct Plan {
  unsigned stage;
  bool split;         // the input of the stage
  std::size_t buffer; // size of a buffer over the channel, 0 for none
  Script pieces;
  View plain;
};

class Line : public Channel
{
public:
  explicit Line(const Plan &plan)
      : Channel(std::span(&plan.stage, 1), plan.split, plan.pieces), plan_(plan),
        script_(plan.pieces)
  {
    wire_ = plan.stage == 0 ? Bytes(plan.plain.begin(), plan.plain.end())
                            : convert_all(new_out_stage(plan.stage).get(), plan.plain, &script_);
    unsent_ = wire_;
    if (plan.buffer > 0)
      buffered_ = own(g_buffered_input_stream_new_sized(in(), plan.buffer));
    stream_ = own(gvc_data_input_stream_new(plan.buffer > 0 ? buffered_.get() : in()));
  }
  // Sends every string before it is read, since no one could send while a call blocks.
  void
  read_blocking(Terminators terminators)
  {
    while (!unsent_.empty())
      send();
    for (unsigned i = 0; const auto size = next(terminators.of(i)); i++) {
      g_autoptr(GError) error = nullptr;
      gsize length = 0;
      g_autofree gchar *string = gvc_data_input_stream_read_string(stream_.get(), terminators.of(i),
                                                                   &length, nullptr, &error);
      check(string, length, size, error);
    }
  }
  // Cancels the last string, which has no terminator.
  void
  read_async(Terminators terminators)
  {
    for (unsigned i = 0;; i++) {
      const auto size = next(terminators.of(i));
      auto cancellable = own(g_cancellable_new());
      Waiter waiter;
      gvc_data_input_stream_read_string_async(stream_.get(), terminators.of(i), 0,
                                              cancellable.get(), Waiter::ready, &waiter);
      FUZZ_CHECK(!waiter.done());
      while (!waiter.done() && !unsent_.empty()) {
        send();
        run_ready();
      }
      if (!size) {
        run_ready();
        FUZZ_CHECK(!waiter.done());
        g_cancellable_cancel(cancellable.get());
      }
      g_autoptr(GError) error = nullptr;
      gsize length = 0;
      g_autofree gchar *string =
          gvc_data_input_stream_read_string_finish(stream_.get(), waiter.wait(), &length, &error);
      run_ready(); // no second call
      if (!size) {
        FUZZ_CHECK(!string && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED));
        return;
      }
      check(string, length, size, error);
    }
  }

private:
  // The size of the next string, 0 if it has no terminator.
  std::size_t
  next(char terminator) const
  {
    const auto rest = plan_.plain.subspan(at_);
    const auto found = std::ranges::find(rest, static_cast<std::uint8_t>(terminator));
    return found == rest.end() ? 0 : static_cast<std::size_t>(found - rest.begin()) + 1;
  }
  void
  check(const gchar *string, gsize length, std::size_t size, const GError *error)
  {
    FUZZ_CHECK(string && !error);
    FUZZ_CHECK(equal({reinterpret_cast<const std::uint8_t *>(string), length},
                     plan_.plain.subspan(at_, size)));
    at_ += size;
  }
  void
  send()
  {
    const auto decision = script_.byte();
    feed(&unsent_, decision == 0 ? unsent_.size() : decision);
  }

  const Plan &plan_;
  Script script_;
  Ref<GInputStream> buffered_;
  Ref<GvcDataInputStream> stream_;
  Bytes wire_;
  View unsent_;
  std::size_t at_ = 0;
};

} // namespace

// The script: the kind of stream and of its end, the position of the end, two terminators, the
// stage, and pieces.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto kind = script.byte();
  const auto where = script.byte() | static_cast<std::size_t>(script.byte()) << 8;
  const Terminators terminators{script.byte(), script.byte()};
  // Repeats each byte, so that short inputs give strings that outgrow the buffer.
  constexpr std::size_t repeated_most = 28, times = 40;
  Bytes repeated;
  if ((kind & 4) && payload.size() <= repeated_most) {
    for (auto byte : payload)
      repeated.insert(repeated.end(), times, byte);
    payload = repeated;
  }
  // A thread for each byte is slow.
  const bool threads = kind >= 0xf8 && payload.size() <= 16;
  const auto form = threads ? 0U : kind >> 3 & 3U;
  if (form >= 2) {
    const auto stages = script.byte();
    // Asynchronous reads of a buffered stream use GIO's threads.
    const bool buffered = form == 3 && payload.size() <= 64;
    Plan plan{stages % stage_kinds, (stages & 4) != 0, buffered ? 1 + (stages >> 3) * 7U : 0U,
              script, payload};
    Line(plan).read_blocking(terminators);
    Line(plan).read_async(terminators);
    return 0;
  }
  const std::size_t buffer = form == 1 && payload.size() <= 64 ? 1 + script.byte() : 0;
  Source source{.data = payload, .pieces = script, .pollable = !threads};
  const auto end = kind & 2 ? std::min(where, payload.size()) : payload.size();
  (kind & 1 ? source.fail_at : source.cancel_at) = end;

  read_all(source, terminators, buffer, true);
  read_all(source, terminators, buffer, false);
  return 0;
}
