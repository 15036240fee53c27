// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole channels, end to end: sockets, stages and messages together.
//
// With --peer the program is the other end of a channel, in a process of its own.
#include "tests/support/blocks.h"
#include "tests/support/convert.h"
#include "tests/support/records.h"
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <gio/gunixsocketaddress.h>
#include <glib/gstdio.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

using namespace support;

namespace
{

constexpr gsize mib = 1 << 20;

/* ---- Stages ---- */

enum class Stage { compression, encryption_128, encryption_256 };

// In the order in which they are added to a connection: the last one is nearest to the caller.
struct Stages {
  const char *name;
  std::vector<Stage> list;
};

const Stages all_stages[] = {
    {"plain", {}},
    {"compressed", {Stage::compression}},
    {"encrypted-128", {Stage::encryption_128}},
    {"encrypted-256", {Stage::encryption_256}},
    {"compressed-then-encrypted-128", {Stage::encryption_128, Stage::compression}},
    {"compressed-then-encrypted-256", {Stage::encryption_256, Stage::compression}},
    {"encrypted-128-then-compressed", {Stage::compression, Stage::encryption_128}},
    {"encrypted-256-then-compressed", {Stage::compression, Stage::encryption_256}},
};

Bytes
test_key()
{
  return sample(Kind::noise, 32, 4711);
}

void
add_stage(GvcConnection *connection, Stage stage)
{
  if (stage == Stage::compression) {
    const auto in = own(gvc_decompressor_new());
    const auto out = own(gvc_compressor_new());
    gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
    return;
  }
  const Bytes key = test_key();
  const BytesRef bytes{g_bytes_new(key.data(), key.size())};
  const auto in = own(gvc_decryptor_new(bytes.get()));
  const auto out = own(gvc_encryptor_new(bytes.get()));
  const guint bits = stage == Stage::encryption_128 ? 128 : 256;
  gvc_decryptor_set_key_length(in.get(), bits);
  gvc_encryptor_set_key_length(out.get(), bits);
  gvc_connection_add_converters(connection, G_CONVERTER(in.get()), G_CONVERTER(out.get()));
}

// One end of a channel, as a host builds it.
struct End {
  Ref<GvcConnection> connection;
  Ref<GvcBytesInputStream> in;
  Ref<GvcBytesOutputStream> out;
  Ref<GvcDataInputStream> strings;

  End(GSocketConnection *socket_connection, const Stages &stages)
      : connection{gvc_connection_new(socket_connection)}
  {
    for (Stage stage : stages.list)
      add_stage(connection.get(), stage);
    GInputStream *base = g_io_stream_get_input_stream(G_IO_STREAM(connection.get()));
    in.reset(gvc_bytes_input_stream_new(base));
    strings.reset(gvc_data_input_stream_new(base));
    out.reset(
        gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(connection.get()))));
  }

  void
  close()
  {
    Error error;
    g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, &error);
    error.assert_none();
  }

  // After the peer has closed: a compressor's last block may have nowhere to go.
  void
  close_as_second()
  {
    g_io_stream_close(G_IO_STREAM(connection.get()), nullptr, nullptr);
  }

  void
  watch(LifeWatch &lives)
  {
    lives.add(connection.get());
    lives.add(gvc_connection_get_connection(connection.get()));
    lives.add(g_io_stream_get_input_stream(G_IO_STREAM(connection.get())));
    lives.add(g_io_stream_get_output_stream(G_IO_STREAM(connection.get())));
    lives.add(in.get());
    lives.add(out.get());
    lives.add(strings.get());
  }
};

/* ---- Messages ---- */

enum class Form { bytes, variant, string };

struct Message {
  Form form;
  gsize size;
};

// No payload of a string holds it.
constexpr char string_end = '\xff';

// The same on both ends.
const Bytes &
payload(const Message &message)
{
  static std::map<std::pair<bool, gsize>, Bytes> made;
  static std::mutex mutex;
  const std::lock_guard lock{mutex};
  const bool is_text = message.form == Form::string;
  Bytes &bytes = made[{is_text, message.size}];
  if (bytes.empty())
    bytes = sample(is_text ? Kind::text : Kind::mixture, message.size, message.size);
  return bytes;
}

BytesRef
payload_bytes(const Message &message)
{
  const Bytes &data = payload(message);
  return BytesRef{g_bytes_new(data.data(), data.size())};
}

constexpr char variant_type[] = "(sxay)";

VariantRef
payload_variant(const Message &message)
{
  const Bytes &data = payload(message);
  return VariantRef{g_variant_ref_sink(
      g_variant_new("(sx@ay)", "a message", gint64{-5} - static_cast<gint64>(data.size()),
                    g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, data.data(), data.size(), 1)))};
}

Bytes
payload_string(const Message &message)
{
  Bytes data = payload(message);
  data.push_back(static_cast<guint8>(string_end));
  return data;
}

void
assert_bytes_message(const Message &message, GBytes *bytes)
{
  gsize size = 0;
  const void *data = g_bytes_get_data(bytes, &size);
  const Bytes &expected = payload(message);
  g_assert_cmpmem(data, size, expected.data(), expected.size());
}

void
assert_variant_message(const Message &message, GVariant *received)
{
  g_assert_true(g_variant_is_floating(received));
  const VariantRef variant{g_variant_ref_sink(received)};
  g_assert_true(g_variant_is_normal_form(variant.get()));
  const char *text = nullptr;
  gint64 number = 0;
  g_autoptr(GVariant) array = nullptr;
  g_variant_get(variant.get(), "(&sx@ay)", &text, &number, &array);
  gsize size = 0;
  const void *data = g_variant_get_fixed_array(array, &size, 1);
  const Bytes &expected = payload(message);
  g_assert_cmpstr(text, ==, "a message");
  g_assert_cmpint(number, ==, gint64{-5} - static_cast<gint64>(expected.size()));
  g_assert_cmpmem(data, size, expected.data(), expected.size());
}

void
assert_string_message(const Message &message, const char *string, gsize length)
{
  const Bytes expected = payload_string(message);
  g_assert_cmpmem(string, length, expected.data(), expected.size());
}

void
put(End &end, const Message &message)
{
  Error error;
  gboolean done = FALSE;
  switch (message.form) {
  case Form::bytes:
    done = gvc_bytes_output_stream_put_bytes(end.out.get(), payload_bytes(message).get(), nullptr,
                                             &error);
    break;
  case Form::variant:
    done = gvc_bytes_output_stream_put_variant(end.out.get(), payload_variant(message).get(),
                                               nullptr, &error);
    break;
  case Form::string: {
    const Bytes data = payload_string(message);
    done =
        g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(end.connection.get())),
                                  data.data(), data.size(), nullptr, nullptr, &error);
    break;
  }
  }
  error.assert_none();
  g_assert_true(done);
  // A converter stream may hold the end of a write back until it is flushed.
  g_assert_true(g_output_stream_flush(G_OUTPUT_STREAM(end.out.get()), nullptr, &error));
}

void
get(End &end, const Message &message)
{
  Error error;
  switch (message.form) {
  case Form::bytes: {
    const BytesRef bytes{gvc_bytes_input_stream_read_bytes(end.in.get(), nullptr, &error)};
    error.assert_none();
    assert_bytes_message(message, bytes.get());
    break;
  }
  case Form::variant: {
    GVariant *variant =
        gvc_bytes_input_stream_read_variant(end.in.get(), variant_type, nullptr, &error);
    error.assert_none();
    assert_variant_message(message, variant);
    break;
  }
  case Form::string: {
    gsize length = 0;
    const Mem<char> string{
        gvc_data_input_stream_read_string(end.strings.get(), string_end, &length, nullptr, &error)};
    error.assert_none();
    assert_string_message(message, string.get(), length);
    break;
  }
  }
}

// The error of a reader whose peer has closed. On a staged channel the header of the next block or
// record is missing.
void
assert_channel_end(const Stages &stages, Error &error)
{
  if (stages.list.empty())
    error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
  else
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT, "Partial header");
}

void
get_end(End &end, const Stages &stages)
{
  Error error;
  g_assert_null(gvc_bytes_input_stream_read_bytes(end.in.get(), nullptr, &error));
  assert_channel_end(stages, error);
}

const std::vector<Message> conversation = {
    {Form::bytes, 1},         {Form::variant, 0},      {Form::string, 0},    {Form::bytes, 3},
    {Form::bytes, 4},         {Form::string, 1},       {Form::variant, 17},  {Form::bytes, 1000},
    {Form::string, 1023},     {Form::string, 1024},    {Form::bytes, 4095},  {Form::bytes, 4096},
    {Form::variant, 65536},   {Form::string, 20000},   {Form::bytes, 65537}, {Form::bytes, mib + 3},
    {Form::variant, mib - 1}, {Form::bytes, 16 * mib},
};

// Says each message and hears it said back.
void
speak_first(End &end)
{
  for (const Message &message : conversation) {
    put(end, message);
    get(end, message);
  }
}

void
answer(End &end)
{
  for (const Message &message : conversation) {
    get(end, message);
    put(end, message);
  }
}

struct Case {
  Family family;
  const Stages *stages;
};

const char *program;

int
peer_main(const char *family, const char *address, const char *stages_name)
{
  const auto stages =
      std::find_if(std::begin(all_stages), std::end(all_stages),
                   [stages_name](const Stages &one) { return strcmp(one.name, stages_name) == 0; });
  g_assert_true(stages != std::end(all_stages));
  gvc_init();
  const auto to =
      strcmp(family, "unix") == 0
          ? own(static_cast<GSocketAddress *>(g_unix_socket_address_new(address)))
          : own(g_inet_socket_address_new_from_string(
                "127.0.0.1", static_cast<guint>(g_ascii_strtoull(address, nullptr, 10))));
  const auto client = own(g_socket_client_new());
  Error error;
  const auto socket_connection =
      own(g_socket_client_connect(client.get(), G_SOCKET_CONNECTABLE(to.get()), nullptr, &error));
  error.assert_none();
  End end{socket_connection.get(), *stages};
  answer(end);
  end.close();
  return 0;
}

// Sends messages one after the other.
class Sender
{
public:
  Sender(End &end, std::vector<Message> messages) : end_{end}, messages_{std::move(messages)} {}
  Sender(const Sender &) = delete;

  bool
  done() const
  {
    return next_ == messages_.size();
  }

  void
  start()
  {
    if (done())
      return;
    const Message &message = messages_[next_];
    calling_ = true;
    switch (message.form) {
    case Form::bytes:
      gvc_bytes_output_stream_put_bytes_async(end_.out.get(), payload_bytes(message).get(),
                                              G_PRIORITY_DEFAULT, nullptr, ready, this);
      break;
    case Form::variant:
      gvc_bytes_output_stream_put_variant_async(end_.out.get(), payload_variant(message).get(),
                                                G_PRIORITY_DEFAULT, nullptr, ready, this);
      break;
    case Form::string:
      string_ = payload_string(message);
      gvc_output_stream_util_write_all_async(G_OUTPUT_STREAM(end_.out.get()), string_.data(),
                                             string_.size(), G_PRIORITY_DEFAULT, nullptr, ready,
                                             this);
      break;
    }
    calling_ = false;
  }

private:
  static void
  ready(GObject *source, GAsyncResult *result, gpointer data)
  {
    auto *self = static_cast<Sender *>(data);
    g_assert_false(self->calling_);
    g_assert_true(source == G_OBJECT(self->end_.out.get()));
    Error error;
    gsize written = 0;
    switch (self->messages_[self->next_].form) {
    case Form::bytes:
      g_assert_true(gvc_bytes_output_stream_put_bytes_finish(self->end_.out.get(), result, &error));
      break;
    case Form::variant:
      g_assert_true(
          gvc_bytes_output_stream_put_variant_finish(self->end_.out.get(), result, &error));
      break;
    case Form::string:
      g_assert_true(gvc_output_stream_util_write_all_finish(G_OUTPUT_STREAM(source), result,
                                                            &written, &error));
      g_assert_cmpuint(written, ==, self->string_.size());
      break;
    }
    error.assert_none();
    self->next_++;
    self->start();
  }

  End &end_;
  std::vector<Message> messages_;
  gsize next_ = 0;
  Bytes string_;
  bool calling_ = false;
};

// Receives messages one after the other, and then the end of the channel where one is expected.
class Receiver
{
public:
  Receiver(End &end, std::vector<Message> messages, const Stages *end_of = nullptr)
      : end_{end}, messages_{std::move(messages)}, end_of_{end_of}
  {
  }
  Receiver(const Receiver &) = delete;

  bool
  done() const
  {
    return next_ == messages_.size() + (end_of_ ? 1 : 0);
  }

  void
  start()
  {
    if (done())
      return;
    calling_ = true;
    switch (form()) {
    case Form::bytes:
      gvc_bytes_input_stream_read_bytes_async(end_.in.get(), G_PRIORITY_DEFAULT, nullptr, ready,
                                              this);
      break;
    case Form::variant:
      gvc_bytes_input_stream_read_variant_async(end_.in.get(), variant_type, G_PRIORITY_DEFAULT,
                                                nullptr, ready, this);
      break;
    case Form::string:
      gvc_data_input_stream_read_string_async(end_.strings.get(), string_end, G_PRIORITY_DEFAULT,
                                              nullptr, ready, this);
      break;
    }
    calling_ = false;
  }

private:
  Form
  form() const
  {
    return next_ < messages_.size() ? messages_[next_].form : Form::bytes;
  }

  static void
  ready(GObject *, GAsyncResult *result, gpointer data)
  {
    auto *self = static_cast<Receiver *>(data);
    g_assert_false(self->calling_);
    self->finish(result);
    self->next_++;
    self->start();
  }

  void
  finish(GAsyncResult *result)
  {
    Error error;
    if (next_ == messages_.size()) {
      g_assert_null(gvc_bytes_input_stream_read_bytes_finish(end_.in.get(), result, &error));
      assert_channel_end(*end_of_, error);
      return;
    }
    const Message &message = messages_[next_];
    switch (message.form) {
    case Form::bytes: {
      const BytesRef bytes{gvc_bytes_input_stream_read_bytes_finish(end_.in.get(), result, &error)};
      error.assert_none();
      assert_bytes_message(message, bytes.get());
      break;
    }
    case Form::variant: {
      GVariant *variant = gvc_bytes_input_stream_read_variant_finish(end_.in.get(), result, &error);
      error.assert_none();
      assert_variant_message(message, variant);
      break;
    }
    case Form::string: {
      gsize length = 0;
      const Mem<char> string{
          gvc_data_input_stream_read_string_finish(end_.strings.get(), result, &length, &error)};
      error.assert_none();
      assert_string_message(message, string.get(), length);
      break;
    }
    }
  }

  End &end_;
  std::vector<Message> messages_;
  const Stages *end_of_;
  gsize next_ = 0;
  bool calling_ = false;
};

guint
thread_count()
{
  guint count = 0;
  g_autoptr(GDir) tasks = g_dir_open("/proc/self/task", 0, nullptr);
  while (tasks && g_dir_read_name(tasks))
    count++;
  return count;
}

Bytes
framed(ByteView message)
{
  return join({little_endian(message.size(), 4), message});
}

/* ---- Blocking ---- */

void
test_blocking(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  LifeWatch lives;
  {
    SocketPair pair = new_socket_pair(one.family);
    End end{pair.a.get(), *one.stages};
    end.watch(lives);
    std::thread peer{[&] {
      End other{pair.b.get(), *one.stages};
      answer(other);
      other.close();
      g_io_stream_close(G_IO_STREAM(pair.b.get()), nullptr, nullptr);
    }};
    speak_first(end);
    get_end(end, *one.stages);
    peer.join();
    end.close_as_second();
  }
  lives.assert_all_gone();
}

// Both directions are full at the same time, each with a thread at either end.
void
test_blocking_both_directions(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  SocketPair pair = new_socket_pair(one.family);
  End ends[2] = {{pair.a.get(), *one.stages}, {pair.b.get(), *one.stages}};
  const std::vector<Message> messages = {{Form::bytes, 2 * mib}, {Form::variant, 100},
                                         {Form::bytes, 1},       {Form::variant, mib},
                                         {Form::bytes, 700000},  {Form::string, 5000}};
  std::vector<std::thread> threads;
  for (End &end : ends) {
    threads.emplace_back([&end, &messages] {
      for (const Message &message : messages)
        put(end, message);
    });
    threads.emplace_back([&end, &messages] {
      for (const Message &message : messages)
        get(end, message);
    });
  }
  for (std::thread &thread : threads)
    thread.join();
}

// A string as long as the largest message. It is read byte by byte, here out of a stage's buffer:
// on a plain channel each byte is a system call.
void
test_longest_string()
{
  SocketPair pair = new_socket_pair(Family::unix_domain);
  const Message message{Form::string, 16 * mib};
  End end{pair.a.get(), all_stages[1]};
  std::thread peer{[&] {
    End other{pair.b.get(), all_stages[1]};
    put(other, message);
  }};
  get(end, message);
  peer.join();
}

// The blocking reader takes a length of 0 for the end, the asynchronous one for an empty message.
void
test_empty_message(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  SocketPair pair = new_socket_pair(one.family);
  End end{pair.a.get(), *one.stages}, other{pair.b.get(), *one.stages};
  put(other, {Form::bytes, 0});
  put(other, {Form::bytes, 0});
  put(other, {Form::bytes, 5});

  Error error;
  g_assert_null(gvc_bytes_input_stream_read_bytes(end.in.get(), nullptr, &error));
  error.assert_is(GVC_ERROR, GVC_ERROR_DISCONNECTED, "Disconnected");
  Collector collector;
  gvc_bytes_input_stream_read_bytes_async(end.in.get(), G_PRIORITY_DEFAULT, nullptr,
                                          Collector::ready, &collector);
  const BytesRef bytes{
      gvc_bytes_input_stream_read_bytes_finish(end.in.get(), collector.wait(), &error)};
  error.assert_none();
  g_assert_cmpuint(g_bytes_get_size(bytes.get()), ==, 0);
  get(end, {Form::bytes, 5});
}

/* ---- A second process ---- */

void
test_second_process(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  const bool is_unix = one.family == Family::unix_domain;
  g_autofree char *directory = g_dir_make_tmp("zelgvc-channel-XXXXXX", nullptr);
  g_autofree char *path = g_build_filename(directory, "socket", nullptr);
  const auto listener = own(g_socket_listener_new());
  g_autofree char *address = nullptr;
  Error error;
  if (is_unix) {
    const auto at = own(g_unix_socket_address_new(path));
    g_assert_true(g_socket_listener_add_address(listener.get(), at.get(), G_SOCKET_TYPE_STREAM,
                                                G_SOCKET_PROTOCOL_DEFAULT, nullptr, nullptr,
                                                &error));
    address = g_strdup(path);
  } else {
    const auto at = own(g_inet_socket_address_new_from_string("127.0.0.1", 0));
    GSocketAddress *bound = nullptr;
    g_assert_true(g_socket_listener_add_address(listener.get(), at.get(), G_SOCKET_TYPE_STREAM,
                                                G_SOCKET_PROTOCOL_TCP, nullptr, &bound, &error));
    const auto owned = own(bound);
    address = g_strdup_printf("%u", g_inet_socket_address_get_port(G_INET_SOCKET_ADDRESS(bound)));
  }
  error.assert_none();

  const auto process =
      own(g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, &error, program, "--peer",
                           is_unix ? "unix" : "tcp", address, one.stages->name, nullptr));
  error.assert_none();
  const auto socket_connection =
      own(g_socket_listener_accept(listener.get(), nullptr, nullptr, &error));
  error.assert_none();
  {
    End end{socket_connection.get(), *one.stages};
    speak_first(end);
    get_end(end, *one.stages);
  }
  g_assert_true(g_subprocess_wait_check(process.get(), nullptr, &error));
  g_unlink(path);
  g_rmdir(directory);
}

/* ---- Asynchronous ---- */

// Both ends in one main loop, both directions at once.
void
test_asynchronous(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  const std::vector<Message> there = {
      {Form::bytes, 0},       {Form::bytes, 1},        {Form::variant, 0},   {Form::string, 0},
      {Form::bytes, 4096},    {Form::string, 3000},    {Form::variant, 999}, {Form::bytes, mib + 3},
      {Form::variant, 70000}, {Form::bytes, 16 * mib}, {Form::bytes, 0},     {Form::string, 17},
  };
  std::vector<Message> back = there;
  std::swap(back[4], back[9]); // the largest messages do not meet
  back.push_back({Form::variant, 16 * mib});

  LifeWatch lives;
  {
    SocketPair pair = new_socket_pair(one.family);
    auto near = std::make_unique<End>(pair.a.get(), *one.stages);
    End far{pair.b.get(), *one.stages};
    near->watch(lives);
    far.watch(lives);
    Sender to_far{*near, there}, to_near{far, back};
    Receiver at_far{far, there, one.stages}, at_near{*near, back};
    at_far.start();
    at_near.start();
    to_far.start();
    to_near.start();
    spin_until([&] { return to_far.done() && to_near.done() && at_near.done(); });
    g_assert_false(at_far.done());
    near->close();
    g_assert_true(g_io_stream_close(G_IO_STREAM(pair.a.get()), nullptr, nullptr));
    spin_until([&] { return at_far.done(); });
    near.reset();
    far.close_as_second();
  }
  lives.assert_all_gone();
}

// An asynchronous end in a main loop and a blocking one in a thread.
void
test_asynchronous_with_blocking_peer(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  SocketPair pair = new_socket_pair(one.family);
  End end{pair.a.get(), *one.stages};
  std::vector<Message> messages = conversation;
  messages.resize(messages.size() - 1);
  std::thread peer{[&] {
    End other{pair.b.get(), *one.stages};
    for (const Message &message : messages)
      get(other, message);
    for (const Message &message : messages)
      put(other, message);
  }};
  Sender sender{end, messages};
  Receiver receiver{end, messages};
  receiver.start();
  sender.start();
  spin_until([&] { return sender.done() && receiver.done(); });
  peer.join();
}

// An end whose whole life is in a main context of its own thread.
void
test_asynchronous_in_a_thread(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  const std::vector<Message> messages = {
      {Form::bytes, 10}, {Form::variant, 3000}, {Form::string, 40}, {Form::bytes, 2 * mib}};
  SocketPair pair = new_socket_pair(one.family);
  std::thread peer{[&] {
    End other{pair.b.get(), *one.stages};
    for (const Message &message : messages) {
      get(other, message);
      put(other, message);
    }
  }};
  run_in_thread([&] {
    End end{pair.a.get(), *one.stages};
    Sender sender{end, messages};
    Receiver receiver{end, messages};
    sender.start();
    receiver.start();
    spin_until([&] { return sender.done() && receiver.done(); });
  });
  peer.join();
}

void
test_hundred_channels(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  std::vector<SocketPair> pairs;
  std::vector<std::unique_ptr<End>> ends;
  std::vector<std::unique_ptr<Sender>> senders;
  std::vector<std::unique_ptr<Receiver>> receivers;
  std::mt19937 random{55};
  for (guint i = 0; i < 100; i++) {
    const Stages &stages = all_stages[i % G_N_ELEMENTS(all_stages)];
    pairs.push_back(new_socket_pair(one.family));
    ends.push_back(std::make_unique<End>(pairs.back().a.get(), stages));
    ends.push_back(std::make_unique<End>(pairs.back().b.get(), stages));
    End &near = *ends[2 * i], &far = *ends[2 * i + 1];
    for (auto [from, to] : {std::pair{&near, &far}, std::pair{&far, &near}}) {
      std::vector<Message> messages;
      for (int j = 0; j < 12; j++)
        messages.push_back({static_cast<Form>(random() % 3), 16 * (random() % 40)});
      messages.push_back({Form::bytes, 300000});
      messages.push_back({Form::variant, 1});
      senders.push_back(std::make_unique<Sender>(*from, messages));
      receivers.push_back(std::make_unique<Receiver>(*to, messages));
    }
  }
  // GTask's type starts a thread of GLib's that never does any work. Idle workers that GIO still
  // keeps from an earlier test may go meanwhile, so this can miss a thread but not invent one.
  g_type_ensure(G_TYPE_TASK);
  const guint threads_before = thread_count();
  g_assert_cmpuint(threads_before, >, 0);
  for (guint i = 0; i < senders.size(); i++) {
    receivers[i]->start();
    senders[i]->start();
  }
  auto is_done = [](const auto &one) { return one->done(); };
  guint threads_most = threads_before;
  spin_until([&] {
    threads_most = MAX(threads_most, thread_count());
    return std::all_of(senders.begin(), senders.end(), is_done) &&
           std::all_of(receivers.begin(), receivers.end(), is_done);
  });
  // None of it took a thread.
  g_assert_cmpuint(threads_most, <=, threads_before);
}

/* ---- The bytes on the wire ---- */

// OpenSSL and liblzo2 take apart the bytes that a channel sends.
void
test_wire_of_what_is_sent(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  RawPeer peer{one.family};
  std::string wire;
  std::thread reader{[&] { wire = peer.receive_all(); }};
  const Bytes one_message = sample(Kind::text, 5000), other = sample(Kind::mixture, 300000);
  {
    End end{peer.connection(), *one.stages};
    for (const Bytes *message : {&one_message, &other}) {
      const BytesRef bytes{g_bytes_new(message->data(), message->size())};
      Error error;
      g_assert_true(gvc_bytes_output_stream_put_bytes(end.out.get(), bytes.get(), nullptr, &error));
    }
    end.close();
    g_io_stream_close(G_IO_STREAM(peer.connection()), nullptr, nullptr);
  }
  reader.join();

  Bytes plain = to_bytes(wire);
  guint count = 0;
  for (Stage stage : one.stages->list)
    if (stage == Stage::compression)
      plain = open_blocks(plain, &count);
    else
      plain = Opener{test_key(), stage == Stage::encryption_128 ? 128 : 256}.open(plain);
  ASSERT_BYTES(plain, join({framed(one_message), framed(other)}));
}

// Closing ends the output of every stage: an IV record that was still to come, a block of nothing.
void
test_wire_of_an_unused_channel(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  RawPeer peer{one.family};
  {
    End end{peer.connection(), *one.stages};
    end.close();
    g_io_stream_close(G_IO_STREAM(peer.connection()), nullptr, nullptr);
  }
  Bytes plain = to_bytes(peer.receive_all());
  const std::vector<Stage> &list = one.stages->list;
  const bool is_mixed = list.size() == 2;
  for (gsize i = 0; i < list.size(); i++) {
    guint blocks = 0;
    if (list[i] == Stage::compression) {
      plain = open_blocks(plain, &blocks);
      g_assert_cmpuint(blocks, ==, i == 0 && is_mixed ? 2 : 1);
    } else {
      Opener opener{test_key(), list[i] == Stage::encryption_128 ? 128 : 256};
      plain = opener.open(plain);
      g_assert_cmpuint(opener.iv_records, ==, 1);
      g_assert_cmpuint(opener.data_records, ==, i == 0 && is_mixed ? 1 : 0);
    }
  }
  g_assert_cmpuint(plain.size(), ==, 0);
}

// A channel receives bytes that OpenSSL and liblzo2 made.
void
test_wire_of_what_is_received(gconstpointer data)
{
  const Case &one = *static_cast<const Case *>(data);
  RawPeer peer{one.family};
  const Bytes one_message = sample(Kind::text, 5000), other = sample(Kind::mixture, 30000);
  const Bytes plain = join({framed(one_message), framed(other)});

  // The pieces that the stage nearest to the socket hands on, whatever their borders.
  std::vector<Bytes> pieces;
  for (gsize at = 0; at < plain.size(); at += 7000)
    pieces.emplace_back(plain.begin() + at, plain.begin() + MIN(at + 7000, plain.size()));
  for (auto stage = one.stages->list.rbegin(); stage != one.stages->list.rend(); ++stage) {
    std::vector<Bytes> converted;
    const Bytes iv = sample(Kind::noise, 16, 3);
    Sealer sealer{test_key(), *stage == Stage::encryption_128 ? 128 : 256, iv};
    if (*stage != Stage::compression)
      converted.push_back(iv_record(iv));
    for (const Bytes &piece : pieces)
      converted.push_back(*stage == Stage::compression ? block(piece) : sealer.record(piece));
    pieces = std::move(converted);
  }

  std::thread writer{[&] {
    for (const Bytes &piece : pieces)
      peer.send(to_text(piece));
    peer.close();
  }};
  End end{peer.connection(), *one.stages};
  for (const Bytes *message : {&one_message, &other}) {
    Error error;
    const BytesRef bytes{gvc_bytes_input_stream_read_bytes(end.in.get(), nullptr, &error)};
    error.assert_none();
    gsize size = 0;
    const void *got = g_bytes_get_data(bytes.get(), &size);
    g_assert_cmpmem(got, size, message->data(), message->size());
  }
  get_end(end, *one.stages);
  writer.join();
}

// A peer that goes away in the middle of a record or block.
void
test_cut_off_in_the_middle()
{
  const Bytes message = framed(sample(Kind::text, 100));
  const Bytes iv = sample(Kind::noise, 16, 3);
  for (const Stages &stages : {all_stages[1], all_stages[3]}) {
    const bool is_block = stages.list[0] == Stage::compression;
    Sealer sealer{test_key(), 256, iv};
    const Bytes wire = is_block ? block(message) : join({iv_record(iv), sealer.record(message)});
    RawPeer peer{Family::unix_domain};
    End end{peer.connection(), stages};
    peer.send(to_text(ByteView{wire}.first(wire.size() - 1)));
    peer.close();
    Collector collector;
    gvc_bytes_input_stream_read_bytes_async(end.in.get(), G_PRIORITY_DEFAULT, nullptr,
                                            Collector::ready, &collector);
    Error error;
    g_assert_null(gvc_bytes_input_stream_read_bytes_finish(end.in.get(), collector.wait(), &error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  }
}

/* ---- Registration ---- */

void
add_cases(const char *name, Family family, void (*test)(gconstpointer))
{
  const char *family_name = family == Family::unix_domain ? "unix" : "tcp";
  for (const Stages &stages : all_stages) {
    g_autofree char *path = g_strdup_printf("/channel/%s/%s/%s", name, family_name, stages.name);
    g_test_add_data_func_full(path, new Case{family, &stages}, test,
                              [](gpointer data) { delete static_cast<Case *>(data); });
  }
}

void
add_case(const char *path, Family family, void (*test)(gconstpointer),
         const Stages *stages = nullptr)
{
  g_test_add_data_func_full(path, new Case{family, stages}, test,
                            [](gpointer data) { delete static_cast<Case *>(data); });
}

} // namespace

int
main(int argc, char **argv)
{
  if (argc == 5 && strcmp(argv[1], "--peer") == 0)
    return peer_main(argv[2], argv[3], argv[4]);
  program = argv[0];
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  add_case("/channel/hundred-channels-in-one-main-loop/tcp", Family::tcp4, test_hundred_channels);
  add_case("/channel/hundred-channels-in-one-main-loop/unix", Family::unix_domain,
           test_hundred_channels);
  for (Family family : {Family::tcp4, Family::unix_domain}) {
    add_cases("blocking", family, test_blocking);
    add_cases("blocking-both-directions", family, test_blocking_both_directions);
    add_cases("asynchronous", family, test_asynchronous);
  }
  add_cases("second-process", Family::tcp4, test_second_process);
  add_case("/channel/second-process/unix", Family::unix_domain, test_second_process,
           &all_stages[5]);
  add_cases("empty-message", Family::tcp4, test_empty_message);
  add_cases("asynchronous-with-blocking-peer", Family::tcp4, test_asynchronous_with_blocking_peer);
  add_cases("asynchronous-in-a-thread", Family::unix_domain, test_asynchronous_in_a_thread);
  add_cases("wire-of-what-is-sent", Family::tcp4, test_wire_of_what_is_sent);
  add_cases("wire-of-an-unused-channel", Family::tcp4, test_wire_of_an_unused_channel);
  add_cases("wire-of-what-is-received", Family::unix_domain, test_wire_of_what_is_received);
  g_test_add_func("/channel/longest-string", test_longest_string);
  g_test_add_func("/channel/cut-off-in-the-middle", test_cut_off_in_the_middle);
  return g_test_run();
}
