// SPDX-License-Identifier: LGPL-2.1-or-later
// One send a frame over base streams that gather by themselves, two writes over those that do not,
// and one block or record for each part whichever it is.
#include "tests/support/faulty.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

using namespace support;

namespace
{

/* ---- A base stream that gathers ---- */

constexpr gsize blocked = G_MAXSIZE; // a limit: this call would block

// The requests that it got, and how it answers them.
struct Sink {
  using Sizes = std::vector<gsize>;
  std::vector<Sizes> calls; // the sizes of the vectors of each
  std::string data;
  std::deque<gsize> limits; // the most that each call takes, before `limit` counts
  gsize limit = G_MAXSIZE - 1;
  guint fail_at = 0; // the number of the call that fails, from 1
  bool waiting = false;

  gssize take(const GOutputVector *vectors, gsize count, bool may_block, GError **error);
};

gssize
Sink::take(const GOutputVector *vectors, gsize count, bool may_block, GError **error)
{
  Sizes sizes;
  std::string offered;
  for (gsize i = 0; i < count; i++) {
    sizes.push_back(vectors[i].size);
    offered.append(static_cast<const char *>(vectors[i].buffer), vectors[i].size);
  }
  calls.push_back(sizes);
  if (calls.size() == fail_at) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "Sink failure");
    return -1;
  }
  gsize most = limit;
  if (!limits.empty()) {
    most = limits.front();
    limits.pop_front();
  }
  waiting = most == blocked;
  if (waiting && !may_block) {
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK, "Sink would block");
    return -1;
  }
  most = std::min(most, offered.size());
  data.append(offered, 0, most);
  return static_cast<gssize>(most);
}

GQuark
sink_quark()
{
  return g_quark_from_static_string("test-sink");
}

Sink &
sink_of(gpointer stream)
{
  return *static_cast<Sink *>(g_object_get_qdata(G_OBJECT(stream), sink_quark()));
}

void
sink_class_init(gpointer klass, gpointer)
{
  const auto output = G_OUTPUT_STREAM_CLASS(klass);
  output->write_fn = [](GOutputStream *stream, const void *buffer, gsize size, GCancellable *,
                        GError **error) {
    const GOutputVector vector = {buffer, size};
    return sink_of(stream).take(&vector, 1, true, error);
  };
  output->writev_fn = [](GOutputStream *stream, const GOutputVector *vectors, gsize count,
                         gsize *written, GCancellable *, GError **error) -> gboolean {
    const gssize taken = sink_of(stream).take(vectors, count, true, error);
    if (taken >= 0 && written != nullptr)
      *written = static_cast<gsize>(taken);
    return taken >= 0;
  };
}

void
sink_pollable_init(gpointer iface, gpointer)
{
  const auto pollable = static_cast<GPollableOutputStreamInterface *>(iface);
  pollable->is_writable = [](GPollableOutputStream *stream) -> gboolean {
    return !sink_of(stream).waiting;
  };
  pollable->create_source = [](GPollableOutputStream *stream, GCancellable *cancellable) {
    GSource *const child = g_timeout_source_new(0);
    GSource *const source = g_pollable_source_new_full(stream, child, cancellable);
    g_source_unref(child);
    return source;
  };
  pollable->write_nonblocking = [](GPollableOutputStream *stream, const void *buffer, gsize size,
                                   GError **error) {
    const GOutputVector vector = {buffer, size};
    return sink_of(stream).take(&vector, 1, false, error);
  };
  pollable->writev_nonblocking = [](GPollableOutputStream *stream, const GOutputVector *vectors,
                                    gsize count, gsize *written, GError **error) {
    GError *failure = nullptr;
    const gssize taken = sink_of(stream).take(vectors, count, false, &failure);
    if (written != nullptr)
      *written = static_cast<gsize>(std::max<gssize>(taken, 0));
    if (taken >= 0)
      return G_POLLABLE_RETURN_OK;
    if (g_error_matches(failure, G_IO_ERROR, G_IO_ERROR_WOULD_BLOCK)) {
      g_error_free(failure);
      return G_POLLABLE_RETURN_WOULD_BLOCK;
    }
    g_propagate_error(error, failure);
    return G_POLLABLE_RETURN_FAILED;
  };
}

Ref<GOutputStream>
new_gathering_output(Sink *sink)
{
  static const GType type = [] {
    GTypeInfo info = {};
    info.class_size = sizeof(GOutputStreamClass);
    info.class_init = sink_class_init;
    info.instance_size = sizeof(GOutputStream);
    const GType registered =
        g_type_register_static(G_TYPE_OUTPUT_STREAM, "TestSink", &info, GTypeFlags(0));
    const GInterfaceInfo pollable = {sink_pollable_init, nullptr, nullptr};
    g_type_add_interface_static(registered, G_TYPE_POLLABLE_OUTPUT_STREAM, &pollable);
    return registered;
  }();
  auto stream = own(G_OUTPUT_STREAM(g_object_new(type, nullptr)));
  g_object_set_qdata(G_OBJECT(stream.get()), sink_quark(), sink);
  return stream;
}

/* ---- Channels over it ---- */

// Puts brackets around each write that it converts.
Ref<GConverter>
brackets()
{
  return new_converter([](std::string_view in, char *out, gsize room, GConverterFlags flags,
                          gsize *read, gsize *written, GError **error) {
    *read = in.size();
    *written = in.empty() ? 0 : in.size() + 2;
    if (room < *written)
      return conversion_error(G_IO_ERROR_NO_SPACE, "No room", error);
    if (!in.empty())
      *std::copy(in.begin(), in.end(), std::fill_n(out, 1, '[')) = ']';
    if ((flags & G_CONVERTER_INPUT_AT_END) != 0)
      return G_CONVERTER_FINISHED;
    return (flags & G_CONVERTER_FLUSH) != 0 ? G_CONVERTER_FLUSHED : G_CONVERTER_CONVERTED;
  });
}

// The bytes of a write on the wire: each stage converts at most 1 MiB at once.
std::string
write_on_wire(const std::string &data, int stages)
{
  constexpr gsize mebibyte = 1024 * 1024;
  if (stages == 0)
    return data;
  std::string wire;
  for (gsize at = 0; at < data.size(); at += mebibyte)
    wire += write_on_wire('[' + data.substr(at, mebibyte) + ']', stages - 1);
  return wire;
}

std::string
frame_on_wire(const std::string &payload, int stages)
{
  return write_on_wire(le32(static_cast<guint32>(payload.size())), stages) +
         write_on_wire(payload, stages);
}

struct Chain {
  Ref<GvcConnection> channel;
  Ref<GvcBytesOutputStream> writer;

  Chain(Ref<GOutputStream> base, int stages)
      : channel(own(gvc_connection_new(
            new_connection_over(new_scripted_input(new_script()), std::move(base)).get())))
  {
    for (int i = 0; i < stages; i++)
      gvc_connection_add_converters(channel.get(), brackets().get(), brackets().get());
    writer = own(gvc_bytes_output_stream_new(out()));
  }
  GOutputStream *
  out() const
  {
    return g_io_stream_get_output_stream(G_IO_STREAM(channel.get()));
  }
};

enum class Way { blocking, async };

bool
put(GvcBytesOutputStream *writer, Way way, const std::string &payload, GError **error)
{
  const auto bytes = new_bytes(payload);
  if (way == Way::blocking)
    return gvc_bytes_output_stream_put_bytes(writer, bytes.get(), nullptr, error);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(writer, bytes.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  return gvc_bytes_output_stream_put_bytes_finish(writer, collector.wait(), error);
}

void
assert_put(const Chain &chain, Way way, const std::string &payload)
{
  Error error;
  g_assert_true(put(chain.writer.get(), way, payload, &error));
  error.assert_none();
}

struct Case {
  Way way;
  int stages;
};

guint
data_segments_sent(GSocketConnection *connection)
{
  tcp_info info = {};
  socklen_t size = sizeof info;
  g_assert_no_errno(getsockopt(g_socket_get_fd(g_socket_connection_get_socket(connection)),
                               IPPROTO_TCP, TCP_INFO, &info, &size));
  return info.tcpi_data_segs_out;
}

struct SegmentCount {
  guint frames;
  guint segments;
};

// Without Nagle's algorithm, each send over TCP is a segment of its own, as long as the congestion
// window has room: a new connection can send ten.
SegmentCount
send_over_tcp(const Case &one)
{
  constexpr guint frames = 4;
  const std::string payload = pattern(64);
  RawPeer peer(Family::tcp4);
  auto *socket = g_socket_connection_get_socket(peer.connection());
  auto channel = own(gvc_connection_new(peer.connection()));
  faulty::add_stages(channel.get(), one.stages);
  g_assert_true(g_socket_set_option(socket, IPPROTO_TCP, TCP_NODELAY, TRUE, nullptr));
  auto writer =
      own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));
  std::string expected;
  for (guint i = 0; i < frames; i++) {
    Error error;
    g_assert_true(put(writer.get(), one.way, payload, &error));
    expected += frame(payload);
  }
  const guint segments = data_segments_sent(peer.connection());
  g_socket_shutdown(socket, FALSE, TRUE, nullptr);
  assert_bytes(faulty::from_stages(one.stages, peer.receive_all()), expected);
  return {frames, segments};
}

/* ---- Number of calls ---- */

// The length and the payload reach the stream in one call, as vectors of their own; what stages
// have made of them may lie in one piece.
void
test_one_call_a_frame(const Case &one)
{
  Sink sink;
  const Chain chain(new_gathering_output(&sink), one.stages);
  const std::string payload = pattern(100);
  for (gsize frames = 1; frames <= 3; frames++) {
    assert_put(chain, one.way, payload);
    g_assert_cmpuint(sink.calls.size(), ==, frames);
    const auto &sizes = sink.calls.back();
    if (one.stages == 0)
      g_assert_true((sizes == Sink::Sizes{4, payload.size()}));
  }
  const auto wire = frame_on_wire(payload, one.stages);
  assert_bytes(sink.data, wire + wire + wire);
}

void
test_one_call_an_empty_frame(const Case &one)
{
  Sink sink;
  const Chain chain(new_gathering_output(&sink), one.stages);
  assert_put(chain, one.way, "");
  g_assert_cmpuint(sink.calls.size(), ==, 1);
  assert_bytes(sink.data, frame_on_wire("", one.stages));
}

// The stream of a message may be used for plain writes too: nothing of a frame stays behind.
void
test_frames_between_other_writes(const Case &one)
{
  Sink sink;
  const Chain chain(new_gathering_output(&sink), one.stages);
  for (int i = 0; i < 3; i++) {
    assert_put(chain, one.way, "message");
    g_assert_true(g_output_stream_write_all(chain.out(), "raw", 3, nullptr, nullptr, nullptr));
  }
  const auto wire = frame_on_wire("message", one.stages) + write_on_wire("raw", one.stages);
  assert_bytes(sink.data, wire + wire + wire);
}

void
test_two_writes_where_nothing_gathers(const Case &one)
{
  for (const StreamKind kind : all_stream_kinds) {
    const auto script = new_script();
    const Chain chain(new_scripted_output(script, kind), one.stages);
    const std::string payload = pattern(100);
    assert_put(chain, one.way, payload);
    const auto added = static_cast<gsize>(2 * one.stages);
    g_assert_true((script->sizes() == std::vector<gsize>{4 + added, payload.size() + added}));
    assert_bytes(script->written(), frame_on_wire(payload, one.stages));
  }
}

/* ---- Calls that take a part ---- */

// For any number of bytes in each call, with and without blocking in between.
void
test_partial_calls_lose_nothing(const Case &one)
{
  const std::string payload = pattern(40);
  const auto wire = frame_on_wire(payload, one.stages);
  for (const bool blocks : {false, true})
    for (gsize limit = 1; limit <= wire.size(); limit++) {
      Sink sink;
      sink.limits = {limit};
      if (blocks)
        sink.limits = {blocked, limit, blocked, limit, blocked};
      sink.limit = limit;
      const Chain chain(new_gathering_output(&sink), one.stages);
      assert_put(chain, one.way, payload);
      assert_put(chain, one.way, payload);
      assert_bytes(sink.data, wire + wire);
    }
}

// The first call ends everywhere around the border of the two parts, and the next takes the rest.
void
test_first_call_ends_at_every_byte(const Case &one)
{
  const std::string payload = pattern(10);
  const auto wire = frame_on_wire(payload, one.stages);
  for (gsize first = 1; first < wire.size(); first++) {
    Sink sink;
    sink.limits = {first};
    const Chain chain(new_gathering_output(&sink), one.stages);
    assert_put(chain, one.way, payload);
    assert_bytes(sink.data, wire);
  }
}

// A part that has been taken in whole is not offered again, not even as an empty vector.
void
test_no_empty_vectors(const Case &one)
{
  Sink sink;
  sink.limits = {4, 3};
  const Chain chain(new_gathering_output(&sink), one.stages);
  assert_put(chain, one.way, "message");
  for (const auto &sizes : sink.calls)
    for (const gsize size : sizes)
      g_assert_cmpuint(size, >, 0);
}

void
test_a_failed_call_ends_the_frame(const Case &one)
{
  const std::string payload = pattern(20);
  for (guint at = 1; at <= 4; at++) {
    Sink sink;
    sink.limit = 5;
    sink.fail_at = at;
    const Chain chain(new_gathering_output(&sink), one.stages);
    Error error;
    g_assert_false(put(chain.writer.get(), one.way, payload, &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, "Sink failure");
    g_assert_cmpuint(sink.calls.size(), ==, at);
    assert_bytes(sink.data, frame_on_wire(payload, one.stages).substr(0, sink.data.size()));
  }
}

void
test_large_frames(const Case &one)
{
  const std::string payload = pattern(3 * 1024 * 1024 + 5);
  for (const gsize limit : {G_MAXSIZE - 1, gsize{100001}}) {
    Sink sink;
    sink.limit = limit;
    const Chain chain(new_gathering_output(&sink), one.stages);
    assert_put(chain, one.way, payload);
    assert_bytes(sink.data, frame_on_wire(payload, one.stages));
  }
}

// GIO's own gathering writes: each vector is a block of its own.
void
test_vectors_of_the_caller(const Case &one)
{
  Sink sink;
  sink.limit = 3;
  const Chain chain(new_gathering_output(&sink), one.stages);
  for (auto *out : {chain.out(), G_OUTPUT_STREAM(chain.writer.get())}) {
    GOutputVector vectors[] = {{"one", 3}, {"twenty", 6}, {"3", 1}};
    gsize written;
    Error error;
    if (one.way == Way::blocking) {
      g_output_stream_writev_all(out, vectors, 3, &written, nullptr, &error);
    } else {
      Collector collector;
      g_output_stream_writev_all_async(out, vectors, 3, G_PRIORITY_DEFAULT, nullptr,
                                       Collector::ready, &collector);
      g_output_stream_writev_all_finish(out, collector.wait(), &written, &error);
    }
    error.assert_none();
    g_assert_cmpuint(written, ==, 10);
  }
  Error error;
  g_assert_true(g_output_stream_flush(chain.out(), nullptr, &error));
  const auto wire = write_on_wire("one", one.stages) + write_on_wire("twenty", one.stages) +
                    write_on_wire("3", one.stages);
  assert_bytes(sink.data, wire + wire);
}

// A vector goes on before the next one begins, even if it is too large for one block.
void
test_large_vector_of_the_caller(const Case &one)
{
  const std::string large = pattern(3 * 1024 * 1024 / 2);
  Sink sink;
  const Chain chain(new_gathering_output(&sink), one.stages);
  GOutputVector vectors[] = {{large.data(), large.size()}, {"tail", 4}};
  Error error;
  g_assert_true(g_output_stream_writev_all(chain.out(), vectors, 2, nullptr, nullptr, &error));
  assert_bytes(sink.data, write_on_wire(large, one.stages) + write_on_wire("tail", one.stages));
}

/* ---- Real sockets ---- */

// The kernel may repeat a segment, but not one for every other frame.
void
test_one_segment_a_frame(const Case &one)
{
  SegmentCount total = {0, 0};
  for (int i = 0; i < 10; i++) {
    const auto some = send_over_tcp(one);
    total = {total.frames + some.frames, total.segments + some.segments};
  }
  g_test_message("%u frames, %u segments", total.frames, total.segments);
  g_assert_cmpuint(total.segments, >=, total.frames);
  g_assert_cmpuint(total.segments, <, total.frames * 3 / 2);
}

// An encrypted frame is a record for the length and one for the payload, behind the record that
// begins the channel; each is as long as what it holds, padded.
void
test_one_record_a_part(const Case &one)
{
  Sink sink;
  auto channel = own(gvc_connection_new(
      new_connection_over(new_scripted_input(new_script()), new_gathering_output(&sink)).get()));
  faulty::add_stages(channel.get(), 1);
  auto writer =
      own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel.get()))));
  Error error;
  g_assert_true(put(writer.get(), one.way, pattern(100), &error));
  std::vector<guint64> lengths;
  for (gsize at = 0; at < sink.data.size();) {
    guint64 length;
    memcpy(&length, sink.data.data() + at, sizeof length);
    lengths.push_back(GUINT64_FROM_LE(length));
    at += sizeof length + (length > 0 ? lengths.back() : 16);
  }
  g_assert_true((lengths == std::vector<guint64>{0, 16, 112}));
}

void
add(const char *name, void (*test)(const Case &), int stages_from = 0, int stages_up_to = 2)
{
  using Entry = std::pair<void (*)(const Case &), Case>;
  for (const Way way : {Way::blocking, Way::async})
    for (int stages = stages_from; stages <= stages_up_to; stages++) {
      const std::string path = std::string("/gather/") + name +
                               (way == Way::blocking ? "/blocking/" : "/async/") +
                               std::to_string(stages) + "-stages";
      g_test_add_data_func_full(
          path.c_str(), new Entry(test, {way, stages}),
          [](gconstpointer data) {
            const auto entry = static_cast<const Entry *>(data);
            entry->first(entry->second);
          },
          [](gpointer data) { delete static_cast<Entry *>(data); });
    }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add("one-call-a-frame", test_one_call_a_frame);
  add("one-call-an-empty-frame", test_one_call_an_empty_frame);
  add("frames-between-other-writes", test_frames_between_other_writes);
  add("two-writes-where-nothing-gathers", test_two_writes_where_nothing_gathers);
  add("partial-calls-lose-nothing", test_partial_calls_lose_nothing);
  add("first-call-ends-at-every-byte", test_first_call_ends_at_every_byte);
  add("no-empty-vectors", test_no_empty_vectors);
  add("failed-call-ends-the-frame", test_a_failed_call_ends_the_frame);
  add("large-frames", test_large_frames);
  add("vectors-of-the-caller", test_vectors_of_the_caller);
  add("large-vector-of-the-caller", test_large_vector_of_the_caller);
  add("one-segment-a-frame", test_one_segment_a_frame);
  add("one-record-a-part", test_one_record_a_part, 1, 1);
  return g_test_run();
}
