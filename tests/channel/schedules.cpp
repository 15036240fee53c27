// SPDX-License-Identifier: LGPL-2.1-or-later
// Every schedule of up to six events on a channel with two stages: a write, a read, a cancellation,
// a close, the peer's end, and the peer's turn, before which it neither reads nor sends. A model
// says what may come of each operation. A schedule is written as a word of the letters below.
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <semaphore>
#include <thread>

using namespace support;

namespace
{

constexpr char letters[] = {'w', 'r', 'c', 'x', 'e', 'p'};
constexpr gsize most_events = 6;
// Under valgrind and the like.
constexpr gsize most_events_slowly = 4;

// Further differences between two runs of the same schedule.
struct World {
  bool gio;   // GIO's own calls on the message streams, not the message calls
  bool whole; // the peer ends by closing its socket, not only its sending side
  int rounds; // of the main loop after every event; at the end it turns until it is dry
  bool
  turns_dry() const
  {
    return rounds == INT_MAX;
  }
  std::string
  name() const
  {
    return std::string{gio ? "gio" : "messages"} +
           (whole ? "/peer-closes" : "/peer-stops-sending") +
           (turns_dry()   ? "/every-round"
            : rounds == 1 ? "/one-round"
                          : "/no-round");
  }
};

/* ---- Both ends' stages ---- */

// Does not fit into the smallest socket buffer, so that the write waits for the peer.
constexpr gsize large = 12 * 1024;
constexpr gsize small = 40;
constexpr gsize inbound_frame = 48;
constexpr gsize inbound_frames = most_events + 2;

BytesRef
key()
{
  return new_bytes(pattern(32, 7));
}

// Converts whole units from the front of `from`, and leaves a part of one there.
std::string
convert_units(GConverter *converter, std::string *from)
{
  static char room[2 * large];
  std::string result;
  gsize position = 0;
  while (position < from->size()) {
    Error error;
    gsize used = 0, made = 0;
    if (g_converter_convert(converter, from->data() + position, from->size() - position, room,
                            sizeof room, G_CONVERTER_NO_FLAGS, &used, &made,
                            &error) == G_CONVERTER_ERROR) {
      if (!g_error_matches(error.get(), G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT))
        result += error.get()->message; // no message that was written
      break;
    }
    position += used;
    result.append(room, made);
  }
  from->erase(0, position);
  return result;
}

// How a peer reads the bytes from the wire.
class Decoder
{
public:
  void
  feed(std::string_view wire)
  {
    wire_ += wire;
    blocks_ += convert_units(G_CONVERTER(decryptor_.get()), &wire_);
    plain_ += convert_units(G_CONVERTER(decompressor_.get()), &blocks_);
  }
  const std::string &
  plain() const
  {
    return plain_;
  }

private:
  Ref<GvcDecryptor> decryptor_ = own(gvc_decryptor_new(key().get()));
  Ref<GvcDecompressor> decompressor_ = own(gvc_decompressor_new());
  std::string wire_, blocks_, plain_;
};

// The messages of the peer as they travel, and where each prefix and each message ends there.
struct Inbound {
  std::string plain, wire;
  std::vector<gsize> prefix_ends, ends;

  Inbound()
  {
    const auto compressor = own(gvc_compressor_new());
    const auto encryptor = own(gvc_encryptor_new(key().get()));
    const auto send = [&](std::string part) {
      auto block = convert_units(G_CONVERTER(compressor.get()), &part);
      wire += convert_units(G_CONVERTER(encryptor.get()), &block);
      return wire.size();
    };
    for (guint number = 0; number < inbound_frames; number++) {
      const auto message = frame(pattern(inbound_frame - 4, 100 + number));
      plain += message;
      prefix_ends.push_back(send(message.substr(0, 4)));
      ends.push_back(send(message.substr(4)));
    }
  }
};

const Inbound &
inbound()
{
  static const Inbound all;
  return all;
}

const std::string &
outbound_frame(guint number)
{
  static std::vector<std::string> frames;
  while (frames.size() <= number)
    frames.push_back(
        frame(pattern(frames.size() % 2 == 0 ? large : small, 200 + guint(frames.size()))));
  return frames[number];
}

/* ---- The peer ---- */

// Reads while the host is in a call that blocks. One thread for the whole program, so that the
// count of threads tells about the library.
class Reader
{
public:
  Reader()
  {
    std::thread([this] { run(); }).detach();
  }
  void
  start(int fd, std::string *to)
  {
    fd_ = fd;
    to_ = to;
    begin_.release();
  }
  void
  stop()
  {
    eventfd_write(stop_, 1);
    ended_.acquire();
  }

private:
  void
  run()
  {
    for (;;) {
      begin_.acquire();
      pollfd fds[] = {{fd_, POLLIN, 0}, {stop_, POLLIN, 0}};
      while (poll(fds, 2, -1) < 0 || fds[1].revents == 0) {
        char buffer[16 * 1024];
        const auto count = recv(fd_, buffer, sizeof buffer, MSG_DONTWAIT);
        if (count <= 0)
          fds[0].fd = -1;
        else
          to_->append(buffer, static_cast<gsize>(count));
      }
      eventfd_t value;
      eventfd_read(stop_, &value);
      ended_.release();
    }
  }

  int fd_ = -1;
  const int stop_ = eventfd(0, EFD_CLOEXEC);
  std::string *to_ = nullptr;
  std::binary_semaphore begin_{0}, ended_{0};
};

class Peer
{
public:
  explicit Peer(int fd) : fd_{fd}
  {
    send_up_to((inbound().ends[0] + inbound().prefix_ends[1]) / 2);
  }
  ~Peer()
  {
    end(true);
  }

  // Reads what there is, and sends the rest of one message and the beginning of another one: a part
  // of the unit with its prefix, and of that with its payload, in turns.
  void
  take_turn()
  {
    drain();
    const auto next = ++turns_ + 1;
    if (!sending_ || next >= inbound_frames)
      return;
    const auto &begins = next % 2 == 0 ? inbound().ends[next] : inbound().prefix_ends[next];
    const auto &before = next % 2 == 0 ? inbound().prefix_ends[next] : inbound().ends[next - 1];
    send_up_to((begins + before) / 2);
  }
  bool
  drain()
  {
    const auto before = received_.size();
    char buffer[16 * 1024];
    for (gssize count; fd_ >= 0 && (count = recv(fd_, buffer, sizeof buffer, 0)) > 0;)
      received_.append(buffer, static_cast<gsize>(count));
    return received_.size() > before;
  }
  void
  end(bool whole)
  {
    if (fd_ < 0)
      return;
    sending_ = false;
    shutdown(fd_, SHUT_WR);
    if (!whole)
      return;
    // Counts what was on its way, but leaves it unread: the host's socket finds that out.
    char buffer[16 * 1024];
    const auto count = recv(fd_, buffer, sizeof buffer, MSG_PEEK);
    received_.append(buffer, count > 0 ? static_cast<gsize>(count) : 0);
    close(fd_);
    fd_ = -1;
  }

  bool
  sends() const
  {
    return sending_;
  }
  bool
  reads() const
  {
    return fd_ >= 0;
  }
  int
  fd() const
  {
    return fd_;
  }
  gsize
  sent() const
  {
    return sent_;
  }
  std::string &
  received()
  {
    return received_;
  }
  // Bytes that have left the host.
  gsize
  arrived() const
  {
    int waiting = 0;
    if (fd_ >= 0)
      g_assert_cmpint(ioctl(fd_, FIONREAD, &waiting), ==, 0);
    return received_.size() + static_cast<gsize>(waiting);
  }

private:
  void
  send_up_to(gsize end)
  {
    const auto size = end - sent_;
    g_assert_cmpint(send(fd_, inbound().wire.data() + sent_, size, MSG_NOSIGNAL), ==,
                    static_cast<gssize>(size));
    sent_ = end;
  }

  int fd_;
  bool sending_ = true;
  gsize sent_ = 0, turns_ = 0;
  std::string received_;
};

/* ---- The host ---- */

enum class Kind { write, read, close };

// Left behind without a host where its callback has not come in time.
struct Operation {
  class Host *host = nullptr;
  Kind kind = Kind::write;
  guint number = 0; // of the frame that a write sends
  Ref<GCancellable> cancellable = own(g_cancellable_new());
  std::string room; // of GIO's read
  guint calls = 0;
  bool cancelled = false;
  bool in_flight = true;
  bool must_be_refused = false; // another one is in flight in its direction
  bool may_be_closed = false;   // a close has been tried
  bool may_be_pending = false;  // a close is in flight; for a close, anything else
  bool success = false;
  gsize arrived = 0; // of a write that succeeded: what had left by then
};

class Host
{
public:
  explicit Host(const World &world, std::vector<std::string> *problems);

  void play(char event);
  void settle();
  void finish(Operation *operation, GObject *source, GAsyncResult *result);
  bool
  starting() const
  {
    return starting_;
  }
  void
  problem(const char *text)
  {
    problems_->push_back(text);
  }

private:
  Operation *start(Kind kind);
  void write();
  void read();
  void cancel();
  void close();
  void closed(bool success, const GError *error, bool may_be_pending);
  void turn();
  void check_progress();
  void check_sent();
  bool matches(std::string_view plain, gsize write) const;
  void check_error(const Operation &operation, const GError *error);
  void check_read(const Operation &operation, std::string_view got, const GError *error);
  bool in_flight(Kind kind) const;
  bool
  message_is_there() const
  {
    return inbound().ends[delivered_] <= peer_.sent();
  }

  const World &world_;
  std::vector<std::string> *problems_;
  Ref<GvcConnection> channel_;
  Ref<GvcBytesInputStream> in_;
  Ref<GvcBytesOutputStream> out_;
  Peer peer_;
  std::vector<Operation *> operations_;
  bool starting_ = false;
  bool astray_ = false; // a read failed within a message
  guint delivered_ = 0; // messages to the host
  guint writes_ = 0;
  enum class Closing { no, tried, refused, done } closing_ = Closing::no;
};

// A Unix socket with the smallest buffer: what is sent is there at once, and the first write waits.
std::pair<Ref<GSocketConnection>, int>
new_link()
{
  int fds[2];
  g_assert_cmpint(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds), ==, 0);
  const int least = 1;
  g_assert_cmpint(setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &least, sizeof least), ==, 0);
  const auto socket = own(g_socket_new_from_fd(fds[0], nullptr));
  return {own(g_socket_connection_factory_create_connection(socket.get())), fds[1]};
}

Host::Host(const World &world, std::vector<std::string> *problems)
    : world_{world}, problems_{problems}, peer_{[this] {
        auto [connection, fd] = new_link();
        channel_ = own(gvc_connection_new(connection.get()));
        return fd;
      }()}
{
  const auto bytes = key();
  gvc_connection_add_converters(channel_.get(),
                                G_CONVERTER(own(gvc_decryptor_new(bytes.get())).get()),
                                G_CONVERTER(own(gvc_encryptor_new(bytes.get())).get()));
  gvc_connection_add_converters(channel_.get(), G_CONVERTER(own(gvc_decompressor_new()).get()),
                                G_CONVERTER(own(gvc_compressor_new()).get()));
  auto *stream = G_IO_STREAM(channel_.get());
  in_ = own(gvc_bytes_input_stream_new(g_io_stream_get_input_stream(stream)));
  out_ = own(gvc_bytes_output_stream_new(g_io_stream_get_output_stream(stream)));
}

void
ready(GObject *source, GAsyncResult *result, gpointer user_data)
{
  auto *operation = static_cast<Operation *>(user_data);
  if (operation->calls++ > 0)
    g_error("a callback came twice");
  if (!operation->host)
    return;
  if (operation->host->starting())
    operation->host->problem("a callback came within a call");
  operation->host->finish(operation, source, result);
}

bool
Host::in_flight(Kind kind) const
{
  return std::ranges::any_of(operations_,
                             [&](auto *one) { return one->kind == kind && one->in_flight; });
}

Operation *
Host::start(Kind kind)
{
  auto *operation = new Operation;
  operation->host = this;
  operation->kind = kind;
  // Between two rounds of the main loop, one that has ended may not have called back yet.
  const bool busy = kind == Kind::read ? g_input_stream_has_pending(G_INPUT_STREAM(in_.get()))
                                       : g_output_stream_has_pending(G_OUTPUT_STREAM(out_.get()));
  operation->must_be_refused = in_flight(kind) && (busy || world_.rounds != 1);
  operation->may_be_closed = closing_ != Closing::no;
  operation->may_be_pending = in_flight(Kind::close);
  operations_.push_back(operation);
  return operation;
}

void
Host::write()
{
  auto *operation = start(Kind::write);
  operation->number = writes_++;
  const auto &frame = outbound_frame(operation->number);
  auto *cancellable = operation->cancellable.get();
  if (world_.gio)
    g_output_stream_write_all_async(G_OUTPUT_STREAM(out_.get()), frame.data(), frame.size(), 0,
                                    cancellable, ready, operation);
  else
    gvc_bytes_output_stream_put_bytes_async(out_.get(),
                                            new_bytes(std::string_view{frame}.substr(4)).get(), 0,
                                            cancellable, ready, operation);
}

void
Host::read()
{
  auto *operation = start(Kind::read);
  auto *cancellable = operation->cancellable.get();
  operation->room.resize(inbound_frame);
  if (world_.gio)
    g_input_stream_read_all_async(G_INPUT_STREAM(in_.get()), operation->room.data(), inbound_frame,
                                  0, cancellable, ready, operation);
  else
    gvc_bytes_input_stream_read_bytes_async(in_.get(), 0, cancellable, ready, operation);
}

void
Host::cancel()
{
  for (auto *operation : operations_)
    if (operation->in_flight && operation->kind != Kind::close) {
      operation->cancelled = true;
      g_cancellable_cancel(operation->cancellable.get());
    }
}

// The peer reads meanwhile: a close blocks until what a write has left in the stages has gone.
void
Host::close()
{
  static Reader reader;
  auto *stream = G_IO_STREAM(channel_.get());
  const bool peer_reads = writes_ > 0 && peer_.reads();
  if (peer_reads)
    reader.start(peer_.fd(), &peer_.received());
  if (world_.turns_dry()) {
    Error error;
    const bool success = g_io_stream_close(stream, nullptr, &error);
    closed(success, error.get(), in_flight(Kind::write) || in_flight(Kind::read));
  } else {
    auto *operation = start(Kind::close);
    operation->may_be_pending = in_flight(Kind::write) || in_flight(Kind::read);
    closing_ = closing_ == Closing::no ? Closing::tried : closing_;
    for (auto *other : operations_)
      other->may_be_closed = true;
    g_io_stream_close_async(stream, 0, operation->cancellable.get(), ready, operation);
  }
  if (peer_reads)
    reader.stop();
}

// GIO answers a second close by itself, without a look at the streams.
void
Host::closed(bool success, const GError *error, bool may_be_pending)
{
  if (success == (error != nullptr))
    problem("a close neither succeeded nor failed");
  if (closing_ == Closing::refused || closing_ == Closing::done)
    return;
  closing_ = success ? Closing::done : Closing::refused;
  const bool pending = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PENDING);
  if (pending && !may_be_pending)
    problem("a close was refused with nothing in flight");
  if (error && !pending && peer_.reads())
    problem("a close failed");
  // Refused: what is in flight goes on.
  for (auto *operation : operations_)
    operation->may_be_closed |= operation->in_flight && !pending;
}

// Until nothing is ready. A library that keeps the loop busy never gets there.
void
Host::turn()
{
  for (int rounds = 0; g_main_context_iteration(nullptr, FALSE); rounds++)
    if (rounds == 10000) {
      problem("the main loop spins");
      break;
    }
}

void
Host::play(char event)
{
  starting_ = true;
  if (event == 'w')
    write();
  else if (event == 'r')
    read();
  else if (event == 'c')
    cancel();
  else if (event == 'x')
    close();
  else if (event == 'e')
    peer_.end(world_.whole);
  else
    peer_.take_turn();
  starting_ = false;
  if (!world_.turns_dry()) {
    for (int round = 0; round < world_.rounds; round++)
      g_main_context_iteration(nullptr, FALSE);
    return;
  }
  do
    turn();
  while (event == 'p' && peer_.drain());
  if (event == 'p' && in_flight(Kind::write))
    problem("a write waits although the peer reads");
  check_progress();
}

// Operations that may not be in flight once the main loop has nothing to do.
void
Host::check_progress()
{
  for (const auto *operation : operations_) {
    if (!operation->in_flight)
      continue;
    if (operation->kind == Kind::close)
      problem("a close did not call back");
    else if (operation->must_be_refused)
      problem("an operation beside another was not refused");
    else if (operation->cancelled)
      problem("a cancelled operation did not call back");
    else if (closing_ == Closing::done)
      problem("an operation did not call back after the close");
    else if (operation->kind == Kind::read && !astray_ && message_is_there())
      problem("a read waits for a message that is there");
    else if (operation->kind == Kind::read && !peer_.sends())
      problem("a read waits after the peer's end");
    else if (operation->kind == Kind::write && !peer_.reads())
      problem("a write waits after the peer's end");
  }
}

void
Host::check_error(const Operation &operation, const GError *error)
{
  if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PENDING)
          ? operation.must_be_refused || operation.may_be_pending
      : g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)
          ? operation.cancelled || operation.may_be_closed
      : g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED) ? operation.may_be_closed
      : g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED)
          ? !peer_.reads()
          : operation.kind == Kind::read && !peer_.sends())
    return;
  problems_->push_back(std::string(operation.kind == Kind::read ? "a read" : "a write") +
                       " failed: " + error->message);
}

void
Host::check_read(const Operation &operation, std::string_view got, const GError *error)
{
  if (!error && operation.must_be_refused)
    problem("an operation beside another was not refused");
  if (astray_)
    return;
  const bool refused =
      operation.must_be_refused || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED);
  if (error) {
    check_error(operation, error);
    // It may have taken what was there of the next message.
    const bool by_end = !operation.cancelled && !operation.may_be_closed;
    if (!refused && by_end && message_is_there())
      problem("a read lost a message at the peer's end");
    astray_ = !refused && inbound().prefix_ends[delivered_] <= peer_.sent();
    return;
  }
  const auto expected =
      std::string_view{inbound().plain}.substr(delivered_ * inbound_frame, inbound_frame);
  if (got != expected.substr(inbound_frame - got.size()))
    problem("a read got wrong bytes");
  delivered_++;
}

void
Host::finish(Operation *operation, GObject *source, GAsyncResult *result)
{
  Error error;
  operation->in_flight = false;
  if (operation->kind == Kind::close) {
    const bool success = g_io_stream_close_finish(G_IO_STREAM(source), result, &error);
    closed(success, error.get(), operation->may_be_pending);
  } else if (operation->kind == Kind::read) {
    gsize size = 0;
    BytesRef bytes;
    if (world_.gio)
      g_input_stream_read_all_finish(G_INPUT_STREAM(source), result, &size, &error);
    else
      bytes.reset(
          gvc_bytes_input_stream_read_bytes_finish(GVC_BYTES_INPUT_STREAM(source), result, &error));
    if (!world_.gio && !bytes == !error)
      problem("a read neither succeeded nor failed");
    check_read(*operation, bytes ? bytes_string(bytes.get()) : operation->room.substr(0, size),
               error.get());
  } else {
    operation->success =
        world_.gio
            ? g_output_stream_write_all_finish(G_OUTPUT_STREAM(source), result, nullptr, &error)
            : gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(source), result,
                                                       &error);
    operation->arrived = peer_.arrived();
    if (operation->success == static_cast<bool>(error))
      problem("a write neither succeeded nor failed");
    if (operation->success && operation->must_be_refused)
      problem("an operation beside another was not refused");
    if (error)
      check_error(*operation, error.get());
  }
}

// Whether `plain` is what the writes from number `write` on may have made: all of each one that
// succeeded, nothing of one that was refused, and of any other one some beginning.
bool
Host::matches(std::string_view plain, gsize write) const
{
  std::vector<const Operation *> writes;
  for (const auto *operation : operations_)
    if (operation->kind == Kind::write && !operation->must_be_refused)
      writes.push_back(operation);
  if (write == writes.size())
    return plain.empty();
  const std::string_view frame = outbound_frame(writes[write]->number);
  const auto [end, ignored] = std::ranges::mismatch(frame, plain);
  auto common = static_cast<gsize>(end - frame.begin());
  if (writes[write]->success)
    return (common == frame.size() || !peer_.reads()) && matches(plain.substr(common), write + 1);
  for (;; common--) {
    if (matches(plain.substr(common), write + 1))
      return true;
    if (common == 0)
      return false;
  }
}

void
Host::check_sent()
{
  Decoder decoder;
  gsize fed = 0;
  for (const auto *operation : operations_) {
    if (operation->kind != Kind::write || !operation->success)
      continue;
    if (operation->arrived > fed)
      decoder.feed(std::string_view{peer_.received()}.substr(fed, operation->arrived - fed));
    fed = std::max(fed, operation->arrived);
    if (!decoder.plain().ends_with(outbound_frame(operation->number)))
      problem("a write succeeded before its bytes had left");
  }
  decoder.feed(std::string_view{peer_.received()}.substr(fed));
  if (!matches(decoder.plain(), 0))
    problem("bytes were lost or came twice");
}

// The peer reads and the loop turns until nothing moves; then the peer goes for good.
void
Host::settle()
{
  do
    turn();
  while (peer_.drain());
  if (peer_.reads() && in_flight(Kind::write) && closing_ != Closing::done)
    problem("a write waits although the peer reads");
  check_progress();
  if (problems_->empty()) {
    peer_.end(false);
    turn();
    check_progress();
  }
  check_sent();
  peer_.end(true);
  turn();

  GObject *objects[] = {G_OBJECT(channel_.get()), G_OBJECT(in_.get()), G_OBJECT(out_.get()),
                        G_OBJECT(gvc_connection_get_connection(channel_.get()))};
  for (auto &object : objects)
    g_object_add_weak_pointer(object, reinterpret_cast<gpointer *>(&object));
  in_.reset();
  out_.reset();
  channel_.reset();
  turn();
  for (auto &object : objects)
    if (object) {
      problem("an object stays alive");
      g_object_remove_weak_pointer(object, reinterpret_cast<gpointer *>(&object));
    }
  for (auto *operation : operations_) {
    operation->host = nullptr;
    if (!operation->in_flight)
      delete operation;
  }
}

/* ---- The schedules ---- */

// Whether the event may do something that the schedule without it does not: there is something to
// cancel; the peer is still there, or has something to send or to read; and what a second close
// does, a third one does.
bool
tells(const std::string &schedule, char event)
{
  const auto since = [&](const char *what, const char *wanted) {
    const auto at = schedule.find_last_of(what);
    return schedule.find_first_of(wanted, at == std::string::npos ? 0 : at) != std::string::npos;
  };
  const bool ended = schedule.find('e') != std::string::npos;
  if (event == 'c')
    return since("c", "wr");
  if (event == 'e')
    return !ended;
  if (event == 'p')
    return !ended || since("p", "w");
  return event != 'x' || std::ranges::count(schedule, 'x') < 2;
}

char running[160];

void
stuck(int)
{
  static const char text[] = "\nBail out! This schedule does not end: ";
  (void)!write(STDOUT_FILENO, text, sizeof text - 1);
  (void)!write(STDOUT_FILENO, running, strlen(running));
  _exit(1);
}

nlink_t
thread_count()
{
  struct stat status;
  g_assert_cmpint(stat("/proc/self/task", &status), ==, 0);
  return status.st_nlink;
}

struct Tally {
  guint schedules = 0;
  std::map<std::string, std::pair<guint, std::string>> problems; // how often, the shortest schedule
};

void
run_one(const World &world, const std::string &schedule, Tally *tally)
{
  std::vector<std::string> problems;
  g_snprintf(running, sizeof running, "%s %s\n", world.name().c_str(), schedule.c_str());
  alarm(static_cast<unsigned>(watchdog_usec() / G_USEC_PER_SEC));
  const auto threads = thread_count();
  {
    Host host(world, &problems);
    for (char event : schedule)
      host.play(event);
    host.settle();
  }
  if (thread_count() != threads)
    problems.push_back("a thread was started");
  tally->schedules++;
  for (const auto &problem : problems)
    if (auto &[times, first] = tally->problems[problem];
        times++ == 0 || schedule.size() < first.size())
      first = schedule;
}

void
run_from(const World &world, const std::string &schedule, Tally *tally)
{
  static const gsize most = g_getenv("TEST_PATIENCE") ? most_events_slowly : most_events;
  if (!schedule.empty())
    run_one(world, schedule, tally);
  for (char event : letters)
    if (schedule.size() < most && tells(schedule, event))
      run_from(world, schedule + event, tally);
}

void
test_world(gconstpointer data)
{
  const auto &world = *static_cast<const World *>(data);
  Tally tally, warm_up;
  run_one(world, "wx", &warm_up); // starts the peer's reader
  if (const char *schedule = g_getenv("TEST_SCHEDULE"))
    run_one(world, schedule, &tally);
  else
    run_from(world, "", &tally);
  alarm(0);
  g_test_message("%u schedules", tally.schedules);
  for (const auto &[text, found] : tally.problems) {
    g_test_message("%s: in %u, %s for one", text.c_str(), found.first, found.second.c_str());
    g_test_fail();
  }
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  signal(SIGALRM, stuck);
  std::vector<World> worlds;
  for (bool gio : {false, true})
    for (bool whole : {false, true})
      for (int rounds : {INT_MAX, 1, 0})
        worlds.push_back({gio, whole, rounds});
  for (const auto &world : worlds)
    g_test_add_data_func(("/schedules/" + world.name()).c_str(), &world, test_world);
  return g_test_run();
}
