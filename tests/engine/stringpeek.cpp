// SPDX-License-Identifier: LGPL-2.1-or-later
// Strings from streams that can be looked into and from streams that cannot: nothing behind the
// terminator is taken, nothing is looked at again and again, and a string ends where it should.
#include "tests/support/faulty.h"

#include <netinet/in.h>
#include <sys/socket.h>

using namespace support;

namespace
{

/* ---- Streams that strings are read from ---- */

enum class Base { socket, tcp_socket, one_stage, two_stages, buffered, buffered_stage, unknown };

const std::pair<Base, const char *> bases[] = {
    {Base::socket, "socket"},         {Base::tcp_socket, "tcp-socket"},
    {Base::one_stage, "one-stage"},   {Base::two_stages, "two-stages"},
    {Base::buffered, "buffered"},     {Base::buffered_stage, "buffered-stage"},
    {Base::unknown, "filter-stream"},
};

enum class Way { blocking, async };

int
stages_of(Base base)
{
  return base == Base::two_stages                                  ? 2
         : base == Base::one_stage || base == Base::buffered_stage ? 1
                                                                   : 0;
}

// The smallest buffer that a string does not fit into.
constexpr gsize buffer_size = 16;

Ref<GConverter>
nothing()
{
  return new_map_converter([](guint8 byte) { return byte; }, G_MAXSIZE);
}

// A stream over a socket, and the peer, who writes through the same stages.
struct Line {
  Base base;
  RawPeer peer;
  Ref<GvcConnection> channel;
  Ref<GInputStream> in;
  Ref<GvcDataInputStream> strings;
  Ref<GCancellable> cancellable = own(g_cancellable_new());
  // The other direction's encoder.
  std::shared_ptr<Script> encoded = new_script();
  Ref<GvcConnection> encoder;

  explicit Line(Base one)
      : base(one), peer(one == Base::tcp_socket ? Family::tcp4 : Family::unix_domain),
        channel(own(gvc_connection_new(peer.connection()))),
        encoder(own(gvc_connection_new(
            new_connection_over(new_scripted_input(new_script()),
                                new_scripted_output(encoded, StreamKind::sync_only))
                .get())))
  {
    faulty::add_stages(channel.get(), stages_of(base));
    faulty::add_stages(encoder.get(), stages_of(base));
    in = own(static_cast<GInputStream *>(
        g_object_ref(g_io_stream_get_input_stream(G_IO_STREAM(channel.get())))));
    if (base == Base::buffered || base == Base::buffered_stage)
      in = own(g_buffered_input_stream_new_sized(in.get(), buffer_size));
    if (base == Base::unknown)
      in = own(g_converter_input_stream_new(in.get(), nothing().get()));
    strings = own(gvc_data_input_stream_new(in.get()));
  }
  // One write, and so one block and record.
  std::string
  encode(std::string_view plain)
  {
    const gsize before = encoded->written().size();
    g_assert_true(
        g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(encoder.get())),
                                  plain.data(), plain.size(), nullptr, nullptr, nullptr));
    return encoded->written().substr(before);
  }
  void
  send(std::string_view plain)
  {
    peer.send(encode(plain));
  }
  GSocket *
  socket() const
  {
    return g_socket_connection_get_socket(peer.connection());
  }
  // The bytes behind the last string, read from the base stream itself.
  void
  assert_next(std::string_view expected)
  {
    std::string next(expected.size(), '\0');
    gsize count;
    Error error;
    g_assert_true(g_input_stream_read_all(in.get(), next.data(), next.size(), &count,
                                          cancellable.get(), &error));
    assert_bytes(std::string_view(next).substr(0, count), expected);
  }
};

// One asynchronous string.
class Reading
{
public:
  Reading(Line &line, char string_end) : line_(line)
  {
    gvc_data_input_stream_read_string_async(line.strings.get(), string_end, G_PRIORITY_DEFAULT,
                                            line.cancellable.get(), Collector::ready, &collector);
  }
  std::optional<std::string>
  finish(Error &error)
  {
    gsize length = 0;
    auto *string = gvc_data_input_stream_read_string_finish(line_.strings.get(), collector.wait(),
                                                            &length, &error);
    return faulty::take(string, length);
  }
  void
  assert_cancelled()
  {
    g_assert_cmpuint(collector.calls(), ==, 0);
    g_cancellable_cancel(line_.cancellable.get());
    Error error;
    g_assert_false(finish(error).has_value());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  }
  Collector collector;

private:
  Line &line_;
};

std::optional<std::string>
read_string(Line &line, Way way, char string_end, Error &error)
{
  if (way == Way::async)
    return Reading(line, string_end).finish(error);
  gsize length = 0;
  auto *string = gvc_data_input_stream_read_string(line.strings.get(), string_end, &length,
                                                   line.cancellable.get(), &error);
  return faulty::take(string, length);
}

void
assert_string(Line &line, Way way, char string_end, std::string_view expected)
{
  Error error;
  const auto string = read_string(line, way, string_end, error);
  error.assert_none();
  assert_bytes(*string, expected);
}

struct Case {
  Base base;
  Way way;
};

constexpr int many_turns = 200;
// A reader looks once or twice more than it must.
constexpr int most_in_vain = 20;

// How many turns of the main loop had something to do.
int
busy_turns(int turns)
{
  int busy = 0;
  for (int turn = 0; turn < turns; turn++)
    busy += g_main_context_iteration(nullptr, FALSE);
  return busy;
}

constexpr gsize many_bytes = 1024;
// Bytes that have come cost no turn of the main loop each.
constexpr int most_turns = many_bytes / 4;

std::string
read_script(GvcDataInputStream *strings, Way way)
{
  gsize length = 0;
  if (way == Way::blocking) {
    auto *string = gvc_data_input_stream_read_string(strings, '\n', &length, nullptr, nullptr);
    return faulty::take(string, length).value();
  }
  Collector collector;
  gvc_data_input_stream_read_string_async(strings, '\n', G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  auto *string =
      gvc_data_input_stream_read_string_finish(strings, collector.wait(), &length, nullptr);
  return faulty::take(string, length).value();
}

/* ---- */

using BaseTest = void (*)(Base);

void
run_base_test(const std::pair<BaseTest, Base> &one)
{
  one.first(one.second);
}

/* ---- Consumed bytes ---- */

void
test_nothing_behind_the_terminator(const Case &one)
{
  Line line(one.base);
  line.send("first\nsecond\nand what comes then");
  assert_string(line, one.way, '\n', "first\n");
  assert_string(line, one.way, '\n', "second\n");
  line.assert_next("and what comes then");
}

// The border of a unit lies everywhere around the terminator.
void
test_string_in_two_units(const Case &one)
{
  const std::string text = "string\nnext";
  for (gsize at = 1; at < text.size(); at++) {
    Line line(one.base);
    line.send(text.substr(0, at));
    line.send(text.substr(at));
    assert_string(line, one.way, '\n', "string\n");
    line.assert_next("next");
  }
}

void
test_terminator_comes_first(const Case &one)
{
  Line line(one.base);
  line.send("\n\nnext");
  for (int i = 0; i < 2; i++)
    assert_string(line, one.way, '\n', "\n");
  line.assert_next("next");
}

void
test_any_byte_in_and_behind(const Case &one)
{
  using namespace std::string_view_literals;
  for (const char string_end : {'\0', '\xff', 'z'}) {
    const auto inside = "\0a\0\0b\x7f\x80"sv, all = "\0\xff\n"sv;
    Line line(one.base);
    std::string text(string_end == '\0' ? "abc\x80" : inside);
    text += string_end;
    line.send(text + std::string(all));
    assert_string(line, one.way, string_end, text);
    line.assert_next(all);
  }
}

// The socket's and the stream's buffers are full before the terminator has come.
void
test_string_longer_than_the_buffers(const Case &one)
{
  Line line(one.base);
  if (one.base == Base::tcp_socket) // or it could grow
    g_assert_true(g_socket_set_option(line.socket(), SOL_SOCKET, SO_RCVBUF, 128 * 1024, nullptr));
  const bool small_buffer = one.base == Base::buffered || one.base == Base::buffered_stage;
  std::string text(small_buffer ? 100 * buffer_size : 300000, 'x');
  text += '\n';
  const std::string wire = line.encode(text + "next");
  Background sender([&] { line.peer.send(wire); });
  assert_string(line, one.way, '\n', text);
  sender.join();
  line.assert_next("next");
}

// Strings and frames take turns on one channel.
void
test_frames_between_strings(const Case &one)
{
  Line line(one.base);
  auto frames = own(gvc_bytes_input_stream_new(line.in.get()));
  std::string all;
  for (int i = 0; i < 3; i++)
    all += "name\n" + frame("message\nof two lines");
  line.send(all);
  for (int i = 0; i < 3; i++) {
    assert_string(line, one.way, '\n', "name\n");
    Error error;
    BytesRef message;
    if (one.way == Way::blocking) {
      message.reset(gvc_bytes_input_stream_read_bytes(frames.get(), nullptr, &error));
    } else {
      Collector collector;
      gvc_bytes_input_stream_read_bytes_async(frames.get(), G_PRIORITY_DEFAULT, nullptr,
                                              Collector::ready, &collector);
      message.reset(
          gvc_bytes_input_stream_read_bytes_finish(frames.get(), collector.wait(), &error));
    }
    assert_bytes(bytes_string(message.get()), "message\nof two lines");
  }
}

/* ---- Ends ---- */

void
test_peer_that_has_closed(const Case &one)
{
  Line line(one.base);
  line.send("string\nnext");
  line.peer.close();
  assert_string(line, one.way, '\n', "string\n");
  line.assert_next("next");
}

/* ---- Waiting, which only the asynchronous reader does in the main loop ---- */

// A silent peer leaves the main loop idle, whatever part of a string has arrived.
void
test_silent_peer(Base base)
{
  for (const char *part : {"", "p", "part of a string"}) {
    Line line(base);
    Reading reading(line, '\n');
    busy_turns(many_turns);
    if (*part != '\0')
      line.send(part);
    g_assert_cmpint(busy_turns(many_turns) + busy_turns(many_turns), <=, most_in_vain);
    g_assert_true(g_input_stream_has_pending(G_INPUT_STREAM(line.strings.get())));
    reading.assert_cancelled();
    g_assert_false(g_input_stream_has_pending(G_INPUT_STREAM(line.strings.get())));
  }
}

void
test_terminator_comes_later(Base base)
{
  Line line(base);
  Reading reading(line, '\n');
  for (const char *part : {"a string ", "in ", "parts"}) {
    line.send(part);
    busy_turns(many_turns);
    g_assert_cmpuint(reading.collector.calls(), ==, 0);
  }
  line.send("\nnext");
  Error error;
  assert_bytes(*reading.finish(error), "a string in parts\n");
  line.assert_next("next");
}

// Each byte by itself, with turns in between; no more than a socket buffer holds of such parts.
void
test_trickle(Base base)
{
  Line line(base);
  std::string text(200, 'x');
  text += '\n';
  Reading reading(line, '\n');
  for (const char byte : text) {
    g_assert_cmpuint(reading.collector.calls(), ==, 0);
    line.send({&byte, 1});
    busy_turns(3);
  }
  Error error;
  assert_bytes(*reading.finish(error), text);
}

// The end of the stream does not end a string; a cancellation does.
void
test_end_of_the_stream(Base base)
{
  for (const char *part : {"", "part"}) {
    Line line(base);
    if (*part != '\0')
      line.send(part);
    line.peer.close();
    Reading reading(line, '\n');
    if (stages_of(base) > 0) {
      // Their own error, as for every other reader.
      Error error;
      g_assert_false(reading.finish(error).has_value());
      error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
      continue;
    }
    busy_turns(many_turns);
    reading.assert_cancelled();
  }
}

// A peer that goes without a farewell, which over TCP is an error.
void
test_reset(Base base)
{
  for (const Way way : {Way::blocking, Way::async}) {
    Line line(base);
    line.send("part");
    std::optional<Reading> reading;
    if (way == Way::async)
      reading.emplace(line, '\n');
    busy_turns(many_turns);
    const struct linger at_once = {1, 0};
    g_assert_no_errno(setsockopt(line.peer.fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once));
    line.peer.close();
    Error error;
    g_assert_false(
        (reading ? reading->finish(error) : read_string(line, way, '\n', error)).has_value());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
  }
}

void
test_socket_closed_below(Base base)
{
  Line line(base);
  line.send("part");
  Reading reading(line, '\n');
  busy_turns(many_turns);
  g_socket_close(line.socket(), nullptr);
  Error error;
  g_assert_false(reading.finish(error).has_value());
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
}

void
test_turns_of_a_string(Base base)
{
  Line line(base);
  line.send(std::string(many_bytes, 'x') + "\nnext");
  Reading reading(line, '\n');
  int turns = 0;
  for (; reading.collector.calls() == 0; turns++)
    g_main_context_iteration(nullptr, TRUE);
  g_test_message("%d turns", turns);
  g_assert_cmpint(turns, <=, most_turns);
  Error error;
  assert_bytes(*reading.finish(error), std::string(many_bytes, 'x') + '\n');
  line.assert_next("next");
}

/* ---- Sockets with a timeout ---- */

// The part that has come must not be looked at without end. A timeout takes a second at least, so
// all of them run at the same time.
void
test_timeouts()
{
  std::deque<Line> lines;
  std::deque<Reading> readings;
  std::deque<Background> threads;
  for (const auto &[base, name] : bases)
    for (const Way way : {Way::blocking, Way::async}) {
      if (base > Base::one_stage)
        continue;
      auto &line = lines.emplace_back(base);
      g_socket_set_timeout(line.socket(), 1);
      line.send("part");
      if (way == Way::async)
        readings.emplace_back(line, '\n');
      else
        threads.emplace_back([&line] {
          Error error;
          g_assert_false(read_string(line, Way::blocking, '\n', error).has_value());
          error.assert_is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
        });
    }
  for (auto &reading : readings) {
    Error error;
    g_assert_false(reading.finish(error).has_value());
    error.assert_is(G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
  }
  for (auto &thread : threads)
    thread.join();
}

/* ---- Streams that can only be read ---- */

// Requests of one byte each, but none of them waits for a turn of its own.
void
test_one_byte_a_request()
{
  const std::string text = std::string(many_bytes, 'x') + '\n';
  for (const Way way : {Way::blocking, Way::async})
    for (const StreamKind kind : all_stream_kinds) {
      const auto script = new_script(text + "next");
      auto base = new_scripted_input(script, kind);
      auto strings = own(gvc_data_input_stream_new(base.get()));
      assert_bytes(read_script(strings.get(), way), text);
      g_assert_true((script->sizes() == std::vector<gsize>(text.size(), 1)));
    }
}

// A stream of a derived class delivers what it likes: what its base stream holds says nothing.
void
test_derived_class_over_a_buffer()
{
  for (const Way way : {Way::blocking, Way::async})
    for (const StreamKind kind : {StreamKind::sync_only, StreamKind::with_async,
                                  StreamKind::pollable, StreamKind::async_only}) {
      if (kind == StreamKind::async_only && way == Way::blocking)
        continue; // reads the base stream
      auto below = own(g_buffered_input_stream_new(new_scripted_input(new_script("others")).get()));
      g_assert_cmpint(
          g_buffered_input_stream_fill(G_BUFFERED_INPUT_STREAM(below.get()), -1, nullptr, nullptr),
          ==, 6);
      const auto script = new_script("one\ntwo\n");
      auto strings =
          new_scripted_filter_input(GVC_TYPE_DATA_INPUT_STREAM, below.get(), script, kind);
      g_assert_true(read_script(GVC_DATA_INPUT_STREAM(strings.get()), way) == "one\n");
      g_assert_cmpuint(script->moved(), ==, 4);
    }
}

// At the end of a stream that can always be read, the others have their turns.
void
test_one_read_a_turn_at_the_end()
{
  const auto script = new_script();
  auto base = new_scripted_input(script, StreamKind::pollable);
  auto strings = own(gvc_data_input_stream_new(base.get()));
  auto cancellable = own(g_cancellable_new());
  Collector collector;
  gvc_data_input_stream_read_string_async(strings.get(), '\n', G_PRIORITY_DEFAULT,
                                          cancellable.get(), Collector::ready, &collector);
  for (gsize turn = 1; turn <= 20; turn++) {
    g_assert_cmpuint(script->transfers().size(), <=, turn);
    g_main_context_iteration(nullptr, TRUE);
  }
  g_cancellable_cancel(cancellable.get());
  Error error;
  g_assert_null(
      gvc_data_input_stream_read_string_finish(strings.get(), collector.wait(), nullptr, &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

void
test_turns_of_a_pollable_stream()
{
  const auto script = new_script(std::string(many_bytes, 'x') + '\n');
  auto base = new_scripted_input(script, StreamKind::pollable);
  auto strings = own(gvc_data_input_stream_new(base.get()));
  Collector collector;
  gvc_data_input_stream_read_string_async(strings.get(), '\n', G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  int turns = 0;
  for (; collector.calls() == 0; turns++)
    g_main_context_iteration(nullptr, TRUE);
  g_test_message("%d turns", turns);
  g_assert_cmpint(turns, <=, most_turns);
}

// A derived class may read from anywhere: what lies in the base stream says nothing then.
void
test_derived_class_with_reads_of_its_own(const Case &one)
{
  for (const auto kind : all_stream_kinds) {
    // GIO's own asynchronous reads of such a stream pass its blocking ones by.
    if (kind == StreamKind::sync_only && one.way == Way::async && one.base == Base::socket)
      continue;
    Line line(one.base);
    line.send("base\nnext");
    if (one.base == Base::buffered)
      g_buffered_input_stream_fill(G_BUFFERED_INPUT_STREAM(line.in.get()), -1, nullptr, nullptr);
    const auto derived = new_scripted_filter_input(GVC_TYPE_DATA_INPUT_STREAM, line.in.get(),
                                                   new_script("derived\nstring\n"), kind);
    // Its end would close the base stream.
    const auto kept = std::move(line.strings);
    line.strings = own(GVC_DATA_INPUT_STREAM(g_object_ref(derived.get())));
    assert_string(line, one.way, '\n', "derived\n");
    assert_string(line, one.way, '\n', "string\n");
    line.assert_next("base\nnext");
  }
}

template <typename Argument>
void
add(const std::string &name, void (*test)(const Argument &), const Argument &argument)
{
  using Entry = std::pair<void (*)(const Argument &), Argument>;
  g_test_add_data_func_full(("/string-peek/" + name).c_str(), new Entry(test, argument),
                            [](gconstpointer data) {
                              const auto entry = static_cast<const Entry *>(data);
                              entry->first(entry->second);
                            },
                            [](gpointer data) { delete static_cast<Entry *>(data); });
}

void
add_for_bases(const std::string &name, void (*test)(const Case &))
{
  for (const auto &[base, base_name] : bases) {
    add(name + '/' + base_name + "/blocking", test, Case{base, Way::blocking});
    add(name + '/' + base_name + "/async", test, Case{base, Way::async});
  }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add_for_bases("nothing-behind-the-terminator", test_nothing_behind_the_terminator);
  add_for_bases("string-in-two-units", test_string_in_two_units);
  add_for_bases("terminator-comes-first", test_terminator_comes_first);
  add_for_bases("any-byte-in-and-behind", test_any_byte_in_and_behind);
  add_for_bases("longer-than-the-buffers", test_string_longer_than_the_buffers);
  add_for_bases("frames-between-strings", test_frames_between_strings);
  add_for_bases("peer-that-has-closed", test_peer_that_has_closed);
  g_test_add_func("/string-peek/timeouts", test_timeouts);
  for (const auto base : {Base::socket, Base::buffered})
    for (const auto way : {Way::blocking, Way::async})
      add(std::string("derived-class-with-reads-of-its-own/") +
              (base == Base::socket ? "socket" : "buffered") +
              (way == Way::async ? "/async" : "/blocking"),
          test_derived_class_with_reads_of_its_own, Case{base, way});
  const std::pair<const char *, BaseTest> waiting[] = {
      {"silent-peer", test_silent_peer},
      {"terminator-comes-later", test_terminator_comes_later},
      {"trickle", test_trickle},
      {"turns-of-a-string", test_turns_of_a_string},
      {"end-of-the-stream", test_end_of_the_stream},
  };
  for (const auto &[name, test] : waiting)
    for (const auto &[base, base_name] : bases)
      add(std::string(name) + '/' + base_name, run_base_test, std::pair(test, base));
  // Not for buffered streams: one of GIO's threads may be waiting for their socket.
  for (const auto &[base, base_name] : bases)
    if (base <= Base::two_stages)
      add(std::string("socket-closed-below/") + base_name, run_base_test,
          std::pair<BaseTest, Base>(test_socket_closed_below, base));
  add("reset", run_base_test, std::pair<BaseTest, Base>(test_reset, Base::tcp_socket));
  g_test_add_func("/string-peek/one-byte-a-request", test_one_byte_a_request);
  g_test_add_func("/string-peek/derived-class-over-a-buffer", test_derived_class_over_a_buffer);
  g_test_add_func("/string-peek/one-read-a-turn-at-the-end", test_one_read_a_turn_at_the_end);
  g_test_add_func("/string-peek/turns-of-a-pollable-stream", test_turns_of_a_pollable_stream);
  return g_test_run();
}
