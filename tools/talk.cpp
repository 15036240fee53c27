// SPDX-License-Identifier: LGPL-2.1-or-later
// The conversation of listen and connect: lines of standard input become messages, and messages
// become lines of standard output, in both directions at once.
#include "address.h"
#include "command.h"
#include "interrupt.h"
#include "link.h"
#include "messages.h"

#include <glib-unix.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <mutex>
#include <optional>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <utility>

static void
cancel_too(GCancellable *, gpointer other)
{
  g_cancellable_cancel(static_cast<GCancellable *>(other));
}

// Gives the command the signals of any program. The command and its children are a process group,
// so that they can be ended together.
static void
prepare_command(gpointer)
{
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
  std::signal(SIGXFSZ, SIG_DFL);
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
}

static void
close_stream(GTask *task)
{
  GError *error = nullptr;
  auto *stream = G_OUTPUT_STREAM(g_task_get_source_object(task));
  if (g_output_stream_close(stream, g_task_get_cancellable(task), &error))
    g_task_return_boolean(task, TRUE);
  else
    g_task_return_error(task, error);
  g_object_unref(task);
}

static gboolean
on_interrupt(GCancellable *, gpointer data)
{
  *static_cast<bool *>(data) = true;
  return G_SOURCE_REMOVE;
}

static gboolean
on_grace(gpointer cancellable)
{
  g_cancellable_cancel(static_cast<GCancellable *>(cancellable));
  return G_SOURCE_REMOVE;
}

namespace
{
struct Options {
  MessageFormat format;
  gboolean json = FALSE;
  gboolean keep = FALSE;
  bool tell_end = false; // half-close at the end of the input even if there was no line
  OptionText exec;
  int limit = 64 * 1024 * 1024;

  // Parses the command line. Returns its address.
  Address
  parse(CommandLine &line)
  {
    gboolean frames = FALSE, hex = FALSE;
    OptionText variant, strings;
    line.add("frames", G_OPTION_ARG_NONE, &frames, "A line is a message without changes (default)");
    line.add("hex", G_OPTION_ARG_NONE, &hex, "A line is a message in hexadecimal digits");
    line.add("variant", G_OPTION_ARG_STRING, &variant.value,
             "A line is a GVariant of this type in its text form", "TYPE");
    line.add("strings", G_OPTION_ARG_STRING, &strings.value,
             "Use strings that end with this byte instead of frames: a character, \\n, \\0, \\xNN",
             "TERMINATOR");
    line.add("limit", G_OPTION_ARG_INT, &limit, "Refuse longer messages (default 64 MiB)", "BYTES");
    line.add("json", G_OPTION_ARG_NONE, &json, "Print each message as a JSON object");
    line.add_stages();
    auto arguments = line.parse(1, 1);
    format = MessageFormat::choose(frames, hex, variant, strings);
    if (limit <= 0)
      fail(Exit::usage, "--limit is a number of bytes above 0");
    return Address::parse(arguments[0]);
  }

  // The most bytes in a line of standard input. Digits and the text of a variant take more than
  // what they stand for.
  gsize
  line_limit() const
  {
    bool written_out = format.kind == MessageFormat::hex || format.kind == MessageFormat::variant;
    return static_cast<gsize>(limit) * (written_out ? 8 : 1);
  }
};

class Session;

// The lines of standard input. One line is read ahead, so that it outlasts a peer.
struct Input {
  char chunk[64 * 1024];
  gsize taken = 0, filled = 0; // bytes of the chunk
  std::string part;            // of a line whose end has not come yet
  std::string line;
  guint64 number = 0;
  const gsize limit;
  bool has_line = false;
  bool too_long = false; // `line` is cut
  bool skipping = false; // the remainder of a line that is too long
  bool reading = false;
  bool at_end = false;
  bool used = false; // there was a line
  bool terminal = isatty(STDIN_FILENO);
  std::string failure;
  Session *session = nullptr; // is told about new input

  explicit Input(gsize limit) : limit(limit) {}
  // Makes the next line available if it has arrived. Starts to read otherwise.
  void
  next()
  {
    if (!has_line)
      take_line();
    if (reading || has_line || at_end)
      return;
    reading = true;
    auto conditions = static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR);
    g_unix_fd_add(STDIN_FILENO, conditions, readable, this);
  }

  void
  take_line()
  {
    while (taken < filled && !has_line) {
      auto *from = chunk + taken;
      auto *end = static_cast<char *>(std::memchr(from, '\n', filled - taken));
      auto size = end ? static_cast<gsize>(end - from) : filled - taken;
      taken += size + (end != nullptr);
      if (skipping) {
        skipping = !end;
        continue;
      }
      part.append(from, size);
      too_long = part.size() > limit;
      skipping = too_long && !end;
      if (end || too_long)
        finish_line();
    }
  }

  void
  finish_line()
  {
    line.swap(part);
    part.clear();
    number++;
    has_line = used = true;
  }

  static gboolean readable(int fd, GIOCondition condition, gpointer data);
};

// Writes lines to standard output in a thread. Whether a write would block cannot be known before,
// and neither direction of the channel may wait for a slow reader. GLib's own threads will not do:
// their work is never started if the system refuses another thread.
class Printer
{
public:
  Printer()
  {
    std::thread(&Printer::work, this).detach();
  }

  // The line is the data of the task.
  void
  print(GTask *line)
  {
    std::lock_guard lock(mutex);
    task = line;
    wanted.notify_one();
  }

private:
  void
  work()
  {
    for (std::unique_lock lock(mutex);; lock.lock()) {
      wanted.wait(lock, [this] { return task != nullptr; });
      g_autoptr(GTask) line = std::exchange(task, nullptr);
      lock.unlock();
      auto code = write_all(STDOUT_FILENO, *static_cast<std::string *>(g_task_get_task_data(line)));
      if (code == 0)
        g_task_return_boolean(line, TRUE);
      else
        g_task_return_new_error(line, G_IO_ERROR, g_io_error_from_errno(code), "%s",
                                g_strerror(code));
    }
  }

  std::mutex mutex;
  std::condition_variable wanted;
  GTask *task = nullptr;
};

// One peer, from the connection to the end.
class Session
{
public:
  Session(const Options &options, Input &input, const Stages &stages, GSocketConnection *connection)
      : options(options), input(input), link(connection, stages),
        strings(options.format.kind == MessageFormat::strings),
        strings_in(gvc_data_input_stream_new(G_INPUT_STREAM(link.meter.get()))),
        follows_interrupt(
            g_cancellable_connect(interrupt_now(), G_CALLBACK(cancel_too), leaving.get(), nullptr))
  {
    // People may be silent for any time.
    g_socket_set_timeout(link.socket(), 0);
    if (strings)
      meter_set_strings(link.meter.get(), options.format.terminator);
    auto limit = static_cast<guint32>(options.limit);
    meter_set_limit(link.meter.get(), limit);
    link.counts.set_limit(limit);
    input.session = this;
  }

  ~Session()
  {
    input.session = nullptr;
    g_cancellable_disconnect(interrupt_now(), follows_interrupt);
  }

  // Throws if the channel fails.
  Exit
  run()
  {
    read_next();
    input_changed();
    wait_until_done();

    // No operation may call back after the session. Pending messages have two seconds to leave, or
    // none if the channel has failed.
    g_cancellable_cancel(reading.get());
    Owned<GSource, g_source_unref> grace(g_timeout_source_new(failure.code == Exit::ok ? 2000 : 0));
    g_source_set_callback(grace.get(), on_grace, leaving.get(), nullptr);
    g_source_attach(grace.get(), nullptr);
    while (pending > 0)
      g_main_context_iteration(nullptr, TRUE);
    g_source_destroy(grace.get());

    if (output_closed)
      throw OutputClosed();
    if (interrupted())
      throw Failure{Exit::interrupted, ""};
    if (failure.code != Exit::ok)
      throw failure;
    if (!input.failure.empty())
      fail(Exit::local, "cannot read standard input: %s", input.failure.c_str());
    return worst;
  }

  // Called if there is a new line, a message has been sent, or a side has come to its end.
  void
  input_changed()
  {
    if (done || sending || closing)
      return check_done();
    while (!options.exec && !done && !sending) {
      input.next();
      if (!input.has_line)
        break;
      send_line();
    }
    if (done || sending)
      return;

    // A terminal has no end of its own: it ends with the peer. With --keep, so does every input. If
    // no line was sent, only connect tells the peer of the end.
    bool nothing_to_send = options.exec || (input.at_end && !input.has_line);
    bool worth_telling = input.used && !options.keep && !options.exec;
    if (peer_has_ended && (nothing_to_send || input.terminal || options.keep))
      send_end();
    else if (nothing_to_send && (worth_telling || options.tell_end))
      send_end();
  }

private:
  // A callback of GIO that ends a pending operation.
  template <void (Session::*finish)(GObject *source, GAsyncResult *result)>
  static void
  finished(GObject *source, GAsyncResult *result, gpointer data)
  {
    auto *self = static_cast<Session *>(data);
    self->pending--;
    (self->*finish)(source, result);
  }

  void
  wait_until_done()
  {
    Owned<GSource, g_source_unref> interrupt(g_cancellable_source_new(interrupt_soon()));
    g_source_set_callback(interrupt.get(), G_SOURCE_FUNC(on_interrupt), &done, nullptr);
    g_source_attach(interrupt.get(), nullptr);
    while (!done)
      g_main_context_iteration(nullptr, TRUE);
    g_source_destroy(interrupt.get());
  }

  void
  read_next()
  {
    pending++;
    if (strings)
      gvc_data_input_stream_read_string_async(strings_in.get(), options.format.terminator,
                                              G_PRIORITY_DEFAULT, reading.get(),
                                              finished<&Session::string_read>, this);
    else
      gvc_bytes_input_stream_read_bytes_async(link.frames_in.get(), G_PRIORITY_DEFAULT,
                                              reading.get(), finished<&Session::frame_read>, this);
  }

  void
  frame_read(GObject *, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    Bytes bytes(gvc_bytes_input_stream_read_bytes_finish(link.frames_in.get(), result, &error));
    if (!bytes)
      return read_failed(error);
    gsize size;
    auto *from = static_cast<const char *>(g_bytes_get_data(bytes.get(), &size));
    received(std::string(from ? from : "", size));
  }

  void
  string_read(GObject *, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    gsize length = 0;
    g_autofree char *text =
        gvc_data_input_stream_read_string_finish(strings_in.get(), result, &length, &error);
    if (!text)
      return read_failed(error);
    strings_taken += length;
    received(std::string(text, length - 1));
  }

  void
  received(const std::string &message)
  {
    if (done)
      return;
    if (options.exec)
      execute(message);
    else
      print(message);
  }

  void
  read_failed(const GError *error)
  {
    if (done || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
      return;

    auto *meter = link.meter.get();
    bool at_end = meter_at_end(meter);
    bool whole = strings ? meter_total(meter) == strings_taken : meter_at_boundary(meter);
    bool partial = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
    if (at_end && whole) {
      peer_has_ended = true;
      input_changed();
    } else if (whole && !partial && is_gone(error)) {
      end_with(Exit::peer, link.peer + " went away: " + error->message);
    } else if (at_end || partial || is_gone(error)) {
      end_with(Exit::peer, link.peer + " went away in the middle of a " +
                               (strings ? "string, before its terminator" : "message"));
    } else {
      end_with(Exit::protocol, link.peer + " sends what cannot be understood (" + error->message +
                                   "): it may speak something else, or use another key or other "
                                   "stages");
    }
  }

  void
  not_understood(const GError *error)
  {
    mishap(link.peer + " sent what is no message here: " + error->message);
    read_next();
  }

  void
  print(const std::string &message)
  {
    g_autoptr(GError) error = nullptr;
    std::optional<std::string> line;
    if (options.json) {
      JsonLine json;
      json.add("size", static_cast<guint64>(message.size()));
      if (options.format.add_to(json, message, &error))
        line = json.text();
    } else if ((line = options.format.write_line(message, &error))) {
      // A peer must not control the terminal.
      if (isatty(STDOUT_FILENO))
        line = printable(*line);
      *line += '\n';
    }
    if (!line)
      return not_understood(error);
    pending++;
    auto *task = g_task_new(nullptr, interrupt_now(), finished<&Session::printed>, this);
    g_task_set_task_data(task, new std::string(*line),
                         [](gpointer text) { delete static_cast<std::string *>(text); });
    static auto *printer = new Printer;
    printer->print(task);
  }

  void
  printed(GObject *, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    if (g_task_propagate_boolean(G_TASK(result), &error)) {
      if (!done)
        read_next();
    } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE)) {
      output_closed = done = true;
    } else {
      end_with(Exit::local, std::string("cannot write to standard output: ") + error->message);
    }
  }

  // The command reads the line that would be printed. Its output is sent like a line of input.
  void
  execute(const std::string &message)
  {
    g_autoptr(GError) error = nullptr;
    auto line = options.format.write_line(message, &error);
    if (!line)
      return not_understood(error);
    *line += '\n';

    g_autoptr(GSubprocessLauncher) launcher =
        g_subprocess_launcher_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                                G_SUBPROCESS_FLAGS_STDOUT_PIPE));
    g_subprocess_launcher_set_child_setup(launcher, prepare_command, nullptr, nullptr);
    g_autoptr(GSubprocess) process =
        g_subprocess_launcher_spawn(launcher, &error, "/bin/sh", "-c", options.exec.value, nullptr);
    if (!process)
      return end_with(Exit::local, std::string("cannot run the command: ") + error->message);
    auto *identifier = g_subprocess_get_identifier(process);
    command = identifier ? static_cast<pid_t>(g_ascii_strtoll(identifier, nullptr, 10)) : 0;
    Bytes bytes(g_bytes_new(line->data(), line->size()));
    pending++;
    g_subprocess_communicate_async(process, bytes.get(), reading.get(),
                                   finished<&Session::executed>, this);
  }

  void
  executed(GObject *process, GAsyncResult *result)
  {
    g_autoptr(GBytes) output = nullptr;
    g_autoptr(GError) error = nullptr;
    // A command need not read its input.
    bool ended =
        g_subprocess_communicate_finish(G_SUBPROCESS(process), result, &output, nullptr, &error) ||
        g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
    if (!ended && command > 0)
      kill(-command, SIGTERM);
    if (done)
      return;
    if (!ended)
      return end_with(Exit::local, std::string("cannot talk to the command: ") + error->message);
    if (error)
      output = g_bytes_new_static("", 0);
    answer(output);
  }

  void
  answer(GBytes *output)
  {
    gsize size;
    auto *text = static_cast<const char *>(g_bytes_get_data(output, &size));
    std::string line(text ? text : "", size);
    if (line.ends_with('\n'))
      line.pop_back();
    g_autoptr(GError) error = nullptr;
    if (line.size() > options.line_limit())
      g_set_error(&error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                  "it has more than %" G_GSIZE_FORMAT " bytes", options.line_limit());
    else if (auto message = options.format.read_line(line, &error))
      return send(*message);
    mishap(std::string("the command's output cannot be sent: ") + error->message);
    read_next();
  }

  void
  send_line()
  {
    g_autoptr(GError) error = nullptr;
    std::optional<std::string> message;
    if (input.too_long)
      g_set_error(&error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                  "it has more than %" G_GSIZE_FORMAT " bytes", input.limit);
    else
      message = options.format.read_line(input.line, &error);
    input.has_line = false;
    if (message)
      send(*message);
    else
      mishap("line " + std::to_string(input.number) + " is not sent: " + error->message);
  }

  void
  send(const std::string &message)
  {
    if (message.size() > G_MAXINT32)
      return end_with(Exit::local, "a message has less than 2 GiB");
    sending = true;
    pending++;
    outgoing = message;
    if (strings) {
      outgoing += options.format.terminator;
      gvc_output_stream_util_write_all_async(link.output(), outgoing.data(), outgoing.size(),
                                             G_PRIORITY_DEFAULT, leaving.get(),
                                             finished<&Session::string_sent>, this);
      return;
    }
    Bytes bytes(g_bytes_new_static(outgoing.data(), outgoing.size()));
    gvc_bytes_output_stream_put_bytes_async(link.frames_out.get(), bytes.get(), G_PRIORITY_DEFAULT,
                                            leaving.get(), finished<&Session::frame_sent>, this);
  }

  void
  frame_sent(GObject *, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    gvc_bytes_output_stream_put_bytes_finish(link.frames_out.get(), result, &error);
    sent(error);
  }

  void
  string_sent(GObject *stream, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    gvc_output_stream_util_write_all_finish(G_OUTPUT_STREAM(stream), result, nullptr, &error);
    sent(error);
  }

  void
  sent(const GError *error)
  {
    sending = false;
    if (error) {
      if (!interrupted())
        end_with(Exit::peer, link.peer + " went away and did not get " +
                                 (options.exec ? std::string("the answer")
                                               : "line " + std::to_string(input.number)) +
                                 ": " + error->message);
    } else if (!done) {
      if (options.exec)
        read_next();
      else
        input_changed();
    }
  }

  // Closes our direction of the channel. A thread does it, because the end of the stages may block.
  void
  send_end()
  {
    closing = true;
    pending++;
    auto *task = g_task_new(link.output(), leaving.get(), finished<&Session::end_sent>, this);
    std::thread(close_stream, task).detach();
  }

  void
  end_sent(GObject *, GAsyncResult *result)
  {
    g_autoptr(GError) error = nullptr;
    if (g_task_propagate_boolean(G_TASK(result), &error))
      g_socket_shutdown(link.socket(), FALSE, TRUE, nullptr);
    else if (!peer_has_ended && !interrupted())
      end_with(Exit::peer, link.peer + " went away: " + error->message);
    check_done();
  }

  void
  end_with(Exit code, const std::string &message)
  {
    if (!done)
      failure = {code, message};
    done = true;
  }

  // Complains about a message. The session goes on.
  void
  mishap(const std::string &message)
  {
    complain("%s", message.c_str());
    worst = Exit::partly;
  }

  void
  check_done()
  {
    if (peer_has_ended && closing && pending == 0)
      done = true;
  }

  const Options &options;
  Input &input;
  Link link;
  const bool strings; // instead of frames
  Owned<GvcDataInputStream> strings_in;
  Owned<GCancellable> reading{g_cancellable_new()};
  Owned<GCancellable> leaving{g_cancellable_new()}; // for what is being sent
  gulong follows_interrupt;                         // by which an interrupt cancels `leaving`

  int pending = 0; // operations that will still call back
  bool done = false;
  bool sending = false;
  bool closing = false;        // the end of our messages is being sent, or was
  bool peer_has_ended = false; // no more messages will come
  guint64 strings_taken = 0;   // bytes of complete strings
  std::string outgoing;        // the message or line that is being sent
  pid_t command = 0;           // the command of --exec
  Failure failure = {Exit::ok, ""};
  Exit worst = Exit::ok;
  bool output_closed = false;
};
} // namespace

gboolean
Input::readable(int fd, GIOCondition, gpointer data)
{
  auto *self = static_cast<Input *>(data);
  auto got = read(fd, self->chunk, sizeof self->chunk);
  if (got < 0 && (errno == EINTR || errno == EAGAIN))
    return G_SOURCE_CONTINUE;

  self->reading = false;
  self->taken = 0;
  self->filled = got > 0 ? static_cast<gsize>(got) : 0;
  if (got < 0)
    self->failure = g_strerror(errno);
  if (got <= 0) {
    self->at_end = true;
    if (!self->part.empty())
      self->finish_line();
  }
  if (self->session)
    self->session->input_changed();
  return G_SOURCE_REMOVE;
}

// Talks to one peer until both sides have ended, and takes over the reference to the connection.
// Returns Exit::partly if some message could not be understood. Throws if the channel fails.
static Exit
talk(const Options &options, const Stages &stages, GSocketConnection *connection)
{
  // A source of the main loop refers to it, beyond the session.
  static auto *input = new Input(options.line_limit());
  return Session(options, *input, stages, connection).run();
}

Exit
run_connect(CommandLine &line)
{
  Options options;
  options.tell_end = true;
  auto address = options.parse(line);
  return talk(options, line.stages, connect_to(address, 30));
}

Exit
run_listen(CommandLine &line)
{
  Options options;
  line.add("keep", G_OPTION_ARG_NONE, &options.keep, "Serve one peer after another");
  line.add("exec", G_OPTION_ARG_STRING, &options.exec.value,
           "Answer each message with the output of this shell command", "COMMAND");
  Listener listener(options.parse(line));
  auto serve = [&](auto *connection) { return talk(options, line.stages, connection); };
  // If this side has failed, it would fail with the next peer too.
  return listener.serve(options.keep, serve, Exit::local);
}
