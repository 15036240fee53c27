// SPDX-License-Identifier: LGPL-2.1-or-later
// Sends any bytes in any pieces to a channel with up to two stages, raw or as a peer with the same
// keys would convert them, and reads messages, blocking and asynchronously. Both readers get the
// same messages and the same end, as far as they promise. A source that stays attached delivers
// every byte that a blocking reader gets.
#include "support.h"

#include <sys/socket.h>

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
  bool split;         // the input of the first stage
  Script pieces;
  Bytes wire;
};

// A channel with the end of the stream behind the bytes on the wire.
class Line : public Channel
{
public:
  explicit Line(const Plan &plan)
      : Channel(plan.stages, plan.split, plan.pieces), wire(plan.wire),
        stream(own(gvc_bytes_input_stream_new(in())))
  {
    if (wire.empty())
      shutdown(peer, SHUT_WR);
  }
  void
  send(std::size_t size)
  {
    feed(&wire, size == 0 ? wire.size() : size);
    if (wire.empty())
      shutdown(peer, SHUT_WR);
  }
  // For a blocking reader, which cannot feed the channel while it waits.
  void
  send_all()
  {
    send(0);
    FUZZ_CHECK(wire.empty());
  }

  View wire; // unsent
  Ref<GvcBytesInputStream> stream;
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
read_async(Line *line, Script *script)
{
  Waiter waiter;
  auto *stream = line->stream.get();
  start_read(stream, false, 0, nullptr, &waiter);
  FUZZ_CHECK(!waiter.done());
  run_ready();
  while (!waiter.done() && !line->wire.empty()) {
    line->send(script->byte());
    run_ready();
  }
  GError *error = nullptr;
  auto *bytes = finish_read(stream, waiter.wait(), false, &error);
  run_ready(); // no second call
  return outcome(bytes, error);
}

std::vector<Outcome>
read_all_async(const Plan &plan)
{
  Line line(plan);
  auto script = plan.pieces;
  std::vector<Outcome> outcomes;
  do
    outcomes.push_back(read_async(&line, &script));
  while (outcomes.back().message);
  return outcomes;
}

// An empty message does not end the stream.
std::vector<Outcome>
read_all_blocking(const Plan &plan, std::size_t most)
{
  Line line(plan);
  line.send_all();
  std::vector<Outcome> outcomes;
  do {
    GError *error = nullptr;
    auto *bytes = gvc_bytes_input_stream_read_bytes(line.stream.get(), nullptr, &error);
    outcomes.push_back(outcome(bytes, error));
  } while (outcomes.size() < most && (outcomes.back().message || is_disconnected(outcomes.back())));
  return outcomes;
}

// The blocking reader reports an empty message, and the end of the stream within a prefix, as
// disconnected. It does not notice the end within a payload.
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
  Line line(plan);
  line.send_all();
  Stream stream;
  Bytes piece(piece_size);
  gssize count;
  GError *error;
  do {
    error = nullptr;
    count = g_input_stream_read(line.in(), piece.data(), piece.size(), nullptr, &error);
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

// Reads with one source for the whole stream. Partial units and empty units wake it in vain.
Stream
read_stream_watched(const Plan &plan, std::size_t piece_size)
{
  Line line(plan);
  auto script = plan.pieces;
  Watch watch{line.in(), Bytes(piece_size), {}, 0, false};
  g_autoptr(GSource) source =
      g_pollable_input_stream_create_source(G_POLLABLE_INPUT_STREAM(line.in()), nullptr);
  g_source_set_callback(source, G_SOURCE_FUNC(readable), &watch, nullptr);
  g_source_attach(source, nullptr);
  std::size_t pieces = 1;
  do {
    line.send(script.byte());
    run_ready();
    pieces++;
  } while (!line.wire.empty() && !watch.ended);
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

// The script: the stages, how many of them the peer converts for, and pieces.
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
