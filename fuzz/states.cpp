// SPDX-License-Identifier: LGPL-2.1-or-later
// Calls that a host makes on a channel in any order, while its peer sends, reads, stops or
// disconnects: it adds stages, reads, writes, cancels, closes and drops references. Every operation
// calls back exactly once. Messages of a well-behaved peer arrive as sent. When the peer has gone,
// everything ends and nothing leaks.
#include "support.h"

#include <sys/socket.h>

#include <deque>
#include <list>

using namespace fuzz;

namespace
{

// A blocking call may start only if the socket holds less than this.
constexpr std::size_t safe_to_block = 32 * 1024;

enum Direction { reads = 1, writes = 2, closes = reads | writes };

// An asynchronous operation. Its reference to the stream is for `finish`.
struct Operation {
  Direction direction;
  Ref<GObject> stream;
  std::function<void(GAsyncResult *)> finish;
  bool ends; // when the peer disconnects, without being cancelled
  Ref<GCancellable> cancellable;
  Waiter waiter;
};

std::size_t
message_size(std::uint8_t decision)
{
  return decision < 0xf0 ? decision * 8U : (decision - 0xefU) * 20'000U;
}

class Host
{
public:
  explicit Host(Input input) : script_(input.script), payload_(input.payload) {}
  void
  run()
  {
    static constexpr void (Host::*calls[])() = {&Host::add_stage,
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
                                                &Host::write_by_gio};
    while (!script_.empty())
      (this->*calls[script_.below(G_N_ELEMENTS(calls))])();
    end();
  }

private:
  bool
  busy(Direction direction) const
  {
    return std::ranges::any_of(operations_, [&](const Operation &operation) {
      return (operation.direction & direction) != 0;
    });
  }

  void
  add_stage()
  {
    const auto kind = 1 + script_.byte() % (stage_kinds - 1);
    // Messages on the wire have not passed this stage, and a stream in use keeps the old stages.
    if (!channel_.connection || used_ || reader_ || strings_ || writer_ || busy(reads) ||
        busy(writes) || peer_stages_.size() == 4 ||
        g_io_stream_is_closed(G_IO_STREAM(channel_.connection.get())))
      return;
    fuzz::add_stage(channel_.connection.get(), kind);
    peer_stages_.push_back(new_out_stage(kind));
  }

  void
  open_reader()
  {
    const auto decision = script_.byte();
    if (!channel_.connection || reader_ || strings_ || busy(reads))
      return;
    auto *in = g_io_stream_get_input_stream(G_IO_STREAM(channel_.connection.get()));
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
  open_writer()
  {
    const auto decision = script_.byte();
    if (!channel_.connection || writer_ || busy(writes))
      return;
    auto *out = g_io_stream_get_output_stream(G_IO_STREAM(channel_.connection.get()));
    writer_ = own(gvc_bytes_output_stream_new(out));
    if (decision & 4)
      g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(writer_.get()), FALSE);
  }

  // `finish` takes the result of the operation.
  Operation &
  start(Direction direction, gpointer stream, std::function<void(GAsyncResult *)> finish,
        bool ends = true)
  {
    auto &operation = operations_.emplace_back();
    operation.direction = direction;
    operation.stream = own(G_OBJECT(g_object_ref(stream)));
    operation.finish = std::move(finish);
    operation.ends = ends;
    operation.cancellable = own(g_cancellable_new());
    if (script_.byte() == 0xff) {
      g_cancellable_cancel(operation.cancellable.get());
      calm_ = false;
    }
    return operation;
  }

  void
  read_async()
  {
    const auto decision = script_.byte();
    if (busy(reads) || (!reader_ && !strings_))
      return;
    used_ = true;
    if (auto *strings = strings_.get()) {
      auto &operation = start(
          reads, strings,
          [strings](GAsyncResult *result) {
            g_autoptr(GError) error = nullptr;
            g_autofree gchar *string =
                gvc_data_input_stream_read_string_finish(strings, result, nullptr, &error);
            FUZZ_CHECK(!string == !!error);
          },
          false);
      gvc_data_input_stream_read_string_async(strings, static_cast<char>(decision), 0,
                                              operation.cancellable.get(), Waiter::ready,
                                              &operation.waiter);
      return;
    }
    auto *reader = reader_.get();
    const bool variant = decision % 2 != 0;
    auto &operation = start(reads, reader, [this, reader, variant](GAsyncResult *result) {
      g_autoptr(GError) error = nullptr;
      g_autoptr(GBytes) message = finish_read(reader, result, variant, &error);
      check_message(message, error);
    });
    start_read(reader, variant ? "ay" : nullptr, decision >> 4, operation.cancellable.get(),
               &operation.waiter);
  }

  // Only if a whole message or the end is there to be read.
  void
  read_blocking()
  {
    if (!reader_ || busy(reads) || (!hung_up_ && (!in_order_ || expected_.empty())))
      return;
    used_ = true;
    g_autoptr(GError) error = nullptr;
    g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(reader_.get(), nullptr, &error);
    FUZZ_CHECK(!message == !!error);
    // The blocking reader reports an empty message as an error.
    if (in_order_ && !expected_.empty() && expected_.front().empty() &&
        g_error_matches(error, GVC_ERROR, GVC_ERROR_DISCONNECTED))
      expected_.pop_front();
    else
      check_message(message, error);
  }

  // There is never more than one operation in a direction, so GIO never reports one pending.
  void
  check_error(const GError *error, bool may_fail) const
  {
    FUZZ_CHECK(!error || may_fail || !calm_);
    FUZZ_CHECK(!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PENDING));
  }

  void
  check_message(GBytes *message, const GError *error)
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

  // Starts a write, of which `finish` tells whether it succeeded.
  Operation &
  start_write(GOutputStream *stream, std::size_t size,
              std::function<bool(GAsyncResult *, GError **)> finish)
  {
    unread_ += size + 2048;
    return start(writes, stream, [this, finish = std::move(finish)](GAsyncResult *result) {
      g_autoptr(GError) error = nullptr;
      FUZZ_CHECK(finish(result, &error) == !error);
      check_error(error, false);
      cut_ |= error != nullptr;
    });
  }

  void
  write_async()
  {
    const auto decision = script_.byte();
    auto *writer = writer_.get();
    if (!writer || busy(writes))
      return;
    const auto message = pattern(message_size(decision), decision);
    g_autoptr(GBytes) bytes = g_bytes_new(message.data(), message.size());
    const bool variant = decision % 3 == 0;
    auto &operation = start_write(G_OUTPUT_STREAM(writer), message.size(),
                                  [writer, variant](GAsyncResult *result, GError **error) {
                                    return finish_put(writer, result, variant, error);
                                  });
    start_put(writer, bytes, variant, decision >> 4, operation.cancellable.get(),
              &operation.waiter);
  }

  void
  write_blocking()
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

  // GIO's asynchronous calls, on the message stream or below it.
  void
  write_by_gio()
  {
    const auto decision = script_.byte();
    if (busy(writes) || (decision % 2 == 0 ? !channel_.connection : !writer_))
      return;
    auto *stream = decision % 2 == 0
                       ? g_io_stream_get_output_stream(G_IO_STREAM(channel_.connection.get()))
                       : G_OUTPUT_STREAM(writer_.get());
    const auto data = pattern(1 + message_size(decision), decision);
    auto &operation =
        start_write(stream, data.size(), [stream, data](GAsyncResult *result, GError **error) {
          gsize written = 0;
          const bool done = g_output_stream_write_all_finish(stream, result, &written, error);
          FUZZ_CHECK(done ? written == data.size() : written <= data.size());
          return done;
        });
    g_output_stream_write_all_async(stream, data.data(), data.size(), decision >> 4,
                                    operation.cancellable.get(), Waiter::ready, &operation.waiter);
  }

  void
  cancel()
  {
    if (operations_.empty())
      return;
    auto at = operations_.begin();
    std::advance(at, static_cast<std::ptrdiff_t>(script_.below(operations_.size())));
    g_cancellable_cancel(at->cancellable.get());
    calm_ = false;
  }

  void
  close_something()
  {
    const auto decision = script_.byte();
    g_autoptr(GError) error = nullptr;
    bool done = true;
    calm_ = false;

    if (decision % 8 == 0 && channel_.has_peer() && script_.byte() % 4 == 0)
      done = g_socket_close(g_socket_connection_get_socket(channel_.socket.get()), &error);
    else if (decision % 4 == 1 && channel_.connection && may_send())
      done = g_io_stream_close(G_IO_STREAM(channel_.connection.get()), nullptr, &error);
    else if (decision % 4 == 2 && reader_)
      done = g_input_stream_close(G_INPUT_STREAM(reader_.get()), nullptr, &error);
    else if (decision % 4 == 3 && writer_ && may_send())
      done = g_output_stream_close(G_OUTPUT_STREAM(writer_.get()), nullptr, &error);
    else if (channel_.connection && may_send()) {
      auto *stream = G_IO_STREAM(channel_.connection.get());
      auto &operation = start(closes, stream, [stream](GAsyncResult *result) {
        g_autoptr(GError) failure = nullptr;
        FUZZ_CHECK(g_io_stream_close_finish(stream, result, &failure) == !failure);
      });
      g_io_stream_close_async(stream, 0, operation.cancellable.get(), Waiter::ready,
                              &operation.waiter);
    }
    FUZZ_CHECK(done == !error);
    unread_ += 256;
    if (error || decision % 4 == 2)
      in_order_ = false;
  }

  // Operations in progress hold references to all that they need.
  void
  drop_something()
  {
    const auto decision = script_.byte();
    unread_ += 256;
    calm_ = false;
    if (decision % 4 == 0) {
      reader_.reset();
      strings_.reset();
    } else if (decision % 4 == 1 && (busy(writes) || may_send())) {
      writer_.reset();
    } else if (decision % 4 == 2 && (busy(writes) || may_send())) {
      channel_.connection.reset();
    }
  }

  void
  iterate()
  {
    for (auto left = script_.byte() % 16; left-- > 0;)
      g_main_context_iteration(nullptr, FALSE);
    reap();
  }

  // Finishes completed operations. An operation may hold the last reference to a stream with unsent
  // bytes, which would block without a reader; then the peer disconnects first.
  void
  reap()
  {
    for (auto at = operations_.begin(); at != operations_.end();) {
      if (!at->waiter.done()) {
        ++at;
        continue;
      }
      at->finish(at->waiter.result());
      if (cut_ && at->stream.get() != reinterpret_cast<GObject *>(writer_.get()))
        peer_leaves();
      at = operations_.erase(at);
    }
  }

  void
  peer_sends_message()
  {
    const auto decision = script_.byte();
    if (!channel_.has_peer() || hung_up_ || !in_order_)
      return;
    used_ = true;
    const std::uint8_t prefix[] = {decision, 0, 0, 0};
    const auto message = pattern(decision, decision);
    Bytes wire(prefix, prefix + sizeof prefix);
    wire.insert(wire.end(), message.begin(), message.end());
    for (auto stage = peer_stages_.rbegin(); stage != peer_stages_.rend(); ++stage)
      wire = convert_all(stage->get(), wire, &script_);
    View unsent = wire;
    channel_.feed(&unsent, wire.size());
    if (unsent.empty())
      expected_.push_back(message);
    else
      in_order_ = false;
  }

  void
  peer_sends_payload()
  {
    const auto size = std::min<std::size_t>(payload_.size(), script_.byte());
    if (!channel_.has_peer() || hung_up_ || size == 0)
      return;
    used_ = true;
    in_order_ = false;
    channel_.feed(&payload_, size);
  }

  void
  peer_reads()
  {
    static char buffer[64 * 1024];
    if (!channel_.has_peer())
      return;
    // Everything, or a few bytes.
    const auto decision = script_.byte();
    const auto size = decision == 0 ? sizeof buffer : decision;
    while (recv(channel_.peer.fd(), buffer, size, 0) > 0 && decision == 0) {
    }
    if (decision == 0 && !busy(writes))
      unread_ = 0;
  }

  void
  peer_goes()
  {
    if (!channel_.has_peer())
      return;
    hung_up_ = true;
    calm_ = false;
    if (script_.byte() % 2 == 1) {
      channel_.peer.shutdown_write();
      return;
    }
    peer_leaves();
  }

  // Pending writes fail now.
  void
  peer_leaves()
  {
    if (!channel_.has_peer())
      return;
    channel_.peer.close();
    hung_up_ = true;
    calm_ = false;
    in_order_ = false; // unread bytes make the socket drop what the peer sent
  }

  // The peer disconnects, which ends every operation but reads of strings; these are cancelled.
  void
  end()
  {
    channel_.peer.close();
    calm_ = false;
    for (auto &operation : operations_)
      if (!operation.ends)
        g_cancellable_cancel(operation.cancellable.get());
    for (auto &operation : operations_) {
      operation.finish(operation.waiter.wait());
    }
    operations_.clear();
    writer_.reset();
    reader_.reset();
    strings_.reset();
    channel_.connection.reset();
    channel_.socket.reset();
    run_ready(); // no second calls
  }

  // Whether a blocking call that sends what the stages hold cannot block.
  bool
  may_send() const
  {
    return !busy(writes) && (!channel_.has_peer() || (!cut_ && unread_ < safe_to_block));
  }

  Script script_;
  View payload_;
  Channel channel_;
  Ref<GvcBytesInputStream> reader_;
  Ref<GvcDataInputStream> strings_;
  Ref<GvcBytesOutputStream> writer_;
  std::list<Operation> operations_;

  std::vector<Ref<GConverter>> peer_stages_; // the outermost first
  std::deque<View> expected_;                // unread messages of the peer
  bool in_order_ = true;                     // the peer has sent nothing but whole messages
  bool calm_ = true;       // nothing was cancelled, closed or dropped, and the peer is connected
  bool used_ = false;      // the peer has sent or the host has read, so stages cannot be added
  bool hung_up_ = false;   // the peer sends no more
  bool cut_ = false;       // the stages hold a part of a message
  std::size_t unread_ = 0; // at most, by the peer
};

} // namespace

// The script: the calls with their arguments. The payload: bytes of an ill-behaved peer.
extern "C" int
LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  Host(split_input(data, size)).run();
  return 0;
}
