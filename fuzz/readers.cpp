// SPDX-License-Identifier: LGPL-2.1-or-later
// Reads any bytes as messages, variants and strings, blocking and asynchronously: from a stream
// that delivers pieces, blocks, fails, ends or cancels at any position, from a buffer, and from a
// channel with up to two stages, to which a peer sends the bytes raw or converted. Each result
// follows from the format and from what plain blocking reads of the same stream deliver. A source
// that stays attached delivers the same.
#include "support.h"

#include <zelgvc/gvcwire.h>

using namespace fuzz;
namespace frame = gvc::wire::frame;

namespace
{

constexpr const char *types[] = {"ay", "s", "(su)", "a{sv}", "v", "as", "b", "(yxmsv)"};

// The kind of message to read. From `variants` on, these are variants of one of the types.
enum Form : unsigned { messages, strings, watch, variants };

struct Plan {
  Form form;
  bool channel;        // else the source
  Bytes bytes;         // of the source, or of the peer of the channel
  Source source;       // its pieces are those of a channel too
  unsigned stages[2];  // the first is nearest to the socket
  bool split;          // the input of the first stage
  std::size_t buffer;  // the size of a buffer over the stream, 0 for none
  std::size_t at_once; // the size of a plain read
  char terminators[2]; // of strings, in turn

  const char *
  type() const // of variants, or NULL
  {
    return form >= variants ? types[form - variants] : nullptr;
  }
};

// The stream of a plan, from its beginning.
class Line
{
public:
  // With `ends`, the stream of a channel ends behind the bytes.
  Line(const Plan &plan, bool ends)
      : cancellable(own(g_cancellable_new())), source_(plan.source), script_(plan.source.pieces),
        unsent_(plan.bytes), ends_(ends)
  {
    source_.cancellable = cancellable.get();
    if (plan.channel)
      channel_.emplace(plan.stages, plan.split, script_);
    base_ = plan.channel ? own(G_INPUT_STREAM(g_object_ref(channel_->in()))) : new_input(&source_);
    if (plan.buffer > 0)
      base_ = own(g_buffered_input_stream_new_sized(base_.get(), plan.buffer));
    more_ = plan.channel;
  }
  GInputStream *
  in() const
  {
    return base_.get();
  }
  // Whether the peer has yet to send.
  bool
  more() const
  {
    return more_;
  }
  void
  send(std::size_t size)
  {
    channel_->feed(&unsent_, size == 0 ? unsent_.size() : size);
    more_ = !unsent_.empty();
    if (!more_ && ends_)
      channel_->peer.shutdown_write();
  }
  // For a blocking reader, which cannot feed the channel while it waits.
  void
  send_all()
  {
    if (more_)
      send(0);
    FUZZ_CHECK(!more_);
  }
  // Sends in pieces until the operation has ended or everything is sent.
  void
  send_for(const Waiter &waiter)
  {
    FUZZ_CHECK(!waiter.done());
    while (!waiter.done() && more_) {
      send(script_.byte());
      run_ready();
    }
  }
  // Nothing behind a message or string may be consumed.
  void
  check_consumed(std::size_t expected) const
  {
    const auto held = G_IS_BUFFERED_INPUT_STREAM(in())
                          ? g_buffered_input_stream_get_available(G_BUFFERED_INPUT_STREAM(in()))
                          : 0;
    FUZZ_CHECK(channel_ || source_.position - held == expected);
  }

  Ref<GCancellable> cancellable;

private:
  Source source_;
  Script script_;
  std::optional<Channel> channel_;
  Ref<GInputStream> base_;
  View unsent_;
  bool ends_;
  bool more_;
};

// The domain and code of an error; a domain of 0 stands for none.
struct Failure {
  GQuark domain = 0;
  int code = 0;

  explicit operator bool() const
  {
    return domain != 0;
  }
  bool operator==(const Failure &) const = default;
};

// The output of a stream: bytes, and then an error or the end.
struct Delivery {
  Bytes bytes;
  Failure failure;

  // Adds the result of a read. Returns whether the stream goes on.
  bool
  add(View piece, gssize count, GError *error)
  {
    FUZZ_CHECK((count < 0) == !!error);
    if (error)
      failure = {error->domain, error->code};
    g_clear_error(&error);
    if (count > 0)
      bytes.insert(bytes.end(), piece.begin(), piece.begin() + count);
    return count > 0;
  }
  bool operator==(const Delivery &) const = default;
};

Delivery
read_plainly(const Plan &plan)
{
  Line line(plan, true);
  line.send_all();
  Delivery all;
  Bytes piece(plan.at_once);
  GError *error;
  gssize count;
  do {
    error = nullptr;
    count = g_input_stream_read(line.in(), piece.data(), piece.size(), nullptr, &error);
  } while (all.add(piece, count, error));
  return all;
}

void
check_error(const GError *error, const Failure &expected)
{
  FUZZ_CHECK(expected ? g_error_matches(error, expected.domain, expected.code) : !error);
}

// ---- Messages ----

struct Expected {
  View received;        // of a message
  std::size_t size = 0; // of a message, with bytes that never arrived
  Failure failure;
  bool last = true; // nothing can be read behind it
};

// The result of reading the frame at `*at`, which moves behind the frame.
Expected
expect_message(const Delivery &all, std::size_t *at, bool blocking)
{
  const Failure disconnected{GVC_ERROR, GVC_ERROR_DISCONNECTED};
  const Expected end{.failure = all.failure ? all.failure : disconnected};
  const auto rest = View(all.bytes).subspan(*at);

  if (rest.size() < frame::prefix_size)
    return end;
  const auto length = frame::load_length(rest.data());
  *at += frame::prefix_size;
  if (length < 0)
    return {.failure = {G_IO_ERROR, G_IO_ERROR_INVALID_DATA}};
  if (length == 0 && blocking)
    return {.failure = disconnected, .last = false};
  const auto size = static_cast<std::size_t>(length);
  if (size > memory_limit)
    return {.failure = {G_IO_ERROR, G_IO_ERROR_NO_SPACE}};
  const auto there = std::min(rest.size() - frame::prefix_size, size);
  if (there < size && (all.failure || !blocking))
    return end;
  *at += there;
  return {.received = rest.subspan(frame::prefix_size, there), .size = size, .last = false};
}

// Whether a missing part of a message reads as zeros.
bool
zeros(View rest)
{
  return rest.empty() || (rest[0] == 0 && equal(rest.subspan(1), rest.first(rest.size() - 1)));
}

void
check_bytes(GBytes *bytes, const Expected &expected)
{
  const auto message = view(bytes);
  FUZZ_CHECK(message.size() == expected.size);
  FUZZ_CHECK(equal(message.first(expected.received.size()), expected.received));
  FUZZ_CHECK(zeros(message.subspan(expected.received.size())));
}

void
check_variant(GVariant *variant, const char *type, const Expected &expected)
{
  FUZZ_CHECK(g_variant_is_floating(variant));
  g_autoptr(GVariant) value = g_variant_ref_sink(variant);
  FUZZ_CHECK(g_variant_is_of_type(value, G_VARIANT_TYPE(type)));
  if (expected.size > 256)
    return;
  Bytes payload(expected.received.begin(), expected.received.end());
  payload.resize(expected.size);
  g_autoptr(GBytes) bytes = g_bytes_new(payload.data(), payload.size());
  g_autoptr(GVariant) same =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(type), bytes, FALSE));
  FUZZ_CHECK(g_variant_equal(value, same));
}

// Reads one message. `waiter` is that of an asynchronous read, NULL for a blocking one.
void
read_message(GvcBytesInputStream *in, Line *line, const char *type, Waiter *waiter,
             const Expected &expected)
{
  auto *cancellable = line->cancellable.get();
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) bytes = nullptr;
  GVariant *variant = nullptr;

  if (waiter) {
    start_read(in, type, 0, cancellable, waiter);
    line->send_for(*waiter);
  }
  if (waiter && type)
    variant = gvc_bytes_input_stream_read_variant_finish(in, waiter->wait(), &error);
  else if (waiter)
    bytes = gvc_bytes_input_stream_read_bytes_finish(in, waiter->wait(), &error);
  else if (type)
    variant = gvc_bytes_input_stream_read_variant(in, type, cancellable, &error);
  else
    bytes = gvc_bytes_input_stream_read_bytes(in, cancellable, &error);

  FUZZ_CHECK((bytes || variant) == !error);
  check_error(error, expected.failure);
  if (bytes)
    check_bytes(bytes, expected);
  if (variant)
    check_variant(variant, type, expected);
}

void
read_messages(const Plan &plan, const Delivery &all, bool blocking)
{
  Line line(plan, true);
  if (blocking)
    line.send_all();
  auto in = own(gvc_bytes_input_stream_new(line.in()));
  std::size_t at = 0;
  for (bool more = true; more;) {
    Waiter waiter;
    const auto expected = expect_message(all, &at, blocking);
    read_message(in.get(), &line, plan.type(), blocking ? nullptr : &waiter, expected);
    run_ready(); // no second call
    if (!expected.failure)
      line.check_consumed(at);
    more = !expected.last;
  }
}

// ---- Strings ----

// Reads one string. With `cancel`, an asynchronous read waits until it is cancelled.
gchar *
read_string(GvcDataInputStream *in, Line *line, char terminator, bool blocking, bool cancel,
            gsize *length, GError **error)
{
  auto *cancellable = line->cancellable.get();
  if (blocking)
    return gvc_data_input_stream_read_string(in, terminator, length, cancellable, error);
  Waiter waiter;
  gvc_data_input_stream_read_string_async(in, terminator, 0, cancellable, Waiter::ready, &waiter);
  line->send_for(waiter);
  if (cancel) {
    run_ready();
    FUZZ_CHECK(!waiter.done());
    g_cancellable_cancel(cancellable);
  }
  auto *string = gvc_data_input_stream_read_string_finish(in, waiter.wait(), length, error);
  run_ready(); // no second call
  return string;
}

// The end of a stream does not end a string, so a channel stays open, and its last string waits.
// A source fails or cancels at its end.
void
read_strings(const Plan &plan, const Delivery &all, bool blocking)
{
  const bool waits = !all.failure ||
                     (plan.channel && all.failure == Failure{G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT});
  const auto last = waits ? Failure{G_IO_ERROR, G_IO_ERROR_CANCELLED} : all.failure;
  Line line(plan, false);
  if (blocking)
    line.send_all();
  auto in = own(gvc_data_input_stream_new(line.in()));
  std::size_t at = 0;
  for (unsigned i = 0;; i++) {
    const auto terminator = plan.terminators[i % 2];
    const auto rest = View(all.bytes).subspan(at);
    const auto found = std::ranges::find(rest, static_cast<std::uint8_t>(terminator));
    const bool ends = found != rest.end();
    if (blocking && !ends && waits)
      return;
    g_autoptr(GError) error = nullptr;
    gsize length = 0;
    g_autofree gchar *string =
        read_string(in.get(), &line, terminator, blocking, !ends && waits, &length, &error);
    FUZZ_CHECK(!string == !!error);
    check_error(error, ends ? Failure{} : last);
    if (!ends)
      return;
    FUZZ_CHECK(equal(View(reinterpret_cast<std::uint8_t *>(string), length),
                     rest.first(static_cast<std::size_t>(found - rest.begin()) + 1)));
    at += length;
    line.check_consumed(at);
  }
}

// ---- Sources ----

struct Watch {
  GInputStream *in;
  Bytes piece;
  Delivery all;
  unsigned in_vain = 0;
  bool ended = false;
};

gboolean
readable(GObject *, gpointer data)
{
  auto *watch = static_cast<Watch *>(data);
  GError *error = nullptr;
  auto count = g_pollable_input_stream_read_nonblocking(G_POLLABLE_INPUT_STREAM(watch->in),
                                                        watch->piece.data(), watch->piece.size(),
                                                        nullptr, &error);
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
    g_error_free(error);
    watch->in_vain++;
    return G_SOURCE_CONTINUE;
  }
  watch->ended = !watch->all.add(watch->piece, count, error);
  return watch->ended ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

// Reads with one source for the whole stream. Partial units and empty units wake it in vain.
void
watch_stream(const Plan &plan, const Delivery &all)
{
  Line line(plan, true);
  auto script = plan.source.pieces;
  Watch watch{line.in(), Bytes(plan.at_once), {}};
  g_autoptr(GSource) source =
      g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(line.in()), nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(readable), &watch, nullptr);
  g_source_attach(source, nullptr);
  std::size_t pieces = 1;
  for (; line.more() && !watch.ended; pieces++) {
    line.send(script.byte());
    run_ready();
  }
  FUZZ_CHECK(watch.ended && watch.all == all);
  FUZZ_CHECK(watch.in_vain <= 4 * pieces + plan.bytes.size());
}

// Repeats each byte of a short payload, so that short inputs give strings that outgrow a buffer.
Bytes
repeated(View payload)
{
  constexpr std::size_t most = 28, times = 40;
  Bytes all;
  for (auto byte : payload)
    all.insert(all.end(), payload.size() <= most ? times : 1, byte);
  return all;
}

// The script: what is read, from which stream, two numbers for the stream, two terminators, the
// size of a buffer, and pieces.
Plan
plan_of(Script script, View payload)
{
  constexpr std::size_t buffered_most = 64, threads_most = 16; // a thread for each byte is slow
  const auto what = script.byte(), stream = script.byte();
  const auto first = script.byte(), second = script.byte();
  Plan plan{};
  plan.terminators[0] = static_cast<char>(script.byte());
  plan.terminators[1] = static_cast<char>(script.byte());
  const auto buffer = script.byte();

  plan.form = static_cast<Form>(what % (variants + G_N_ELEMENTS(types)));
  plan.channel = (stream & 1) || plan.form == watch;
  plan.at_once = 1 + second * 5U;
  if ((stream & 2) && payload.size() <= buffered_most && plan.form != watch)
    plan.buffer = 1U + buffer;
  plan.split = stream & 4;
  const auto decision = stream >> 3 & 3U;
  plan.bytes = stream & 0x40 ? repeated(payload) : Bytes(payload.begin(), payload.end());
  // A large limit is slow.
  memory_limit = stream == 0x80 ? 64 * 1024 * 1024 : default_memory_limit;

  plan.stages[0] = first % stage_kinds;
  plan.stages[1] = first / stage_kinds % stage_kinds;
  for (unsigned i = 2; plan.channel && i-- > 0;)
    if (plan.stages[i] != 0 && i < decision)
      plan.bytes = convert_all(new_out_stage(plan.stages[i]).get(), plan.bytes, &script);
  plan.source = {.data = plan.bytes, .pieces = script};
  plan.source.pollable = what < 0xf0 || payload.size() > threads_most;
  const auto end = std::min<std::size_t>(first | second << 8, plan.bytes.size());
  if (decision == 1)
    plan.source.fail_at = end;
  else if (decision == 2 || plan.form == strings)
    plan.source.cancel_at = end;
  return plan;
}

} // namespace

extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto plan = plan_of(script, payload);
  const auto all = read_plainly(plan);
  if (plan.form == watch)
    watch_stream(plan, all);
  for (const bool blocking : {true, false})
    if (plan.form == strings)
      read_strings(plan, all, blocking);
    else if (plan.form != watch)
      read_messages(plan, all, blocking);
  return 0;
}
