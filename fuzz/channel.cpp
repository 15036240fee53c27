// SPDX-License-Identifier: LGPL-2.1-or-later
// Any bytes sent in any pieces to a channel with up to two stages, as they are or as what a peer
// who knows the keys has put through its own stages, and read as messages, blocking and
// asynchronously. Both readers come to the same messages and the same end, as far as they promise.
// A source that stays attached delivers each byte that a blocking reader gets.
#include "support.h"

#include <zelgvc/zelgvc.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

using namespace fuzz;

namespace
{

struct BytesUnref {
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};

struct Outcome {
  std::unique_ptr<GBytes, BytesUnref> message;
  ErrorRef error;
};

struct Plan {
  unsigned stages[2]; // the first is nearest to the socket
  bool split;         // what the first stage reads
  Script pieces;
  Bytes wire;
};

// A channel as the plan says it.
class Channel
{
public:
  explicit Channel(const Plan &plan)
      : pieces_(plan.pieces), pair_(new_pair()),
        connection_(own(gvc_connection_new(pair_.connection.get())))
  {
    if (plan.split)
      add(new_splitter(&pieces_), new_splitter(&pieces_));
    for (auto kind : plan.stages)
      if (kind != 0)
        add(new_in_stage(kind), new_out_stage(kind));
    stream_ = own(
        gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(connection_.get()))));
  }
  ~Channel()
  {
    // The output side has an end to send; nobody needs to take it.
    close(pair_.peer);
  }
  Channel(const Channel &) = delete;
  Channel &operator=(const Channel &) = delete;

  GvcBytesInputStream *
  stream() const
  {
    return stream_.get();
  }
  GInputStream *
  in() const
  {
    return g_io_stream_get_input_stream(G_IO_STREAM(connection_.get()));
  }
  // Sends up to `size` bytes of `wire`, the end of the channel behind them.
  void
  feed(View *wire, std::size_t size)
  {
    *wire = wire->subspan(send_some(pair_.peer, wire->first(std::min(size, wire->size()))));
    if (wire->empty())
      shutdown(pair_.peer, SHUT_WR);
  }

private:
  void
  add(Ref<GConverter> in, Ref<GConverter> out)
  {
    gvc_connection_add_converters(connection_.get(), in.get(), out.get());
  }

  Script pieces_;
  Pair pair_;
  Ref<GvcConnection> connection_;
  Ref<GvcBytesInputStream> stream_;
};

bool
is_disconnected(const Outcome &outcome)
{
  return g_error_matches(outcome.error.get(), GVC_ERROR, GVC_ERROR_DISCONNECTED);
}

Outcome
outcome(GBytes *message, GError *error)
{
  FUZZ_CHECK(!message == !!error);
  Outcome outcome;
  outcome.message.reset(message);
  outcome.error.reset(error);
  return outcome;
}

Outcome
read_async(Channel *channel, View *wire, Script *script)
{
  Waiter waiter;
  gvc_bytes_input_stream_read_bytes_async(channel->stream(), 0, nullptr, Waiter::ready, &waiter);
  FUZZ_CHECK(!waiter.done());
  run_ready();
  while (!waiter.done() && !wire->empty()) {
    const auto decision = script->byte();
    channel->feed(wire, decision == 0 ? wire->size() : decision);
    run_ready();
  }
  GError *error = nullptr;
  auto *bytes = gvc_bytes_input_stream_read_bytes_finish(channel->stream(), waiter.wait(), &error);
  run_ready(); // no second call
  return outcome(bytes, error);
}

std::vector<Outcome>
read_all_async(const Plan &plan)
{
  Channel channel(plan);
  auto script = plan.pieces;
  View wire = plan.wire;
  if (wire.empty())
    channel.feed(&wire, 0);
  std::vector<Outcome> outcomes;
  do
    outcomes.push_back(read_async(&channel, &wire, &script));
  while (outcomes.back().message);
  return outcomes;
}

// A message of no bytes ends nothing.
std::vector<Outcome>
read_all_blocking(const Plan &plan, std::size_t most)
{
  Channel channel(plan);
  View wire = plan.wire;
  channel.feed(&wire, wire.size());
  FUZZ_CHECK(wire.empty());
  std::vector<Outcome> outcomes;
  do {
    GError *error = nullptr;
    auto *bytes = gvc_bytes_input_stream_read_bytes(channel.stream(), nullptr, &error);
    outcomes.push_back(outcome(bytes, error));
  } while (outcomes.size() < most && (outcomes.back().message || is_disconnected(outcomes.back())));
  return outcomes;
}

// A message of no bytes is one of these to the blocking reader, and so is the end of the stream
// within a length; the end within a payload it does not notice.
void
check_same(const Outcome &async, const Outcome &blocking)
{
  if (async.message && g_bytes_get_size(async.message.get()) > 0)
    FUZZ_CHECK(blocking.message && g_bytes_equal(async.message.get(), blocking.message.get()));
  else if (async.message)
    FUZZ_CHECK(is_disconnected(blocking));
  else if (is_disconnected(async))
    FUZZ_CHECK(blocking.message || is_disconnected(blocking) ||
               matches(blocking.error, G_IO_ERROR_NO_SPACE));
  else
    FUZZ_CHECK(g_error_matches(blocking.error.get(), async.error->domain, async.error->code));
}

// ---- Bytes without messages

struct Stream {
  Bytes bytes;
  ErrorRef error; // none at the end
};

bool
take(Stream *stream, View piece, gssize count, GError *error)
{
  FUZZ_CHECK((count < 0) == !!error);
  stream->error.reset(error);
  if (count > 0)
    stream->bytes.insert(stream->bytes.end(), piece.begin(), piece.begin() + count);
  return count > 0;
}

Stream
read_stream_blocking(const Plan &plan, std::size_t piece_size)
{
  Channel channel(plan);
  View wire = plan.wire;
  channel.feed(&wire, wire.size());
  Stream stream;
  Bytes piece(piece_size);
  gssize count;
  GError *error;
  do {
    error = nullptr;
    count = g_input_stream_read(channel.in(), piece.data(), piece.size(), nullptr, &error);
  } while (take(&stream, piece, count, error));
  return stream;
}

struct Watch {
  GInputStream *in;
  Bytes piece;
  Stream stream;
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
  watch->ended = !take(&watch->stream, watch->piece, count, error);
  return watch->ended ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

// One source for all of the stream. What it wakes up for in vain is a piece that has come without
// the rest of its unit, or units that hold nothing.
Stream
read_stream_watched(const Plan &plan, std::size_t piece_size)
{
  Channel channel(plan);
  auto script = plan.pieces;
  View wire = plan.wire;
  Watch watch{channel.in(), Bytes(piece_size), {}, 0, false};
  g_autoptr(GSource) source =
      g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(channel.in()), nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(readable), &watch, nullptr);
  g_source_attach(source, nullptr);
  std::size_t pieces = 1;
  do {
    const auto decision = script.byte();
    channel.feed(&wire, decision == 0 ? wire.size() : decision);
    run_ready();
    pieces++;
  } while (!wire.empty() && !watch.ended);
  FUZZ_CHECK(watch.ended);
  FUZZ_CHECK(watch.in_vain <= 4 * pieces + plan.wire.size());
  return std::move(watch.stream);
}

void
check_same(const Stream &watched, const Stream &blocking)
{
  FUZZ_CHECK(equal(watched.bytes, blocking.bytes));
  FUZZ_CHECK(!watched.error == !blocking.error);
  FUZZ_CHECK(!watched.error ||
             g_error_matches(blocking.error.get(), watched.error->domain, watched.error->code));
}

} // namespace

// The script: the stages, how many of them the peer has put the bytes through, and pieces.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  auto [script, payload] = split_input(data, size);
  const auto stages = script.byte();
  const auto decision = script.byte();
  Plan plan{{stages % stage_kinds, stages / stage_kinds % stage_kinds},
            (decision & 4) != 0,
            script,
            Bytes(payload.begin(), payload.end())};
  // From the caller's side down, as far as the peer can.
  for (unsigned i = 2; i-- > 0;)
    if (plan.stages[i] != 0 && i < decision % 4)
      plan.wire = convert_all(new_out_stage(plan.stages[i]).get(), plan.wire, &script);

  const auto async = read_all_async(plan);
  const auto blocking = read_all_blocking(plan, async.size());
  FUZZ_CHECK(async.size() == blocking.size());
  for (std::size_t i = 0; i < async.size(); i++)
    check_same(async[i], blocking[i]);

  const std::size_t piece_size = 1 + (decision >> 3) * 5U;
  check_same(read_stream_watched(plan, piece_size), read_stream_blocking(plan, piece_size));
  return 0;
}
