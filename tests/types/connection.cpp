/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

using namespace support;

/* ---- A socket connection whose streams are scripted ---- */

struct FakeConnection {
  GSocketConnection parent;
  GInputStream *in;
  GOutputStream *out;
};

struct FakeConnectionClass {
  GSocketConnectionClass parent_class;
};

G_DEFINE_TYPE(FakeConnection, fake_connection, G_TYPE_SOCKET_CONNECTION)

static void
fake_connection_finalize(GObject *object)
{
  const auto self = reinterpret_cast<FakeConnection *>(object);
  G_OBJECT_CLASS(fake_connection_parent_class)->finalize(object);
  g_clear_object(&self->in);
  g_clear_object(&self->out);
}

static void
fake_connection_class_init(FakeConnectionClass *klass)
{
  G_OBJECT_CLASS(klass)->finalize = fake_connection_finalize;
  G_IO_STREAM_CLASS(klass)->get_input_stream = [](GIOStream *stream) {
    return reinterpret_cast<FakeConnection *>(stream)->in;
  };
  G_IO_STREAM_CLASS(klass)->get_output_stream = [](GIOStream *stream) {
    return reinterpret_cast<FakeConnection *>(stream)->out;
  };
}

static void
fake_connection_init(FakeConnection *)
{
}

/* A channel over scripted streams, with what a test wants to look at. */
struct Fixture {
  std::shared_ptr<Script> in_script = new_script();
  std::shared_ptr<Script> out_script = new_script();
  Ref<GInputStream> in = new_scripted_input(in_script);
  Ref<GOutputStream> out = new_scripted_output(out_script);
  Ref<GSocketConnection> socket;
  Ref<GvcConnection> channel;

  explicit Fixture(GType channel_type = GVC_TYPE_CONNECTION)
  {
    Error error;
    const auto bare = own(g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_STREAM,
                                       G_SOCKET_PROTOCOL_DEFAULT, &error));
    error.assert_none();
    const auto fake = static_cast<FakeConnection *>(
        g_object_new(fake_connection_get_type(), "socket", bare.get(), nullptr));
    fake->in = G_INPUT_STREAM(g_object_ref(in.get()));
    fake->out = G_OUTPUT_STREAM(g_object_ref(out.get()));
    socket.reset(G_SOCKET_CONNECTION(fake));
    channel.reset(static_cast<GvcConnection *>(
        g_object_new(channel_type, "connection", socket.get(), nullptr)));
  }

  GIOStream *
  stream() const
  {
    return G_IO_STREAM(channel.get());
  }
};

static GInputStream *
in_of(gpointer stream)
{
  return g_io_stream_get_input_stream(G_IO_STREAM(stream));
}

static GOutputStream *
out_of(gpointer stream)
{
  return g_io_stream_get_output_stream(G_IO_STREAM(stream));
}

static Ref<GConverter>
identity()
{
  return new_map_converter([](guint8 byte) { return byte; });
}

static Ref<GConverter>
adding(guint8 number)
{
  return new_map_converter([number](guint8 byte) { return static_cast<guint8>(byte + number); });
}

static Ref<GConverter>
flipping()
{
  return new_map_converter([](guint8 byte) { return static_cast<guint8>(~byte); }, 3);
}

static std::string
mapped(std::string data, const std::function<guint8(guint8)> &map)
{
  for (auto &c : data)
    c = static_cast<char>(map(static_cast<guint8>(c)));
  return data;
}

static std::string
read_exactly(GInputStream *in, gsize size)
{
  Error error;
  std::string result(size, '\0');
  gsize count;
  g_input_stream_read_all(in, result.data(), size, &count, nullptr, &error);
  error.assert_none();
  result.resize(count);
  return result;
}

static void
write_whole(GOutputStream *out, std::string_view data)
{
  Error error;
  g_output_stream_write_all(out, data.data(), data.size(), nullptr, nullptr, &error);
  error.assert_none();
}

static int
nodelay(GSocketConnection *connection)
{
  int value = -1;
  g_assert_true(g_socket_get_option(g_socket_connection_get_socket(connection), IPPROTO_TCP,
                                    TCP_NODELAY, &value, nullptr));
  return value;
}

/* Closes blocking or asynchronously, and tells the outcome. */
static bool
close_channel(GIOStream *stream, bool async, Error &error)
{
  if (!async)
    return g_io_stream_close(stream, nullptr, &error);
  Collector collector;
  g_io_stream_close_async(stream, 0, nullptr, Collector::ready, &collector);
  g_assert_cmpuint(collector.calls(), ==, 0);
  return g_io_stream_close_finish(stream, collector.wait(), &error);
}

struct OwnClose {
  GvcConnection parent;
};

struct OwnCloseClass {
  GvcConnectionClass parent_class;
};

G_DEFINE_TYPE(OwnClose, own_close, GVC_TYPE_CONNECTION)

static guint own_closes;

static void
own_close_class_init(OwnCloseClass *klass)
{
  G_IO_STREAM_CLASS(klass)->close_fn = [](GIOStream *, GCancellable *, GError **error) -> gboolean {
    own_closes++;
    g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_BUSY, "closes in its own way");
    return FALSE;
  };
}

static void
own_close_init(OwnClose *)
{
}

/* ---- The type ---- */

static void
type_is_a_plain_io_stream()
{
  const GType type = gvc_connection_get_type();
  g_assert_cmpuint(type, ==, GVC_TYPE_CONNECTION);
  g_assert_cmpstr(g_type_name(type), ==, "GvcConnection");
  g_assert_cmpuint(g_type_parent(type), ==, G_TYPE_IO_STREAM);
  g_assert_false(G_TYPE_IS_ABSTRACT(type));
  g_assert_false(G_TYPE_IS_FINAL(type));
  g_assert_true(G_TYPE_IS_DERIVABLE(type));
  g_assert_true(own_signals(type).empty());

  GTypeQuery query;
  g_type_query(type, &query);
  g_assert_cmpuint(query.instance_size, ==, sizeof(GIOStream));
  g_assert_cmpuint(query.class_size, ==, sizeof(GIOStreamClass));
  g_assert_cmpuint(sizeof(GvcConnection), ==, sizeof(GIOStream));
  g_assert_cmpuint(sizeof(GvcConnectionClass), ==, sizeof(GIOStreamClass));
}

static void
type_overrides_what_a_channel_needs()
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(GVC_TYPE_CONNECTION));
  const auto parent = static_cast<GObjectClass *>(g_type_class_peek_parent(klass));
  const auto stream_class = G_IO_STREAM_CLASS(klass);
  const auto stream_parent = G_IO_STREAM_CLASS(parent);

  g_assert_true(klass->set_property != nullptr && klass->get_property != nullptr);
  g_assert_true(klass->dispose != parent->dispose);
  g_assert_true(stream_class->get_input_stream != stream_parent->get_input_stream);
  g_assert_true(stream_class->get_output_stream != stream_parent->get_output_stream);
  g_assert_true(stream_class->close_fn != stream_parent->close_fn);
  g_assert_true(stream_class->close_async != stream_parent->close_async);
  g_assert_true(stream_class->close_finish != stream_parent->close_finish);

  g_assert_true(klass->finalize == parent->finalize);
  g_assert_true(klass->constructor == parent->constructor);
  g_assert_true(klass->constructed == parent->constructed);
  g_assert_true(klass->notify == parent->notify);
  g_assert_true(klass->dispatch_properties_changed == parent->dispatch_properties_changed);
  g_type_class_unref(klass);
}

static void
type_can_be_registered_from_many_threads()
{
  if (!g_test_subprocess()) {
    g_test_trap_subprocess(nullptr, 0, GTestSubprocessFlags(0));
    g_test_trap_assert_passed();
    return;
  }

  g_assert_cmpuint(g_type_from_name("GvcConnection"), ==, G_TYPE_INVALID);
  static gint started;
  GThread *threads[8];
  for (auto &thread : threads)
    thread = g_thread_new(
        "type",
        [](gpointer) -> gpointer {
          g_atomic_int_inc(&started);
          while (g_atomic_int_get(&started) < 8)
            g_thread_yield();
          return GSIZE_TO_POINTER(gvc_connection_get_type());
        },
        nullptr);
  for (auto *thread : threads)
    g_assert_cmpuint(GPOINTER_TO_SIZE(g_thread_join(thread)), ==, gvc_connection_get_type());
}

static void
only_property_is_the_connection()
{
  g_assert_true(own_properties(GVC_TYPE_CONNECTION) == std::vector<std::string>{"connection"});
  /* 235: readable, writable, construct-only and the three static strings. */
  assert_property(GVC_TYPE_CONNECTION, "connection", G_TYPE_SOCKET_CONNECTION, "Connection",
                  "Connection", 235);

  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(GVC_TYPE_CONNECTION));
  GParamSpec *const spec = g_object_class_find_property(klass, "connection");
  g_assert_cmpstr(G_PARAM_SPEC_TYPE_NAME(spec), ==, "GParamObject");
  g_assert_null(g_value_get_object(g_param_spec_get_default_value(spec)));
  g_assert_cmpuint(spec->param_id, ==, 1);
  g_type_class_unref(klass);
}

static void
connection_property_reads_back_with_a_reference()
{
  const Fixture fixture;
  const guint before = refcount(fixture.socket.get());
  GSocketConnection *value = nullptr;
  g_object_get(fixture.channel.get(), "connection", &value, nullptr);
  g_assert_true(value == fixture.socket.get());
  assert_refcount(fixture.socket.get(), before + 1);
  g_object_unref(value);
}

static void
connection_property_cannot_be_replaced()
{
  const Fixture fixture;
  const Fixture other;
  LogCapture log;
  g_object_set(fixture.channel.get(), "connection", other.socket.get(), nullptr);
  const auto messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 1);
  g_assert_true(messages[0].domain == "GLib-GObject");
  g_assert_true(gvc_connection_get_connection(fixture.channel.get()) == fixture.socket.get());
}

static void
unknown_property_ids_are_warned_about()
{
  const Fixture fixture;
  GObject *const object = G_OBJECT(fixture.channel.get());
  const auto klass = G_OBJECT_GET_CLASS(object);
  GParamSpec *const spec = g_object_class_find_property(klass, "connection");
  const guint socket_references = refcount(fixture.socket.get());
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_SOCKET_CONNECTION);

  LogCapture log;
  for (const guint id : {0u, 2u, 4711u}) {
    const std::string rest = ": invalid property id " + std::to_string(id) +
                             " for \"connection\" of type 'GParamObject' in 'GvcConnection'";
    g_value_set_object(&value, fixture.socket.get());
    klass->set_property(object, id, &value, spec);
    log.expect({warning("vchannels/zelgvc/gvcconnection:68" + rest)});
    g_value_set_object(&value, nullptr);
    klass->get_property(object, id, &value, spec);
    log.expect({warning("vchannels/zelgvc/gvcconnection:90" + rest)});
    g_assert_null(g_value_get_object(&value));
  }
  g_value_unset(&value);
  assert_refcount(fixture.socket.get(), socket_references);
  g_assert_true(gvc_connection_get_connection(fixture.channel.get()) == fixture.socket.get());
  g_assert_true(in_of(object) == fixture.in.get());
}

/* ---- Making and dropping ---- */

static void
new_channel_exposes_the_sockets_streams()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    LogCapture log;
    const auto pair = new_socket_pair(family);
    const auto channel = own(gvc_connection_new(pair.a.get()));
    g_assert_true(GVC_IS_CONNECTION(channel.get()));
    g_assert_true(gvc_connection_get_connection(channel.get()) == pair.a.get());
    g_assert_true(in_of(channel.get()) == in_of(pair.a.get()));
    g_assert_true(out_of(channel.get()) == out_of(pair.a.get()));

    write_whole(out_of(channel.get()), "to the peer");
    assert_bytes(read_exactly(in_of(pair.b.get()), 11), "to the peer");
    write_whole(out_of(pair.b.get()), "and back");
    assert_bytes(read_exactly(in_of(channel.get()), 8), "and back");
  }
}

static void
channel_holds_one_reference_of_each()
{
  LifeWatch watch;
  {
    Fixture fixture;
    watch.add(fixture.channel.get());
    watch.add(fixture.socket.get());
    watch.add(fixture.in.get());
    watch.add(fixture.out.get());
    assert_refcount(fixture.channel.get(), 1);
    assert_refcount(fixture.socket.get(), 2);
    assert_refcount(fixture.in.get(), 3); /* this test, the socket connection, the channel */
    assert_refcount(fixture.out.get(), 3);

    /* Getters lend. */
    g_assert_true(gvc_connection_get_connection(fixture.channel.get()) == fixture.socket.get());
    g_assert_true(in_of(fixture.channel.get()) == fixture.in.get());
    g_assert_true(out_of(fixture.channel.get()) == fixture.out.get());
    assert_refcount(fixture.socket.get(), 2);
    assert_refcount(fixture.in.get(), 3);
    assert_refcount(fixture.out.get(), 3);

    fixture.channel.reset();
    assert_refcount(fixture.socket.get(), 1);
    assert_refcount(fixture.in.get(), 2);
    assert_refcount(fixture.out.get(), 2);
  }
  watch.assert_all_gone();
}

static void
dispose_lets_go_of_everything_and_may_run_again()
{
  LogCapture log;
  Fixture fixture;
  g_object_run_dispose(G_OBJECT(fixture.channel.get()));
  assert_refcount(fixture.socket.get(), 1);
  assert_refcount(fixture.in.get(), 2);
  assert_refcount(fixture.out.get(), 2);
  g_assert_null(gvc_connection_get_connection(fixture.channel.get()));
  g_assert_null(in_of(fixture.channel.get()));
  g_assert_null(out_of(fixture.channel.get()));
  /* The parent type has had its turn. */
  g_assert_true(g_io_stream_is_closed(G_IO_STREAM(fixture.channel.get())));
  g_object_run_dispose(G_OBJECT(fixture.channel.get()));
  fixture.channel.reset();

  /* The streams were let go of, not closed. */
  g_assert_false(fixture.in_script->closed());
  g_assert_false(fixture.out_script->closed());
}

static void
new_without_connection_complains_and_lives()
{
  LogCapture log;
  const auto complaints = {
      critical("GLib-GIO",
               "g_io_stream_get_input_stream: assertion 'G_IS_IO_STREAM (stream)' failed"),
      critical("GLib-GIO",
               "g_io_stream_get_output_stream: assertion 'G_IS_IO_STREAM (stream)' failed")};
  Error error;

  const auto channel = own(gvc_connection_new(nullptr));
  log.expect(complaints);
  g_assert_nonnull(channel.get());
  g_assert_null(gvc_connection_get_connection(channel.get()));
  g_assert_null(in_of(channel.get()));
  g_assert_null(out_of(channel.get()));
  log.expect_none();
  g_assert_true(g_io_stream_close(G_IO_STREAM(channel.get()), nullptr, &error));
  error.assert_none();

  /* Without any property, and closed asynchronously. */
  const auto bare = own(G_IO_STREAM(g_object_new(GVC_TYPE_CONNECTION, nullptr)));
  log.expect(complaints);
  Collector collector;
  g_io_stream_close_async(bare.get(), 0, nullptr, Collector::ready, &collector);
  g_assert_true(g_io_stream_close_finish(bare.get(), collector.wait(), &error));
  error.assert_none();
}

static void
converters_on_a_channel_without_connection_do_nothing()
{
  LogCapture log;
  const auto channel = own(gvc_connection_new(nullptr));
  log.take();
  const auto in_conv = identity();
  const auto out_conv = identity();
  gvc_connection_add_converters(channel.get(), in_conv.get(), out_conv.get());
  /* Which criticals GIO prints is its own business. */
  for (const auto &message : log.take())
    g_assert_true(message.domain == "GLib-GIO");
  g_assert_null(in_of(channel.get()));
  g_assert_null(out_of(channel.get()));
  assert_refcount(in_conv.get(), 1);
  assert_refcount(out_conv.get(), 1);
  g_assert_true(g_io_stream_close(G_IO_STREAM(channel.get()), nullptr, nullptr));
}

static void
new_with_another_kind_of_stream_is_refused_by_the_property()
{
  const Fixture fixture;
  const auto simple = own(g_simple_io_stream_new(fixture.in.get(), fixture.out.get()));
  LogCapture log;
  const auto channel = own(gvc_connection_new(reinterpret_cast<GSocketConnection *>(simple.get())));
  const auto messages = log.take();
  g_assert_cmpuint(messages.size(), ==, 3);
  g_assert_true(messages[0].domain == "GLib-GObject");
  g_assert_true(messages[1].domain == "GLib-GIO");
  g_assert_true(messages[2].domain == "GLib-GIO");
  g_assert_null(gvc_connection_get_connection(channel.get()));
  assert_refcount(simple.get(), 1);
}

static void
get_connection_refuses_other_objects()
{
  const Fixture fixture;
  LogCapture log;
  const auto message =
      failed_check("gvc_connection_get_connection", "GVC_IS_CONNECTION(connection)");
  g_assert_null(gvc_connection_get_connection(nullptr));
  log.expect({message});
  g_assert_null(
      gvc_connection_get_connection(reinterpret_cast<GvcConnection *>(fixture.socket.get())));
  log.expect({message});
}

/* ---- Nagle's algorithm ---- */

static void
tcp_sockets_send_without_delay()
{
  for (const auto family : {Family::tcp4, Family::tcp6}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    LogCapture log;
    const auto pair = new_socket_pair(family);
    if (glib_check_version(2, 80, 0) != nullptr) {
      g_assert_cmpint(nodelay(pair.a.get()), ==, 0);
      g_assert_cmpint(nodelay(pair.b.get()), ==, 0);
    }
    const auto channel = own(gvc_connection_new(pair.a.get()));
    g_assert_cmpint(nodelay(pair.a.get()), ==, 1);
  }
}

/* Only TCP sockets get the options of TCP. */
static void
datagram_sockets_are_left_alone()
{
  Error error;
  LogCapture log;
  const auto socket = own(
      g_socket_new(G_SOCKET_FAMILY_IPV4, G_SOCKET_TYPE_DATAGRAM, G_SOCKET_PROTOCOL_UDP, &error));
  error.assert_none();
  const auto plain = own(g_socket_connection_factory_create_connection(socket.get()));
  const auto channel = own(gvc_connection_new(plain.get()));
  g_assert_true(gvc_connection_get_connection(channel.get()) == plain.get());
  int option;
  g_assert_false(g_socket_get_option(socket.get(), IPPROTO_TCP, TCP_NODELAY, &option, nullptr));
}

static void
host_can_have_nagle_back()
{
  const auto pair = new_socket_pair(Family::tcp4);
  const auto channel = own(gvc_connection_new(pair.a.get()));
  g_assert_true(g_socket_set_option(g_socket_connection_get_socket(pair.a.get()), IPPROTO_TCP,
                                    TCP_NODELAY, FALSE, nullptr));
  gvc_connection_add_converters(channel.get(), identity().get(), identity().get());
  write_whole(out_of(channel.get()), "x");
  g_assert_cmpint(nodelay(pair.a.get()), ==, 0);
}

/* The options of a Unix socket that could be touched by mistake, before and after. */
static void
unix_sockets_are_left_alone()
{
  const auto pair = new_socket_pair(Family::unix_domain);
  GSocket *const socket = g_socket_connection_get_socket(pair.a.get());
  const auto options = [socket] {
    std::vector<int> values;
    for (const int option : {SO_KEEPALIVE, SO_SNDBUF, SO_RCVBUF, SO_LINGER, SO_PRIORITY}) {
      int value = -1;
      g_socket_get_option(socket, SOL_SOCKET, option, &value, nullptr);
      values.push_back(value);
    }
    int nagle = -1;
    values.push_back(g_socket_get_option(socket, IPPROTO_TCP, TCP_NODELAY, &nagle, nullptr));
    values.push_back(nagle);
    values.push_back(g_socket_get_blocking(socket));
    values.push_back(static_cast<int>(g_socket_get_timeout(socket)));
    return values;
  };
  const auto before = options();
  LogCapture log;
  const auto channel = own(gvc_connection_new(pair.a.get()));
  g_assert_true(options() == before);
}

/* ---- Converters ---- */

static void
converters_wrap_the_current_streams()
{
  LogCapture log;
  const Fixture fixture;
  const auto in_conv = identity();
  const auto out_conv = identity();
  gvc_connection_add_converters(fixture.channel.get(), in_conv.get(), out_conv.get());

  GInputStream *const in = in_of(fixture.channel.get());
  GOutputStream *const out = out_of(fixture.channel.get());
  g_assert_true(G_IS_CONVERTER_INPUT_STREAM(in));
  g_assert_true(G_IS_CONVERTER_OUTPUT_STREAM(out));
  g_assert_true(g_filter_input_stream_get_base_stream(G_FILTER_INPUT_STREAM(in)) ==
                fixture.in.get());
  g_assert_true(g_filter_output_stream_get_base_stream(G_FILTER_OUTPUT_STREAM(out)) ==
                fixture.out.get());
  g_assert_true(g_converter_input_stream_get_converter(G_CONVERTER_INPUT_STREAM(in)) ==
                in_conv.get());
  g_assert_true(g_converter_output_stream_get_converter(G_CONVERTER_OUTPUT_STREAM(out)) ==
                out_conv.get());
  g_assert_true(g_filter_input_stream_get_close_base_stream(G_FILTER_INPUT_STREAM(in)));
  g_assert_true(g_filter_output_stream_get_close_base_stream(G_FILTER_OUTPUT_STREAM(out)));
  g_assert_true(gvc_connection_get_connection(fixture.channel.get()) == fixture.socket.get());

  /* Once more: around what is there now. */
  gvc_connection_add_converters(fixture.channel.get(), out_conv.get(), in_conv.get());
  g_assert_true(g_filter_input_stream_get_base_stream(
                    G_FILTER_INPUT_STREAM(in_of(fixture.channel.get()))) == in);
  g_assert_true(g_filter_output_stream_get_base_stream(
                    G_FILTER_OUTPUT_STREAM(out_of(fixture.channel.get()))) == out);
  g_assert_true(gvc_connection_get_connection(fixture.channel.get()) == fixture.socket.get());
}

/* Skipping drops converted bytes, not bytes of the socket. */
static void
skips_count_converted_bytes()
{
  Fixture fixture;
  const Ref<GConverter> in_conv(G_CONVERTER(gvc_decompressor_new()));
  const Ref<GConverter> out_conv(G_CONVERTER(gvc_compressor_new()));
  gvc_connection_add_converters(fixture.channel.get(), in_conv.get(), out_conv.get());
  Error error;
  g_assert_true(g_output_stream_write_all(out_of(fixture.channel.get()), "0123456789", 10, nullptr,
                                          nullptr, &error));
  fixture.in_script->data = fixture.out_script->written();

  g_assert_cmpint(g_input_stream_skip(in_of(fixture.channel.get()), 4, nullptr, &error), ==, 4);
  error.assert_none();
  char rest[6];
  g_assert_cmpint(
      g_input_stream_read(in_of(fixture.channel.get()), rest, sizeof rest, nullptr, &error), ==, 6);
  error.assert_none();
  assert_bytes({rest, sizeof rest}, "456789");
}

static void
converters_and_streams_have_the_references_they_need()
{
  LifeWatch watch;
  {
    Fixture fixture;
    const auto in_conv = identity();
    const auto out_conv = identity();
    watch.add(in_conv.get());
    watch.add(out_conv.get());
    gvc_connection_add_converters(fixture.channel.get(), in_conv.get(), out_conv.get());
    assert_refcount(in_conv.get(), 2);
    assert_refcount(out_conv.get(), 2);
    /* This test, the socket connection, the converter stream in place of the channel. */
    assert_refcount(fixture.in.get(), 3);
    assert_refcount(fixture.out.get(), 3);
    assert_refcount(in_of(fixture.channel.get()), 1);
    assert_refcount(out_of(fixture.channel.get()), 1);
    watch.add(in_of(fixture.channel.get()));
    watch.add(out_of(fixture.channel.get()));

    gvc_connection_add_converters(fixture.channel.get(), identity().get(), identity().get());
    assert_refcount(in_of(fixture.channel.get()), 1);
    assert_refcount(out_of(fixture.channel.get()), 1);
    watch.add(in_of(fixture.channel.get()));
    watch.add(out_of(fixture.channel.get()));

    assert_refcount(fixture.channel.get(), 1);
    fixture.channel.reset();
    assert_refcount(in_conv.get(), 1);
    assert_refcount(out_conv.get(), 1);
    assert_refcount(fixture.in.get(), 2);
    assert_refcount(fixture.out.get(), 2);
  }
  watch.assert_all_gone();
}

static void
refused_converters_change_nothing()
{
  const Fixture fixture;
  GvcConnection *const channel = fixture.channel.get();
  const auto good = identity();
  GConverter *const bad = reinterpret_cast<GConverter *>(fixture.socket.get());
  const auto message = [](const char *expression) {
    return failed_check("gvc_connection_add_converters", expression);
  };
  const auto not_channel = message("GVC_IS_CONNECTION(connection)");
  const auto not_in = message("G_IS_CONVERTER(in_conv)");
  const auto not_out = message("G_IS_CONVERTER(out_conv)");
  LogCapture log;

  gvc_connection_add_converters(nullptr, good.get(), good.get());
  log.expect({not_channel});
  gvc_connection_add_converters(reinterpret_cast<GvcConnection *>(fixture.socket.get()), good.get(),
                                good.get());
  log.expect({not_channel});
  gvc_connection_add_converters(channel, nullptr, good.get());
  log.expect({not_in});
  gvc_connection_add_converters(channel, bad, good.get());
  log.expect({not_in});
  gvc_connection_add_converters(channel, good.get(), nullptr);
  log.expect({not_out});
  gvc_connection_add_converters(channel, good.get(), bad);
  log.expect({not_out});
  /* Only the first failure is reported. */
  gvc_connection_add_converters(nullptr, nullptr, nullptr);
  log.expect({not_channel});
  gvc_connection_add_converters(channel, nullptr, nullptr);
  log.expect({not_in});

  g_assert_true(in_of(channel) == fixture.in.get());
  g_assert_true(out_of(channel) == fixture.out.get());
  assert_refcount(fixture.in.get(), 3);
  assert_refcount(fixture.out.get(), 3);
  assert_refcount(good.get(), 1);
}

static void
streams_fetched_earlier_stay_unconverted()
{
  RawPeer peer(Family::unix_domain);
  const auto channel = own(gvc_connection_new(peer.connection()));
  GInputStream *const bare_in = in_of(channel.get());
  GOutputStream *const bare_out = out_of(channel.get());
  gvc_connection_add_converters(channel.get(), adding(1).get(), adding(1).get());

  write_whole(bare_out, "abc");
  write_whole(out_of(channel.get()), "abc");
  assert_bytes(peer.receive(6), "abcbcd");
  peer.send("xyz");
  assert_bytes(read_exactly(bare_in, 3), "xyz");
  peer.send("abc");
  assert_bytes(read_exactly(in_of(channel.get()), 3), "bcd");
}

/* Adding and flipping do not commute, so the order shows in the bytes. */
static void
latest_converters_are_nearest_to_the_caller()
{
  for (const auto family : {Family::tcp4, Family::tcp6, Family::unix_domain}) {
    if (family == Family::tcp6 && !have_ipv6())
      continue;
    RawPeer peer(family);
    const auto channel = own(gvc_connection_new(peer.connection()));
    gvc_connection_add_converters(channel.get(), adding(7).get(), adding(9).get());
    gvc_connection_add_converters(channel.get(), flipping().get(), flipping().get());

    const auto message = pattern(1000);
    write_whole(out_of(channel.get()), message);
    assert_bytes(peer.receive(1000),
                 mapped(message, [](guint8 c) { return static_cast<guint8>(~c + 9); }));
    peer.send(message);
    assert_bytes(read_exactly(in_of(channel.get()), 1000),
                 mapped(message, [](guint8 c) { return static_cast<guint8>(~(c + 7)); }));
  }
}

static void
mirrored_stages_on_both_ends_understand_each_other()
{
  const auto pair = new_socket_pair(Family::tcp4);
  const auto near = own(gvc_connection_new(pair.a.get()));
  const auto far = own(gvc_connection_new(pair.b.get()));
  for (auto *channel : {near.get(), far.get()}) {
    gvc_connection_add_converters(channel, adding(256 - 33).get(), adding(33).get());
    gvc_connection_add_converters(channel, flipping().get(), flipping().get());
  }
  const auto there = pattern(5000, 1);
  const auto back = pattern(5000, 2);
  write_whole(out_of(near.get()), there);
  assert_bytes(read_exactly(in_of(far.get()), 5000), there);
  write_whole(out_of(far.get()), back);
  assert_bytes(read_exactly(in_of(near.get()), 5000), back);
}

/* ---- Closing ---- */

static void
close_closes_input_then_output_and_not_the_socket()
{
  LogCapture log;
  const auto pair = new_socket_pair(Family::tcp4);
  const auto channel = own(gvc_connection_new(pair.a.get()));
  gvc_connection_add_converters(channel.get(), identity().get(), identity().get());
  GInputStream *const in = in_of(channel.get());
  GOutputStream *const out = out_of(channel.get());
  Error error;
  g_assert_true(g_io_stream_close(G_IO_STREAM(channel.get()), nullptr, &error));
  error.assert_none();
  g_assert_true(g_io_stream_is_closed(G_IO_STREAM(channel.get())));
  g_assert_true(g_input_stream_is_closed(in));
  g_assert_true(g_output_stream_is_closed(out));
  /* Through the stages, the socket's own streams. */
  g_assert_true(g_input_stream_is_closed(in_of(pair.a.get())));
  g_assert_true(g_output_stream_is_closed(out_of(pair.a.get())));

  g_assert_false(g_io_stream_is_closed(G_IO_STREAM(pair.a.get())));
  g_assert_false(g_socket_is_closed(g_socket_connection_get_socket(pair.a.get())));
  g_assert_true(g_socket_is_connected(g_socket_connection_get_socket(pair.a.get())));
}

static void
close_passes_the_cancellable_and_keeps_the_order()
{
  const Fixture fixture;
  const auto cancellable = own(g_cancellable_new());
  Error error;
  g_assert_true(g_io_stream_close(fixture.stream(), cancellable.get(), &error));
  error.assert_none();
  const auto in_closes = fixture.in_script->calls(Call::Kind::close);
  const auto out_closes = fixture.out_script->calls(Call::Kind::close);
  g_assert_cmpuint(in_closes.size(), ==, 1);
  g_assert_cmpuint(out_closes.size(), ==, 1);
  g_assert_cmpuint(in_closes[0].sequence, <, out_closes[0].sequence);
  g_assert_true(in_closes[0].cancellable == cancellable.get());
  g_assert_true(out_closes[0].cancellable == cancellable.get());

  /* A second close finds nothing left to do. */
  g_assert_true(g_io_stream_close(fixture.stream(), nullptr, &error));
  error.assert_none();
  g_assert_cmpuint(fixture.in_script->calls(Call::Kind::close).size(), ==, 1);
  g_assert_cmpuint(fixture.out_script->calls(Call::Kind::close).size(), ==, 1);
}

static void
failing_input_close_leaves_the_output_open()
{
  for (const bool async : {false, true}) {
    const Fixture fixture;
    fixture.in_script->close_failure = "input does not close";
    fixture.out_script->close_failure = "output does not close";
    Error error;
    g_assert_false(close_channel(fixture.stream(), async, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, "input does not close");
    g_assert_false(g_output_stream_is_closed(fixture.out.get()));
    g_assert_false(fixture.out_script->closed());
    /* Still open indeed. */
    write_whole(fixture.out.get(), "more");
    assert_bytes(fixture.out_script->written(), "more");
  }
}

static void
failing_output_close_is_reported()
{
  for (const bool async : {false, true}) {
    const Fixture fixture;
    fixture.out_script->close_failure = "output does not close";
    Error error;
    g_assert_false(close_channel(fixture.stream(), async, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, "output does not close");
    g_assert_true(fixture.in_script->closed());
    g_assert_true(fixture.out_script->closed());
  }
}

static void
close_with_a_read_in_progress_fails_as_pending()
{
  for (const bool async : {false, true}) {
    const Fixture fixture;
    fixture.in_script->steps = {Step::hold()};
    Collector read;
    char byte;
    g_input_stream_read_async(in_of(fixture.stream()), &byte, 1, 0, nullptr, Collector::ready,
                              &read);
    Error error;
    g_assert_false(close_channel(fixture.stream(), async, error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PENDING);
    g_assert_false(fixture.in_script->closed());
    g_assert_false(g_output_stream_is_closed(fixture.out.get()));
    fixture.in_script->resume();
    read.wait();
  }
}

static void
close_async_closes_at_once_and_calls_back_later()
{
  for (const int priority : {G_PRIORITY_HIGH, G_PRIORITY_DEFAULT, G_PRIORITY_LOW, -4711, 4711}) {
    LogCapture log;
    LifeWatch watch;
    Fixture fixture;
    Collector collector;
    g_io_stream_close_async(fixture.stream(), priority, nullptr, Collector::ready, &collector);

    /* Closes within the call, on this thread. The callback comes afterwards. */
    const auto in_closes = fixture.in_script->calls(Call::Kind::close);
    const auto out_closes = fixture.out_script->calls(Call::Kind::close);
    g_assert_cmpuint(in_closes.size(), ==, 1);
    g_assert_cmpuint(out_closes.size(), ==, 1);
    g_assert_true(in_closes[0].thread == g_thread_self());
    g_assert_true(out_closes[0].thread == g_thread_self());
    g_assert_cmpuint(collector.calls(), ==, 0);

    Error error;
    watch.add(collector.wait());
    g_assert_true(collector.source() == G_OBJECT(fixture.channel.get()));
    g_assert_true(g_io_stream_close_finish(fixture.stream(), collector.result(), &error));
    error.assert_none();
    g_assert_true(g_io_stream_is_closed(fixture.stream()));

    collector.clear();
    watch.assert_all_gone();
    assert_refcount_becomes(fixture.channel.get(), 1);
  }
}

static void
close_async_completes_in_the_context_of_its_thread()
{
  run_in_thread([] {
    const Fixture fixture;
    Collector collector;
    g_io_stream_close_async(fixture.stream(), 0, nullptr, Collector::ready, &collector);
    /* The context of the main thread does not get it. */
    while (g_main_context_iteration(nullptr, FALSE))
      ;
    g_assert_cmpuint(collector.calls(), ==, 0);
    Error error;
    g_assert_true(g_io_stream_close_finish(fixture.stream(), collector.wait(), &error));
    error.assert_none();
    g_assert_true(collector.thread() == g_thread_self());
  });
}

static void
cancelled_close_async_closes_and_reports_the_cancellation()
{
  const Fixture fixture;
  const auto cancellable = own(g_cancellable_new());
  g_cancellable_cancel(cancellable.get());
  Collector collector;
  g_io_stream_close_async(fixture.stream(), 0, cancellable.get(), Collector::ready, &collector);
  Error error;
  g_assert_false(g_io_stream_close_finish(fixture.stream(), collector.wait(), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
  g_assert_true(fixture.in_script->closed());
  g_assert_true(fixture.out_script->closed());
}

/* ---- A channel type that closes in its own way ---- */

static void
close_async_honours_a_derived_close()
{
  own_closes = 0;
  const Fixture fixture(own_close_get_type());
  Error error;
  g_assert_false(close_channel(fixture.stream(), true, error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_BUSY, "closes in its own way");
  g_assert_cmpuint(own_closes, ==, 1);
  g_assert_false(fixture.in_script->closed());
  g_assert_false(fixture.out_script->closed());
}

static void
close_finish_takes_any_task()
{
  const Fixture fixture;
  const auto klass = G_IO_STREAM_GET_CLASS(fixture.stream());
  LogCapture log;
  Error error;
  const auto good = own(g_task_new(fixture.in.get(), nullptr, nullptr, nullptr));
  g_task_return_boolean(good.get(), TRUE);
  g_assert_true(klass->close_finish(fixture.stream(), G_ASYNC_RESULT(good.get()), &error));
  error.assert_none();
  const auto bad = own(g_task_new(fixture.in.get(), nullptr, nullptr, nullptr));
  g_task_return_new_error(bad.get(), G_IO_ERROR, G_IO_ERROR_BUSY, "busy");
  g_assert_false(klass->close_finish(fixture.stream(), G_ASYNC_RESULT(bad.get()), &error));
  error.assert_is(G_IO_ERROR, G_IO_ERROR_BUSY, "busy");
}

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
#define TEST(path, function) g_test_add_func("/connection/" path, function)
  TEST("converters/skips-count-converted-bytes", skips_count_converted_bytes);
  TEST("type/is-a-plain-io-stream", type_is_a_plain_io_stream);
  TEST("type/overrides-what-a-channel-needs", type_overrides_what_a_channel_needs);
  TEST("type/can-be-registered-from-many-threads", type_can_be_registered_from_many_threads);
  TEST("property/only-one-is-the-connection", only_property_is_the_connection);
  TEST("property/reads-back-with-a-reference", connection_property_reads_back_with_a_reference);
  TEST("property/cannot-be-replaced", connection_property_cannot_be_replaced);
  TEST("property/unknown-ids-are-warned-about", unknown_property_ids_are_warned_about);
  TEST("new/exposes-the-sockets-streams", new_channel_exposes_the_sockets_streams);
  TEST("new/holds-one-reference-of-each", channel_holds_one_reference_of_each);
  TEST("new/without-connection-complains-and-lives", new_without_connection_complains_and_lives);
  TEST("new/with-another-kind-of-stream-is-refused-by-the-property",
       new_with_another_kind_of_stream_is_refused_by_the_property);
  TEST("dispose/lets-go-of-everything-and-may-run-again",
       dispose_lets_go_of_everything_and_may_run_again);
  TEST("get-connection/refuses-other-objects", get_connection_refuses_other_objects);
  TEST("nagle/tcp-sockets-send-without-delay", tcp_sockets_send_without_delay);
  TEST("nagle/host-can-have-it-back", host_can_have_nagle_back);
  TEST("nagle/datagram-sockets-are-left-alone", datagram_sockets_are_left_alone);
  TEST("nagle/unix-sockets-are-left-alone", unix_sockets_are_left_alone);
  TEST("converters/wrap-the-current-streams", converters_wrap_the_current_streams);
  TEST("converters/and-streams-have-the-references-they-need",
       converters_and_streams_have_the_references_they_need);
  TEST("converters/refused-ones-change-nothing", refused_converters_change_nothing);
  TEST("converters/streams-fetched-earlier-stay-unconverted",
       streams_fetched_earlier_stay_unconverted);
  TEST("converters/latest-are-nearest-to-the-caller", latest_converters_are_nearest_to_the_caller);
  TEST("converters/mirrored-stages-on-both-ends-understand-each-other",
       mirrored_stages_on_both_ends_understand_each_other);
  TEST("converters/on-a-channel-without-connection-do-nothing",
       converters_on_a_channel_without_connection_do_nothing);
  TEST("close/closes-both-streams-and-not-the-socket",
       close_closes_input_then_output_and_not_the_socket);
  TEST("close/passes-the-cancellable-and-keeps-the-order",
       close_passes_the_cancellable_and_keeps_the_order);
  TEST("close/failing-input-leaves-the-output-open", failing_input_close_leaves_the_output_open);
  TEST("close/failing-output-is-reported", failing_output_close_is_reported);
  TEST("close/with-a-read-in-progress-fails-as-pending",
       close_with_a_read_in_progress_fails_as_pending);
  TEST("close-async/closes-at-once-and-calls-back-later",
       close_async_closes_at_once_and_calls_back_later);
  TEST("close-async/completes-in-the-context-of-its-thread",
       close_async_completes_in_the_context_of_its_thread);
  TEST("close-async/cancelled-closes-and-reports-the-cancellation",
       cancelled_close_async_closes_and_reports_the_cancellation);
  TEST("close-async/honours-a-derived-close", close_async_honours_a_derived_close);
  TEST("close-finish/takes-any-task", close_finish_takes_any_task);
  return g_test_run();
}
