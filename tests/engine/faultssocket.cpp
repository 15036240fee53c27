// SPDX-License-Identifier: LGPL-2.1-or-later
// Channels over real sockets whose peer goes away, in order or not, after every possible byte, and
// the converters in converter streams of GIO's over streams that misbehave.
#include "tests/support/faulty.h"

#include <sys/socket.h>

using namespace support;
using namespace faulty;

namespace
{

enum class Departure {
  close, /* in good order: the end of the stream */
  reset, /* TCP: with a reset */
};

const std::string payload = pattern(60, 21);
const std::string message = frame(payload);

/* How the other end sees the descriptor closed. */
void
set_departure(int fd, Departure departure)
{
  const struct linger at_once = {1, 0};
  if (departure == Departure::reset)
    g_assert_cmpint(setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once), ==, 0);
}

/* A channel whose peer has sent the start of something, and has gone. */
class Deserted
{
public:
  Deserted(Family family, int stages, std::string_view sent, Departure departure)
      : peer_(family), channel_(own(gvc_connection_new(peer_.connection())))
  {
    add_stages(channel_.get(), stages);
    peer_.send(sent);
    set_departure(peer_.fd(), departure);
    peer_.close();
    for (gpointer object : {gpointer(channel_.get()), gpointer(peer_.connection()),
                            gpointer(g_io_stream_get_input_stream(io())),
                            gpointer(g_io_stream_get_output_stream(io()))})
      lives_.add(object);
  }
  GIOStream *
  io() const
  {
    return G_IO_STREAM(channel_.get());
  }
  void
  assert_all_gone()
  {
    g_socket_close(g_socket_connection_get_socket(peer_.connection()), nullptr);
    peer_.take_connection();
    channel_.reset();
    lives_.assert_all_gone();
  }

private:
  LifeWatch lives_;
  RawPeer peer_;
  Ref<GvcConnection> channel_;
};

struct ReadCase {
  bool async;
  int stages;
  Family family;
  Departure departure;
};

BytesRef
read_message(GIOStream *io, bool async, Error &error)
{
  const auto stream = own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(io)));
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(stream.get()), FALSE);
  if (!async)
    return BytesRef(gvc_bytes_input_stream_read_bytes(stream.get(), nullptr, &error));
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(stream.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  BytesRef bytes(gvc_bytes_input_stream_read_bytes_finish(stream.get(), collector.wait(), &error));
  spin_pending();
  g_assert_cmpuint(collector.calls(), ==, 1);
  return bytes;
}

/* A message of which only the first `sent` bytes came. */
void
assert_cut(const ReadCase &one, gsize sent, const BytesRef &bytes, Error &error)
{
  if (one.departure == Departure::reset) {
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
  } else if (one.stages > 0) {
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
  } else if (one.async || sent < 4) {
    error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
  } else {
    error.assert_none();
    assert_bytes(bytes_string(bytes.get()),
                 payload.substr(0, sent - 4) + std::string(message.size() - sent, '\0'));
  }
}

struct WriteCase {
  bool async;
  int stages;
  Family family;
  Departure departure;
};

bool
write_message(GIOStream *io, bool async, const BytesRef &bytes, Error &error)
{
  const auto stream = own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io)));
  g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(stream.get()), FALSE);
  if (!async)
    return gvc_bytes_output_stream_put_bytes(stream.get(), bytes.get(), nullptr, &error);
  Collector collector;
  gvc_bytes_output_stream_put_bytes_async(stream.get(), bytes.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  const bool done =
      gvc_bytes_output_stream_put_bytes_finish(stream.get(), collector.wait(), &error);
  spin_pending();
  g_assert_cmpuint(collector.calls(), ==, 1);
  return done;
}

std::string
address_of(gpointer stream)
{
  return Mem<char>(gvc_io_stream_get_remote_address_string(G_IO_STREAM(stream))).get();
}

Ref<GConverter>
new_converter(bool compression, bool out)
{
  const BytesRef key = new_bytes(pattern(32, 7));
  if (compression)
    return Ref<GConverter>(out ? G_CONVERTER(gvc_compressor_new())
                               : G_CONVERTER(gvc_decompressor_new()));
  return Ref<GConverter>(out ? G_CONVERTER(gvc_encryptor_new(key.get()))
                             : G_CONVERTER(gvc_decryptor_new(key.get())));
}

std::string
converted(bool compression, const std::string &plain)
{
  const auto memory = own(g_memory_output_stream_new_resizable());
  const auto stream =
      own(g_converter_output_stream_new(memory.get(), new_converter(compression, true).get()));
  Error error;
  g_assert_true(g_output_stream_write_all(stream.get(), plain.data(), plain.size(), nullptr,
                                          nullptr, &error));
  const auto target = G_MEMORY_OUTPUT_STREAM(memory.get());
  return {static_cast<const char *>(g_memory_output_stream_get_data(target)),
          g_memory_output_stream_get_data_size(target)};
}

template <bool compression>
std::optional<std::string>
read_through_gio(Rig &rig, GError **error)
{
  const auto converter = new_converter(compression, false);
  std::string buffer(payload.size(), '\0');
  const auto stream = own(g_converter_input_stream_new(rig.in(), converter.get()));
  g_filter_input_stream_set_close_base_stream(G_FILTER_INPUT_STREAM(stream.get()), FALSE);
  return g_input_stream_read_all(stream.get(), buffer.data(), buffer.size(), nullptr,
                                 rig.cancellable(), error)
             ? std::optional(buffer)
             : std::nullopt;
}

template <bool compression>
std::optional<std::string>
write_through_gio(Rig &rig, GError **error)
{
  const auto converter = new_converter(compression, true);
  const auto stream = own(g_converter_output_stream_new(rig.out(), converter.get()));
  g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(stream.get()), FALSE);
  return g_output_stream_write_all(stream.get(), payload.data(), payload.size(), nullptr,
                                   rig.cancellable(), error) &&
                 g_output_stream_flush(stream.get(), rig.cancellable(), error) &&
                 g_output_stream_close(stream.get(), rig.cancellable(), error)
             ? std::optional<std::string>("")
             : std::nullopt;
}

/* ---- Reading ---- */

void
test_read(const ReadCase &one)
{
  const std::string wire = through_stages(one.stages, {message.substr(0, 4), payload});
  for (gsize sent = 0; sent <= wire.size(); sent++) {
    Deserted deserted(one.family, one.stages, std::string_view(wire).substr(0, sent),
                      one.departure);
    Error error;
    BytesRef bytes = read_message(deserted.io(), one.async, error);
    if (sent == wire.size()) {
      error.assert_none();
      assert_bytes(bytes_string(bytes.get()), payload);
      bytes = read_message(deserted.io(), one.async, error);
      g_assert_null(bytes.get());
      assert_cut(one, 0, bytes, error);
    } else {
      assert_cut(one, sent, bytes, error);
    }
    g_assert_true(
        g_input_stream_close(g_io_stream_get_input_stream(deserted.io()), nullptr, &error));
    error.assert_none();
    deserted.assert_all_gone();
  }
}

/* ---- Writing ---- */

/* The peer takes some of a message that is larger than all buffers between, and goes. */
void
test_write(const WriteCase &one)
{
  LifeWatch lives;
  for (const gsize taken : {0, 4, 5000, 1000000}) {
    const BytesRef bytes = lives.add_bytes(pattern(12 * 1024 * 1024, 5));
    RawPeer peer(one.family);
    auto channel = own(gvc_connection_new(peer.connection()));
    add_stages(channel.get(), one.stages, &lives);
    {
      const Background reader([&] {
        peer.receive(taken);
        set_departure(peer.fd(), one.departure);
        peer.close();
      });
      Error error;
      g_assert_false(write_message(G_IO_STREAM(channel.get()), one.async, bytes, error));
      error.assert_is(G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
    }
    /* It stays so. */
    Error error;
    g_assert_false(write_message(G_IO_STREAM(channel.get()), one.async, bytes, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED);
    lives.add(channel.get());
    g_socket_close(g_socket_connection_get_socket(peer.connection()), nullptr);
    peer.take_connection();
    channel.reset();
  }
  lives.assert_all_gone();
}

/* ---- The address of a peer that has gone ---- */

/* A peer that has gone keeps its name until the socket is closed here. */
void
test_address()
{
  for (const auto departure : {Departure::close, Departure::reset}) {
    RawPeer peer(Family::tcp4);
    const auto channel = own(gvc_connection_new(peer.connection()));
    const std::string before = address_of(channel.get());
    g_assert_true(g_str_has_prefix(before.c_str(), "127.0.0.1:"));
    set_departure(peer.fd(), departure);
    peer.close();
    Error error;
    g_assert_null(read_message(G_IO_STREAM(channel.get()), false, error).get());
    assert_text(address_of(channel.get()), before);
    g_assert_true(g_socket_close(g_socket_connection_get_socket(peer.connection()), nullptr));
    assert_text(address_of(channel.get()), "UNKNOWN");
    assert_text(address_of(peer.connection()), "UNKNOWN");
  }
}

/* ---- GIO's own converter streams ---- */

template <bool compression>
void
test_gio_read(const Case &one)
{
  const std::string wire = converted(compression, payload);
  at_every_step(
      one,
      [&](Rig &rig) {
        rig.faults().wire = wire;
        rig.faults().chunk = 17;
      },
      [&](Rig &rig, Outcome &outcome) {
        if (one.fault == Fault::end && rig.faults().reached())
          outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
        else
          assert_outcome(one, rig, outcome, payload);
      });
}

template <bool compression>
void
test_gio_write(const Case &one)
{
  at_every_step(
      one, [](Rig &rig) { rig.faults().chunk = 17; },
      [&](Rig &rig, Outcome &outcome) {
        const bool failed = !outcome.value;
        assert_outcome(one, rig, outcome, "");
        if (failed)
          return;
        Rig reader(Flavour::blocking, 0);
        reader.faults().wire = rig.faults().accepted;
        Error error;
        assert_bytes(*read_through_gio<compression>(reader, &error), payload);
      });
}

template <bool compression>
void
add_gio_cases()
{
  const Operation read = {compression ? "decompressor" : "decryptor", Operation::Way::blocking,
                          read_through_gio<compression>};
  const Operation write = {compression ? "compressor" : "encryptor", Operation::Way::blocking,
                           write_through_gio<compression>};
  add_cases("gio", read,
            {Fault::fail, Fault::trickle, Fault::cancel, Fault::cancel_late, Fault::end},
            test_gio_read<compression>, 2, 0);
  add_cases("gio", write, {Fault::fail, Fault::trickle, Fault::cancel, Fault::cancel_late},
            test_gio_write<compression>, 2, 0);
}

template <typename Case, void (*test)(const Case &)>
void
add_socket_cases(const char *name)
{
  for (const bool async : {false, true})
    for (int stages = 0; stages <= most_stages; stages++)
      for (const auto &[family, departure] :
           {std::pair(Family::unix_domain, Departure::close),
            std::pair(Family::tcp4, Departure::close), std::pair(Family::tcp4, Departure::reset)}) {
        const std::string path = std::string("/faults/socket/") + name + (async ? "-async/" : "/") +
                                 std::to_string(stages) + "-stages/" +
                                 (family == Family::tcp4 ? "tcp" : "unix") +
                                 (departure == Departure::reset ? "-reset" : "-close");
        g_test_add_data_func_full(
            path.c_str(), new Case{async, stages, family, departure},
            [](gconstpointer data) { test(*static_cast<const Case *>(data)); },
            [](gpointer data) { delete static_cast<Case *>(data); });
      }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  add_socket_cases<ReadCase, test_read>("read");
  add_socket_cases<WriteCase, test_write>("write");
  g_test_add_func("/faults/socket/address", test_address);
  add_gio_cases<true>();
  add_gio_cases<false>();
  return g_test_run();
}
