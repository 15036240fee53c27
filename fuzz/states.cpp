// SPDX-License-Identifier: LGPL-2.1-or-later
// The calls that a host may make on a channel, in any order, while its peer sends, reads, stops or
// goes away: stages added, messages read and written, cancelled, closed, let go in the middle.
// Every operation calls back exactly once, messages of a peer in good order arrive as they were
// sent, and when the peer has gone everything ends and nothing is left.
#include "support.h"

#include <zelgvc/zelgvc.h>

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <list>

using namespace fuzz;

namespace
{

// Never more is on its way without anybody reading it when a call could block.
constexpr std::size_t safe_to_block = 32 * 1024;

enum class Kind { bytes, variant, string, close, put_bytes, put_variant, gio_write };

// An asynchronous operation. Its own reference to the stream is for the call of finish.
struct Operation {
  Kind kind;
  Ref<GObject> stream;
  Ref<GCancellable> cancellable;
  View data; // of a write by GIO
  Waiter waiter;
};

class Host
{
public:
  explicit Host(Input input);
  void run();

private:
  // What the calls of the host are; the script picks among them.
  void add_stage();
  void open_reader();
  void open_writer();
  void read_async();
  void read_blocking();
  void write_async();
  void write_blocking();
  void write_by_gio();
  void cancel();
  void close_something();
  void drop_something();
  void iterate();
  // What the peer does.
  void peer_sends_message();
  void peer_sends_payload();
  void peer_reads();
  void peer_goes();
  void peer_leaves();

  void start(Kind kind, GObject *stream);
  void finish(Operation *operation);
  void reap();
  void check_message(GBytes *message, const GError *error);
  void check_error(const GError *error, bool may_fail) const;
  bool busy(bool reading) const;
  // Whether a call that sends what the stages hold cannot find the socket full.
  bool
  may_send() const
  {
    return !busy(false) && (peer_ < 0 || (!cut_ && unread_ < safe_to_block));
  }
  void end();

  Script script_;
  View payload_;
  Ref<GSocketConnection> socket_;
  int peer_;
  Ref<GvcConnection> connection_;
  Ref<GvcBytesInputStream> reader_;
  Ref<GvcDataInputStream> strings_;
  Ref<GvcBytesOutputStream> writer_;
  std::list<Operation> operations_;

  std::vector<Ref<GConverter>> peer_stages_; // the outermost first
  std::deque<View> expected_;                // messages of the peer that have not been read
  bool in_order_ = true;   // the peer has sent nothing but messages, and none was cut short
  bool calm_ = true;       // nothing was cancelled, closed or let go, and the peer is there
  bool used_ = false;      // the peer has sent, or the host has read: no more stages
  bool hung_up_ = false;   // the peer sends no more
  bool cut_ = false;       // the stages hold something of a message that was cut short
  std::size_t unread_ = 0; // by the peer, at most
};

Host::Host(Input input) : script_(input.script), payload_(input.payload)
{
  auto pair = new_pair();
  socket_ = std::move(pair.connection);
  peer_ = pair.peer;
  connection_ = own(gvc_connection_new(socket_.get()));
}

bool
is_read(Kind kind)
{
  return kind == Kind::bytes || kind == Kind::variant || kind == Kind::string;
}

bool
Host::busy(bool reading) const
{
  return std::ranges::any_of(operations_, [&](const Operation &operation) {
    return operation.kind == Kind::close || is_read(operation.kind) == reading;
  });
}

void
Host::add_stage()
{
  const auto kind = 1 + script_.byte() % (stage_kinds - 1);
  // Messages that are on their way have not passed this stage; and a stream in use keeps the old
  // stages.
  if (!connection_ || used_ || reader_ || strings_ || writer_ || busy(true) || busy(false) ||
      peer_stages_.size() == 4 || g_io_stream_is_closed(G_IO_STREAM(connection_.get())))
    return;
  gvc_connection_add_converters(connection_.get(), new_in_stage(kind).get(),
                                new_out_stage(kind).get());
  peer_stages_.push_back(new_out_stage(kind));
}

void
Host::open_reader()
{
  const auto decision = script_.byte();
  if (!connection_ || reader_ || strings_ || busy(true))
    return;
  auto *in = g_io_stream_get_input_stream(G_IO_STREAM(connection_.get()));
  if (decision % 4 == 0) {
    strings_ = own(gvc_data_input_stream_new(in));
    in_order_ = false;
  } else {
    reader_ = own(gvc_bytes_input_stream_new(in));
  }
  if (decision & 4)
    g_filter_input_stream_set_close_base_stream(reader_ ? G_FILTER_INPUT_STREAM(reader_.get())
                                                        : G_FILTER_INPUT_STREAM(strings_.get()),
                                                FALSE);
}

void
Host::open_writer()
{
  const auto decision = script_.byte();
  if (!connection_ || writer_ || busy(false))
    return;
  auto *out = g_io_stream_get_output_stream(G_IO_STREAM(connection_.get()));
  writer_ = own(gvc_bytes_output_stream_new(out));
  if (decision & 4)
    g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(writer_.get()), FALSE);
}

void
Host::start(Kind kind, GObject *stream)
{
  auto &operation = operations_.emplace_back();
  operation.kind = kind;
  operation.stream = own(static_cast<GObject *>(g_object_ref(stream)));
  operation.cancellable = own(g_cancellable_new());
  if (script_.byte() == 0xff) {
    g_cancellable_cancel(operation.cancellable.get());
    calm_ = false;
  }
}

void
Host::read_async()
{
  const auto decision = script_.byte();
  if (busy(true) || (!reader_ && !strings_))
    return;
  used_ = true;
  if (strings_) {
    start(Kind::string, G_OBJECT(strings_.get()));
    auto &operation = operations_.back();
    gvc_data_input_stream_read_string_async(strings_.get(), static_cast<char>(decision), 0,
                                            operation.cancellable.get(), Waiter::ready,
                                            &operation.waiter);
    return;
  }
  start(decision % 2 == 0 ? Kind::bytes : Kind::variant, G_OBJECT(reader_.get()));
  auto &operation = operations_.back();
  if (operation.kind == Kind::bytes)
    gvc_bytes_input_stream_read_bytes_async(reader_.get(), decision >> 4,
                                            operation.cancellable.get(), Waiter::ready,
                                            &operation.waiter);
  else
    gvc_bytes_input_stream_read_variant_async(reader_.get(), "ay", decision >> 4,
                                              operation.cancellable.get(), Waiter::ready,
                                              &operation.waiter);
}

// Where nobody reads at the same time, and something is there: a whole message, or the end.
void
Host::read_blocking()
{
  if (!reader_ || busy(true) || (!hung_up_ && (!in_order_ || expected_.empty())))
    return;
  used_ = true;
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(reader_.get(), nullptr, &error);
  FUZZ_CHECK(!message == !!error);
  // A message of no bytes is an error here.
  if (in_order_ && !expected_.empty() && expected_.front().empty() &&
      g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED))
    expected_.pop_front();
  else
    check_message(message, error);
}

// No two operations are ever in progress in one direction.
void
Host::check_error(const GError *error, bool may_fail) const
{
  FUZZ_CHECK(!error || may_fail || !calm_);
  FUZZ_CHECK(!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PENDING));
}

void
Host::check_message(GBytes *message, const GError *error)
{
  check_error(error, !in_order_);
  if (error) {
    in_order_ = false;
    return;
  }
  if (!in_order_)
    return;
  FUZZ_CHECK(!expected_.empty() && equal(view(message), expected_.front()));
  expected_.pop_front();
}

void
Host::write_async()
{
  const auto decision = script_.byte();
  const std::size_t size = decision < 0xf0 ? decision * 8U : (decision - 0xefU) * 20'000U;
  if (!writer_ || busy(false))
    return;
  const auto message = pattern(size, decision);
  g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
  start(decision % 3 == 0 ? Kind::put_variant : Kind::put_bytes, G_OBJECT(writer_.get()));
  auto &operation = operations_.back();
  unread_ += size + 2048;
  if (operation.kind == Kind::put_bytes) {
    gvc_bytes_output_stream_put_bytes_async(writer_.get(), bytes, decision >> 4,
                                            operation.cancellable.get(), Waiter::ready,
                                            &operation.waiter);
    return;
  }
  g_autoptr(GVariant) variant =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, bytes, TRUE));
  gvc_bytes_output_stream_put_variant_async(writer_.get(), variant, decision >> 4,
                                            operation.cancellable.get(), Waiter::ready,
                                            &operation.waiter);
}

void
Host::write_blocking()
{
  const auto decision = script_.byte();
  if (!writer_ || !may_send())
    return;
  const auto message = pattern(decision, decision);
  g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
  g_autoptr(GError) error = nullptr;
  unread_ += message.size() + 2048;
  const bool done = gvc_bytes_output_stream_put_bytes(writer_.get(), bytes, nullptr, &error);
  FUZZ_CHECK(done == !error);
  check_error(error, false);
  if (decision % 2 == 0 && done) {
    g_autoptr(GError) failure = nullptr;
    FUZZ_CHECK(g_output_stream_flush(G_OUTPUT_STREAM(writer_.get()), nullptr, &failure) ==
               !failure);
  }
}

// GIO's own asynchronous calls, on the message stream or below it.
void
Host::write_by_gio()
{
  const auto decision = script_.byte();
  const std::size_t size = 1 + (decision < 0xf0 ? decision * 8U : (decision - 0xefU) * 20'000U);
  if (busy(false) || (decision % 2 == 0 ? !connection_ : !writer_))
    return;
  auto *stream = decision % 2 == 0 ? g_io_stream_get_output_stream(G_IO_STREAM(connection_.get()))
                                   : G_OUTPUT_STREAM(writer_.get());
  start(Kind::gio_write, G_OBJECT(stream));
  auto &operation = operations_.back();
  operation.data = pattern(size, decision);
  unread_ += size + 2048;
  g_output_stream_write_all_async(stream, operation.data.data(), size, decision >> 4,
                                  operation.cancellable.get(), Waiter::ready, &operation.waiter);
}

void
Host::cancel()
{
  if (operations_.empty())
    return;
  auto at = operations_.begin();
  std::advance(at, static_cast<std::ptrdiff_t>(script_.below(operations_.size())));
  g_cancellable_cancel(at->cancellable.get());
  calm_ = false;
}

void
Host::close_something()
{
  const auto decision = script_.byte();
  g_autoptr(GError) error = nullptr;
  bool done = true;
  calm_ = false;

  if (decision % 8 == 0 && peer_ >= 0 && script_.byte() % 4 == 0)
    done = g_socket_close(g_socket_connection_get_socket(socket_.get()), &error);
  else if (decision % 4 == 1 && connection_ && may_send())
    done = g_io_stream_close(G_IO_STREAM(connection_.get()), nullptr, &error);
  else if (decision % 4 == 2 && reader_)
    done = g_input_stream_close(G_INPUT_STREAM(reader_.get()), nullptr, &error);
  else if (decision % 4 == 3 && writer_ && may_send())
    done = g_output_stream_close(G_OUTPUT_STREAM(writer_.get()), nullptr, &error);
  else if (connection_ && may_send()) {
    start(Kind::close, G_OBJECT(connection_.get()));
    auto &operation = operations_.back();
    g_io_stream_close_async(G_IO_STREAM(connection_.get()), 0, operation.cancellable.get(),
                            Waiter::ready, &operation.waiter);
  }
  FUZZ_CHECK(done == !error);
  unread_ += 256;
  if (error || decision % 4 == 2)
    in_order_ = false;
}

// What is in progress holds on to what it needs.
void
Host::drop_something()
{
  const auto decision = script_.byte();
  unread_ += 256;
  calm_ = false;
  if (decision % 4 == 0) {
    reader_.reset();
    strings_.reset();
  } else if (decision % 4 == 1 && (busy(false) || may_send())) {
    writer_.reset();
  } else if (decision % 4 == 2 && (busy(false) || may_send())) {
    connection_.reset();
  }
}

void
Host::iterate()
{
  for (auto left = script_.byte() % 16; left-- > 0;)
    g_main_context_iteration(nullptr, FALSE);
  reap();
}

void
Host::finish(Operation *operation)
{
  g_autoptr(GError) error = nullptr;
  g_autoptr(GBytes) message = nullptr;
  auto *stream = operation->stream.get();
  auto *result = operation->waiter.result();
  switch (operation->kind) {
  case Kind::bytes:
    message =
        gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(stream), result, &error);
    check_message(message, error);
    break;
  case Kind::variant: {
    g_autoptr(GVariant) variant =
        gvc_bytes_input_stream_read_variant_finish(GVC_BYTES_INPUT_STREAM(stream), result, &error);
    FUZZ_CHECK(!variant == !!error);
    message = variant ? g_variant_get_data_as_bytes(g_variant_ref_sink(variant)) : nullptr;
    check_message(message, error);
    break;
  }
  case Kind::string: {
    g_autofree gchar *string = gvc_data_input_stream_read_string_finish(
        GVC_DATA_INPUT_STREAM(stream), result, nullptr, &error);
    FUZZ_CHECK(!string == !!error);
    break;
  }
  case Kind::close:
    FUZZ_CHECK(g_io_stream_close_finish(G_IO_STREAM(stream), result, &error) == !error);
    break;
  case Kind::put_bytes:
    FUZZ_CHECK(gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(stream), result,
                                                        &error) == !error);
    check_error(error, false);
    cut_ |= error != nullptr;
    break;
  case Kind::put_variant:
    FUZZ_CHECK(gvc_bytes_output_stream_put_variant_finish(GVC_BYTES_OUTPUT_STREAM(stream), result,
                                                          &error) == !error);
    check_error(error, false);
    cut_ |= error != nullptr;
    break;
  case Kind::gio_write: {
    gsize written = 0;
    FUZZ_CHECK(g_output_stream_write_all_finish(G_OUTPUT_STREAM(stream), result, &written,
                                                &error) == !error);
    FUZZ_CHECK(error ? written <= operation->data.size() : written == operation->data.size());
    check_error(error, false);
    cut_ |= error != nullptr;
    break;
  }
  }
}

// Takes what has ended. An operation may hold the last reference to a stream with something to
// send, which nobody would read; so the peer goes first where that cannot be excluded.
void
Host::reap()
{
  for (auto at = operations_.begin(); at != operations_.end();) {
    if (!at->waiter.done()) {
      ++at;
      continue;
    }
    finish(&*at);
    if (cut_ && at->stream.get() != reinterpret_cast<GObject *>(writer_.get()))
      peer_leaves();
    at = operations_.erase(at);
  }
}

void
Host::peer_sends_message()
{
  const auto decision = script_.byte();
  if (peer_ < 0 || hung_up_ || !in_order_)
    return;
  used_ = true;
  const std::uint8_t prefix[] = {decision, 0, 0, 0};
  const auto message = pattern(decision, decision);
  Bytes wire(prefix, prefix + sizeof prefix);
  wire.insert(wire.end(), message.begin(), message.end());
  for (auto stage = peer_stages_.rbegin(); stage != peer_stages_.rend(); ++stage)
    wire = convert_all(stage->get(), wire, &script_);
  if (send_some(peer_, wire) == wire.size())
    expected_.push_back(message);
  else
    in_order_ = false;
}

void
Host::peer_sends_payload()
{
  const auto size = std::min<std::size_t>(payload_.size(), script_.byte());
  if (peer_ < 0 || hung_up_ || size == 0)
    return;
  used_ = true;
  in_order_ = false;
  payload_ = payload_.subspan(send_some(peer_, payload_.first(size)));
}

void
Host::peer_reads()
{
  static char buffer[64 * 1024];
  if (peer_ < 0)
    return;
  // As much as there is, or a little.
  const auto decision = script_.byte();
  const auto size = decision == 0 ? sizeof buffer : decision;
  while (recv(peer_, buffer, size, 0) > 0 && decision == 0) {
  }
  if (decision == 0 && !busy(false))
    unread_ = 0;
}

void
Host::peer_goes()
{
  if (peer_ < 0)
    return;
  hung_up_ = true;
  calm_ = false;
  if (script_.byte() % 2 == 1) {
    shutdown(peer_, SHUT_WR);
    return;
  }
  peer_leaves();
}

// Whoever has something to send finds out, and waits no longer.
void
Host::peer_leaves()
{
  if (peer_ < 0)
    return;
  close(peer_);
  peer_ = -1;
  hung_up_ = true;
  calm_ = false;
  in_order_ = false; // what it had not read itself makes the socket forget what it sent
}

// The peer goes away for good: whatever is in progress ends. Only strings do not end with the
// stream.
void
Host::end()
{
  if (peer_ >= 0)
    close(peer_);
  peer_ = -1;
  calm_ = false;
  for (auto &operation : operations_)
    if (operation.kind == Kind::string)
      g_cancellable_cancel(operation.cancellable.get());
  for (auto &operation : operations_) {
    operation.waiter.wait();
    finish(&operation);
  }
  operations_.clear();
  writer_.reset();
  reader_.reset();
  strings_.reset();
  connection_.reset();
  socket_.reset();
  run_ready(); // no second calls
}

void
Host::run()
{
  static constexpr void (Host::*calls[])() = {
      &Host::add_stage,
      &Host::open_reader,
      &Host::open_writer,
      &Host::read_async,
      &Host::read_async,
      &Host::read_blocking,
      &Host::write_async,
      &Host::write_async,
      &Host::write_blocking,
      &Host::cancel,
      &Host::close_something,
      &Host::drop_something,
      &Host::iterate,
      &Host::iterate,
      &Host::peer_sends_message,
      &Host::peer_reads,
      &Host::peer_sends_payload,
      &Host::peer_goes,
      &Host::write_by_gio,
  };
  while (!script_.empty())
    (this->*calls[script_.below(G_N_ELEMENTS(calls))])();
  end();
}

} // namespace

// The script: the calls with their arguments; the payload is what an ill-behaved peer sends.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  Host(split_input(data, size)).run();
  return 0;
}
