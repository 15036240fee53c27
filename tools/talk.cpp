// SPDX-License-Identifier: LGPL-2.1-or-later
#include "talk.h"
#include "channel.h"
#include "interrupt.h"

#include <gio/gunixinputstream.h>
#include <gio/gunixoutputstream.h>

#include <csignal>
#include <unistd.h>

// The lines of standard input, read one ahead, so that they outlast a peer.
struct Talk::Input {
  GDataInputStream *stream;
  std::string line;
  guint64 number = 0;
  bool has_line = false;
  bool reading = false;
  bool at_end = false;
  bool used = false; // at least one line was there
  bool terminal = isatty(STDIN_FILENO);
  std::string failure;
  Session *session = nullptr; // which is told about a new line

  Input()
  {
    g_autoptr(GInputStream) base = g_unix_input_stream_new(STDIN_FILENO, FALSE);
    stream = g_data_input_stream_new(base);
    g_buffered_input_stream_set_buffer_size(G_BUFFERED_INPUT_STREAM(stream), 64 * 1024);
  }

  void
  next()
  {
    if (reading || has_line || at_end)
      return;
    reading = true;
    g_data_input_stream_read_line_async(stream, G_PRIORITY_DEFAULT, interrupt_soon(), line_read,
                                        this);
  }

  static void line_read(GObject *, GAsyncResult *result, gpointer data);
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
  GOutputStream *standard_output;
  GCancellable *cancellable; // of all that only reads
  std::string peer;

  int pending = 0; // operations that will still call back
  bool done = false;
  bool sending = false;
  bool closing = false;        // the end of our messages is being sent, or was
  bool peer_has_ended = false; // no more messages will come
  guint64 strings_taken = 0;   // bytes of complete strings
  std::string outgoing;        // the message or line that is on its way
  std::string printing;
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

void
Talk::Input::line_read(GObject *, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Input *>(data);
  g_autoptr(GError) error = nullptr;
  gsize length = 0;

  self->reading = false;
  g_autofree char *text =
      g_data_input_stream_read_line_finish(self->stream, result, &length, &error);
  if (text) {
    self->line.assign(text, length);
    self->number++;
    self->has_line = self->used = true;
  } else {
    self->at_end = true;
    if (error && !g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
      self->failure = error->message;
  }
  if (self->session)
    self->session->input_changed();
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
    meter_set_strings(meter);
  meter_set_limit(meter, options.limit);
  counts.set_limit(options.limit);
  frames_in = gvc_bytes_input_stream_new(G_INPUT_STREAM(meter));
  frames_out = gvc_bytes_output_stream_new(g_io_stream_get_output_stream(io));
  strings_in = gvc_data_input_stream_new(G_INPUT_STREAM(meter));
  standard_output = g_unix_output_stream_new(STDOUT_FILENO, FALSE);
  cancellable = g_cancellable_new();
  input.session = this;
}

Talk::Session::~Session()
{
  input.session = nullptr;
  g_io_stream_close(G_IO_STREAM(socket_connection), nullptr, nullptr);
  g_object_unref(cancellable);
  g_object_unref(standard_output);
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

void
Talk::Session::print(const std::string &message)
{
  std::string why;
  bool understood;

  if (options.json) {
    JsonLine json;
    json.add("size", static_cast<guint64>(message.size()));
    understood = options.format.add_to(json, message, &why);
    printing = json.text();
  } else {
    understood = options.format.write_line(message, &printing, &why);
    // A peer does not get to control the terminal.
    if (isatty(STDOUT_FILENO))
      printing = printable(printing);
    printing += '\n';
  }
  if (!understood) {
    mishap(peer + " sent what is no message here: " + why);
    read_next();
    return;
  }
  pending++;
  g_output_stream_write_all_async(standard_output, printing.data(), printing.size(),
                                  G_PRIORITY_DEFAULT, interrupt_now(), printed, this);
}

void
Talk::Session::printed(GObject *source, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  g_autoptr(GError) error = nullptr;

  self->pending--;
  if (g_output_stream_write_all_finish(G_OUTPUT_STREAM(source), result, nullptr, &error)) {
    if (!self->done)
      self->read_next();
  } else if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_BROKEN_PIPE)) {
    self->output_closed = self->done = true;
  } else {
    self->end_with(Exit::local, std::string("cannot write to standard output: ") + error->message);
  }
}

static void
unblock_signals(gpointer)
{
  sigset_t all;
  sigfillset(&all);
  sigprocmask(SIG_UNBLOCK, &all, nullptr);
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
  g_subprocess_launcher_set_child_setup(launcher, unblock_signals, nullptr, nullptr);
  g_autoptr(GSubprocess) process =
      g_subprocess_launcher_spawn(launcher, &error, "/bin/sh", "-c", options.exec.value, nullptr);
  if (!process) {
    end_with(Exit::local, std::string("cannot run the command: ") + error->message);
    return;
  }
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
  bool good = options.format.read_line(input.line, &message, &why);
  input.has_line = false;
  if (good) {
    send(message);
    return;
  }
  mishap("line " + std::to_string(input.number) + " is not sent: " + why);
  input.next();
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
                                           G_PRIORITY_DEFAULT, interrupt_now(), string_sent, this);
    return;
  }
  g_autoptr(GBytes) bytes = g_bytes_new_static(outgoing.data(), outgoing.size());
  gvc_bytes_output_stream_put_bytes_async(frames_out, bytes, G_PRIORITY_DEFAULT, interrupt_now(),
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

// Half of the channel is closed, and the peer learns that no more messages will come.
void
Talk::Session::send_end()
{
  closing = true;
  pending++;
  g_output_stream_close_async(g_io_stream_get_output_stream(G_IO_STREAM(channel)),
                              G_PRIORITY_DEFAULT, interrupt_now(), end_sent, this);
}

void
Talk::Session::end_sent(GObject *source, GAsyncResult *result, gpointer data)
{
  auto *self = static_cast<Session *>(data);
  g_autoptr(GError) error = nullptr;

  self->pending--;
  auto *socket = g_socket_connection_get_socket(self->socket_connection);
  bool closed = g_output_stream_close_finish(G_OUTPUT_STREAM(source), result, &error);
  if (closed)
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
  if (!options.exec && input.has_line)
    send_line();
  if (done || sending)
    return;
  if (!options.exec)
    input.next();

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

  // Nothing of this session may call back after it. A message on its way is finished.
  g_cancellable_cancel(cancellable);
  while (pending > 0)
    g_main_context_iteration(nullptr, TRUE);
  g_source_destroy(source);
}

// A read of standard input may be under way when the program ends, so what it reads into stays.
Talk::Talk(const TalkOptions &options) : options(options)
{
  static auto *standard_input = new Input;
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

void
TalkOptions::check()
{
  format = MessageFormat::choose(frames, hex, variant, strings);
  if (limit_option <= 0)
    fail(Exit::usage, "--limit is a number of bytes above 0");
  limit = static_cast<guint>(limit_option);
}
