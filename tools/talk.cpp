// SPDX-License-Identifier: LGPL-2.1-or-later
#include "talk.h"
#include "channel.h"
#include "interrupt.h"

#include <glib-unix.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <utility>

// The lines of standard input, read one ahead, so that they outlast a peer.
struct Talk::Input {
  char chunk[64 * 1024];
  gsize taken = 0, filled = 0; // bytes of the chunk
  std::string part;            // of a line whose end has not come yet
  std::string line;
  guint64 number = 0;
  const gsize limit;
  bool has_line = false;
  bool too_long = false; // so is the line, of which only the beginning is there
  bool skipping = false; // the rest of such a line
  bool reading = false;
  bool at_end = false;
  bool used = false; // at least one line was there
  bool terminal = isatty(STDIN_FILENO);
  std::string failure;
  Session *session = nullptr; // which is told about new input

  explicit Input(gsize limit) : limit(limit) {}
  void next();
  void take_line();
  void finish_line();
  static gboolean readable(int fd, GIOCondition condition, gpointer data);
};

struct Talk::Session {
  const TalkOptions &options;
  Input &input;
  GSocketConnection *socket_connection;
  GvcConnection *channel;
  StageCounts counts;
  ToolMeter *meter;
  GvcBytesInputStream *frames_in;
  GvcBytesOutputStream *frames_out;
  GvcDataInputStream *strings_in;
  GCancellable *cancellable; // of all that only reads
  GCancellable *leaving;     // of what is sent
  gulong follows_interrupt;  // by which an interrupt reaches the latter
  std::string peer;

  int pending = 0; // operations that will still call back
  bool done = false;
  bool sending = false;
  bool closing = false;        // the end of our messages is being sent, or was
  bool peer_has_ended = false; // no more messages will come
  guint64 strings_taken = 0;   // bytes of complete strings
  std::string outgoing;        // the message or line that is on its way
  pid_t command = 0;           // that --exec runs
  Failure failure = {Exit::ok, ""};
  Exit worst = Exit::ok;
  bool output_closed = false;

  Session(const TalkOptions &options, Input &input, GSocketConnection *connection);
  ~Session();

  void run();
  void read_next();
  void received(const std::string &message);
  void read_failed(GError *error);
  void print(const std::string &message);
  void execute(const std::string &message);
  void answer(GBytes *output);
  void send_line();
  void send(const std::string &message);
  void sent(GError *error);
  void input_changed();
  void send_end();
  void end_with(Exit code, const std::string &message);
  void mishap(const std::string &message);
  void check_done();

  static void frame_read(GObject *source, GAsyncResult *result, gpointer data);
  static void string_read(GObject *source, GAsyncResult *result, gpointer data);
  static void printed(GObject *source, GAsyncResult *result, gpointer data);
  static void executed(GObject *source, GAsyncResult *result, gpointer data);
  static void frame_sent(GObject *source, GAsyncResult *result, gpointer data);
  static void string_sent(GObject *source, GAsyncResult *result, gpointer data);
  static void end_sent(GObject *source, GAsyncResult *result, gpointer data);
};

// Makes the next line available if it is there, and starts to read otherwise.
void
Talk::Input::next()
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
Talk::Input::take_line()
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
Talk::Input::finish_line()
{
  line.swap(part);
  part.clear();
  number++;
  has_line = used = true;
}

gboolean
Talk::Input::readable(int fd, GIOCondition, gpointer data)
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

static void
cancel_too(GCancellable *, gpointer other)
{
  g_cancellable_cancel(static_cast<GCancellable *>(other));
}

Talk::Session::Session(const TalkOptions &options, Input &input, GSocketConnection *connection)
    : options(options), input(input), socket_connection(connection),
      channel(gvc_connection_new(connection)), peer(name_of_peer(connection))
{
  // People take their time.
  g_socket_set_timeout(g_socket_connection_get_socket(connection), 0);
  add_stages(channel, options.stages, &counts);
  auto *io = G_IO_STREAM(channel);
  meter = meter_new(g_io_stream_get_input_stream(io));
  if (options.format.kind == MessageFormat::strings)
    meter_set_strings(meter, options.format.terminator);
  meter_set_limit(meter, options.limit);
  counts.set_limit(options.limit);
  frames_in = gvc_bytes_input_stream_new(G_INPUT_STREAM(meter));
  frames_out = gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  strings_in = gvc_data_input_stream_new(G_INPUT_STREAM(meter));
  cancellable = g_cancellable_new();
  leaving = g_cancellable_new();
  follows_interrupt =
      g_cancellable_connect(interrupt_now(), G_CALLBACK(cancel_too), leaving, nullptr);
  input.session = this;
}

Talk::Session::~Session()
{
  input.session = nullptr;
  g_io_stream_close(G_IO_STREAM(socket_connection), nullptr, nullptr);
  g_cancellable_disconnect(interrupt_now(), follows_interrupt);
  g_object_unref(leaving);
  g_object_unref(cancellable);
  g_object_unref(strings_in);
  g_object_unref(frames_out);
  g_object_unref(frames_in);
  g_object_unref(meter);
  g_object_unref(channel);
  g_object_unref(socket_connection);
}

void
Talk::Session::end_with(Exit code, const std::string &message)
{
  if (!done)
    failure = {code, message};
  done = true;
}

// Something that is no reason to stop.
void
Talk::Session::mishap(const std::string &message)
{
  complain("%s", message.c_str());
  worst = Exit::partly;
}

void
Talk::Session::read_next()
{
  pending++;
  if (options.format.kind == MessageFormat::strings)
    gvc_data_input_stream_read_string_async(strings_in, options.format.terminator,
                                            G_PRIORITY_DEFAULT, cancellable, string_read, this);
  else
    gvc_bytes_input_stream_read_bytes_async(frames_in, G_PRIORITY_DEFAULT, cancellable, frame_read,
                                            this);
}

void
Talk::Session::frame_read(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  GError *error = nullptr;

  self->pending--;
  auto *bytes = gvc_bytes_input_stream_read_bytes_finish(self->frames_in, result, &error);
  if (!bytes) {
    self->read_failed(error);
    return;
  }
  gsize size;
  auto *from = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  self->received(std::string(from ? from : "", size));
  g_bytes_unref(bytes);
}

void
Talk::Session::string_read(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  GError *error = nullptr;
  gsize length = 0;

  self->pending--;
  g_autofree char *text =
      gvc_data_input_stream_read_string_finish(self->strings_in, result, &length, &error);
  if (!text) {
    self->read_failed(error);
    return;
  }
  self->strings_taken += length;
  self->received(std::string(text, length - 1));
}

void
Talk::Session::read_failed(GError *owned)
{
  g_autoptr(GError) error = owned;
  if (done || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
    return;

  bool strings = options.format.kind == MessageFormat::strings;
  bool whole = strings ? meter_total(meter) == strings_taken : meter_at_boundary(meter);
  if (meter_at_end(meter) && whole) {
    peer_has_ended = true;
    input_changed();
  } else if (meter_at_end(meter) || is_gone(error) ||
             g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT)) {
    const char *what = strings ? "string, before its terminator" : "message";
    bool between = whole && !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
    end_with(Exit::peer, between ? peer + " went away: " + error->message
                                 : peer + " went away in the middle of a " + what);
  } else {
    end_with(Exit::protocol, peer + " sends what cannot be understood (" + error->message +
                                 "): it may speak something else, or use another key or other "
                                 "stages");
  }
}

void
Talk::Session::received(const std::string &message)
{
  if (done)
    return;
  if (options.exec)
    execute(message);
  else
    print(message);
}

// A thread waits for the reader of standard output. Whether a write would block cannot be known
// before, and neither the peer nor standard input shall wait for it. GLib's own threads would not
// do: work waits for ever where the system refuses another one.
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

void
Talk::Session::print(const std::string &message)
{
  std::string why;
  auto line = std::make_unique<std::string>();
  bool understood;

  if (options.json) {
    JsonLine json;
    json.add("size", static_cast<guint64>(message.size()));
    understood = options.format.add_to(json, message, &why);
    *line = json.text();
  } else {
    understood = options.format.write_line(message, line.get(), &why);
    // A peer does not get to control the terminal.
    if (isatty(STDOUT_FILENO))
      *line = printable(*line);
    *line += '\n';
  }
  if (!understood) {
    mishap(peer + " sent what is no message here: " + why);
    read_next();
    return;
  }
  pending++;
  auto *task = g_task_new(nullptr, interrupt_now(), printed, this);
  g_task_set_task_data(task, line.release(),
                       [](gpointer text) { delete static_cast<std::string *>(text); });
  static auto *printer = new Printer;
  printer->print(task);
}

void
Talk::Session::printed(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  g_autoptr(GError) error = nullptr;

  self->pending--;
  if (g_task_propagate_boolean(G_TASK(result), &error)) {
    if (!self->done)
      self->read_next();
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE)) {
    self->output_closed = self->done = true;
  } else {
    self->end_with(Exit::local, std::string("cannot write to standard output: ") + error->message);
  }
}

// The command gets signals as any program does. It and its children are a process group, which ends
// with this program.
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

// The command reads the line that would be printed, and what it writes is taken like a line of
// standard input.
void
Talk::Session::execute(const std::string &message)
{
  std::string line, why;
  if (!options.format.write_line(message, &line, &why)) {
    mishap(peer + " sent what is no message here: " + why);
    read_next();
    return;
  }
  line += '\n';

  g_autoptr(GError) error = nullptr;
  g_autoptr(GSubprocessLauncher) launcher = g_subprocess_launcher_new(static_cast<GSubprocessFlags>(
      G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE));
  g_subprocess_launcher_set_child_setup(launcher, prepare_command, nullptr, nullptr);
  g_autoptr(GSubprocess) process =
      g_subprocess_launcher_spawn(launcher, &error, "/bin/sh", "-c", options.exec.value, nullptr);
  if (!process) {
    end_with(Exit::local, std::string("cannot run the command: ") + error->message);
    return;
  }
  auto *identifier = g_subprocess_get_identifier(process);
  command = identifier ? static_cast<pid_t>(g_ascii_strtoll(identifier, nullptr, 10)) : 0;
  g_autoptr(GBytes) bytes = g_bytes_new(line.data(), line.size());
  pending++;
  g_subprocess_communicate_async(process, bytes, cancellable, executed, this);
}

void
Talk::Session::executed(GObject *source, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  auto *process = G_SUBPROCESS(source);
  g_autoptr(GBytes) output = nullptr;
  g_autoptr(GError) error = nullptr;

  self->pending--;
  // A command that does not read what it is given is no failure.
  bool finished = g_subprocess_communicate_finish(process, result, &output, nullptr, &error) ||
                  g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE);
  if (!finished && self->command > 0)
    kill(-self->command, SIGTERM);
  if (self->done)
    return;
  if (!finished) {
    self->end_with(Exit::local, std::string("cannot talk to the command: ") + error->message);
    return;
  }
  if (error)
    output = g_bytes_new_static("", 0);
  self->answer(output);
}

void
Talk::Session::answer(GBytes *output)
{
  gsize size;
  auto *text = static_cast<const char *>(g_bytes_get_data(output, &size));
  std::string line(text ? text : "", size), message, why;
  if (line.ends_with('\n'))
    line.pop_back();
  if (options.format.read_line(line, &message, &why)) {
    send(message);
    return;
  }
  mishap("the command's output cannot be sent: " + why);
  read_next();
}

void
Talk::Session::send_line()
{
  std::string message, why;
  bool good = !input.too_long && options.format.read_line(input.line, &message, &why);
  if (input.too_long)
    why = "it has more than " + std::to_string(input.limit) + " bytes";
  input.has_line = false;
  if (good)
    send(message);
  else
    mishap("line " + std::to_string(input.number) + " is not sent: " + why);
}

void
Talk::Session::send(const std::string &message)
{
  if (message.size() > G_MAXINT32) {
    end_with(Exit::local, "a message has less than 2 GiB");
    return;
  }
  sending = true;
  pending++;
  outgoing = message;
  if (options.format.kind == MessageFormat::strings) {
    outgoing += options.format.terminator;
    auto *out = g_io_stream_get_output_stream(G_IO_STREAM(channel));
    gvc_output_stream_util_write_all_async(out, outgoing.data(), outgoing.size(),
                                           G_PRIORITY_DEFAULT, leaving, string_sent, this);
    return;
  }
  g_autoptr(GBytes) bytes = g_bytes_new_static(outgoing.data(), outgoing.size());
  gvc_bytes_output_stream_put_bytes_async(frames_out, bytes, G_PRIORITY_DEFAULT, leaving,
                                          frame_sent, this);
}

void
Talk::Session::frame_sent(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  GError *error = nullptr;
  gvc_bytes_output_stream_put_bytes_finish(self->frames_out, result, &error);
  self->sent(error);
}

void
Talk::Session::string_sent(GObject *source, GAsyncResult *result, gpointer data)
{
  GError *error = nullptr;
  gvc_output_stream_util_write_all_finish(G_OUTPUT_STREAM(source), result, nullptr, &error);
  static_cast<Session *>(data)->sent(error);
}

void
Talk::Session::sent(GError *owned)
{
  g_autoptr(GError) error = owned;

  pending--;
  sending = false;
  if (error) {
    if (!interrupted())
      end_with(Exit::peer, peer + " went away and did not get " +
                               (options.exec ? std::string("the answer")
                                             : "line " + std::to_string(input.number)) +
                               ": " + error->message);
    return;
  }
  if (done)
    return;
  if (options.exec)
    read_next();
  else
    input_changed();
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

// Half of the channel is closed, and the peer learns that no more messages will come. What the
// stages send then is written in a thread, as GIO would do it.
void
Talk::Session::send_end()
{
  closing = true;
  pending++;
  auto *out = g_io_stream_get_output_stream(G_IO_STREAM(channel));
  std::thread(close_stream, g_task_new(out, leaving, end_sent, this)).detach();
}

void
Talk::Session::end_sent(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  g_autoptr(GError) error = nullptr;

  self->pending--;
  auto *socket = g_socket_connection_get_socket(self->socket_connection);
  if (g_task_propagate_boolean(G_TASK(result), &error))
    g_socket_shutdown(socket, FALSE, TRUE, nullptr);
  else if (!self->peer_has_ended && !interrupted())
    self->end_with(Exit::peer, self->peer + " went away: " + error->message);
  self->check_done();
}

void
Talk::Session::check_done()
{
  if (peer_has_ended && closing && pending == 0)
    done = true;
}

// Called whenever there is a new line, a message has left, or either side has come to its end.
void
Talk::Session::input_changed()
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

  // A terminal is at its end with the peer, and so is every input where the next peer waits.
  // Without a single line to send there is no end to tell the peer of, and only connect does.
  bool nothing_to_send = options.exec || (input.at_end && !input.has_line);
  bool worth_telling = input.used && !options.keep && !options.exec;
  if (peer_has_ended && (nothing_to_send || input.terminal || options.keep))
    send_end();
  else if (nothing_to_send && (worth_telling || options.tell_end))
    send_end();
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

void
Talk::Session::run()
{
  g_autoptr(GSource) source = g_cancellable_source_new(interrupt_soon());
  g_source_set_callback(source, G_SOURCE_FUNC(on_interrupt), &done, nullptr);
  g_source_attach(source, nullptr);

  read_next();
  input_changed();
  while (!done)
    g_main_context_iteration(nullptr, TRUE);

  // Nothing of this session may call back after it. What is on its way has two seconds to leave,
  // and none where the channel has failed.
  g_cancellable_cancel(cancellable);
  g_autoptr(GSource) grace = g_timeout_source_new(failure.code == Exit::ok ? 2000 : 0);
  g_source_set_callback(grace, on_grace, leaving, nullptr);
  g_source_attach(grace, nullptr);
  while (pending > 0)
    g_main_context_iteration(nullptr, TRUE);
  g_source_destroy(grace);
  g_source_destroy(source);
}

// The source of standard input outlasts a session.
Talk::Talk(const TalkOptions &options) : options(options)
{
  static auto *standard_input = new Input(options.line_limit());
  input = standard_input;
}

Exit
Talk::with(GSocketConnection *connection)
{
  Session session(options, *input, connection);
  session.run();
  if (session.output_closed)
    throw OutputClosed();
  if (interrupted())
    throw Failure{Exit::interrupted, ""};
  if (session.failure.code != Exit::ok)
    throw session.failure;
  if (!input->failure.empty())
    fail(Exit::local, "cannot read standard input: %s", input->failure.c_str());
  return session.worst;
}

void
TalkOptions::add_to(CommandLine &line)
{
  const GOptionEntry entries[] = {
      {"frames", 0, 0, G_OPTION_ARG_NONE, &frames, "A line is a message as it is (default)",
       nullptr},
      {"hex", 0, 0, G_OPTION_ARG_NONE, &hex, "A line is a message in hexadecimal digits", nullptr},
      {"variant", 0, 0, G_OPTION_ARG_STRING, &variant.value,
       "A line is a GVariant of this type in its text form", "TYPE"},
      {"strings", 0, 0, G_OPTION_ARG_STRING, &strings.value,
       "No frames but strings that end with this byte: a character, \\n, \\0, \\xNN", "TERMINATOR"},
      {"limit", 0, 0, G_OPTION_ARG_INT, &limit_option,
       "Refuse messages of more bytes than this (default 64 MiB)", "BYTES"},
      {"json", 0, 0, G_OPTION_ARG_NONE, &json, "Print each message as a JSON object", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr},
  };
  line.add(entries);
  line.add(&stages);
}

// Digits and the text of a variant take more than what they stand for.
gsize
TalkOptions::line_limit() const
{
  bool written_out = format.kind == MessageFormat::hex || format.kind == MessageFormat::variant;
  return written_out ? gsize{8} * limit : limit;
}

void
TalkOptions::check()
{
  format = MessageFormat::choose(frames, hex, variant, strings);
  if (limit_option <= 0)
    fail(Exit::usage, "--limit is a number of bytes above 0");
  limit = static_cast<guint>(limit_option);
}
