// SPDX-License-Identifier: LGPL-2.1-or-later
// The conversation of listen and connect: lines of standard input become messages, and messages
// become lines of standard output. A thread takes the messages, so that neither direction waits for
// the other.
#include "address.h"
#include "command.h"
#include "interrupt.h"
#include "link.h"
#include "messages.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <optional>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <thread>
#include <unistd.h>
#include <utility>

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
    line.add_timeout(0);
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

// The lines of standard input. If a peer leaves, the next one gets the lines that remain.
class Input
{
public:
  explicit Input(gsize limit) : limit(limit) {}

  // Waits for the next line. False at the end of the input, or if `until` is cancelled.
  bool
  next(GCancellable *until)
  {
    while (!take_line()) {
      if (at_end || !wait_for(STDIN_FILENO, POLLIN, until))
        return false;
      read_chunk();
    }
    number++;
    return true;
  }

  const gsize limit;
  std::string line;
  bool too_long = false; // `line` is cut
  guint64 number = 0;    // of the line
  bool at_end = false;
  std::string failure;
  const bool terminal = isatty(STDIN_FILENO);

private:
  void
  read_chunk()
  {
    auto got = read(STDIN_FILENO, chunk, sizeof chunk);
    if (got < 0 && (errno == EINTR || errno == EAGAIN))
      return;
    if (got < 0)
      failure = g_strerror(errno);
    at_end = got <= 0;
    unread = {chunk, got > 0 ? static_cast<gsize>(got) : 0};
  }

  bool
  take_line()
  {
    while (!unread.empty()) {
      auto size = std::min(unread.find('\n'), unread.size());
      bool ends = size < unread.size();
      auto bytes = unread.substr(0, size);
      unread.remove_prefix(size + ends);
      if (skipping) {
        skipping = !ends;
        continue;
      }
      part += bytes;
      too_long = part.size() > limit;
      skipping = too_long && !ends;
      if (ends || too_long)
        return finish_line();
    }
    return at_end && !part.empty() && finish_line();
  }

  bool
  finish_line()
  {
    line.swap(part);
    part.clear();
    return true;
  }

  char chunk[64 * 1024];
  std::string_view unread; // in the chunk
  std::string part;        // of a line whose end has not come yet
  bool skipping = false;   // the remainder of a line that is too long
};

// A cancellable that is cancelled with another one.
class Follower
{
public:
  explicit Follower(GCancellable *leader)
      : leader(leader), follower(g_cancellable_new()),
        handler(g_cancellable_connect(leader, G_CALLBACK(follow), follower.get(), nullptr))
  {
  }
  ~Follower()
  {
    g_cancellable_disconnect(leader, handler);
  }
  Follower(const Follower &) = delete;
  operator GCancellable *() const
  {
    return follower.get();
  }

private:
  static void
  follow(GCancellable *, gpointer follower)
  {
    g_cancellable_cancel(static_cast<GCancellable *>(follower));
  }

  GCancellable *const leader;
  const Owned<GCancellable> follower;
  const gulong handler;
};

// Ends the processes of a command, even if there is no memory for its output. 0: they have ended.
struct Group {
  pid_t leader;

  ~Group()
  {
    if (leader > 0)
      kill(-leader, SIGTERM);
  }
};

// One peer, from the connection to the end.
class Session
{
public:
  Session(const Options &options, Input &input, const CommandLine &line,
          GSocketConnection *connection)
      : options(options), input(input), link(connection, line.stages), timeout(line.timeout),
        strings(options.format.kind == MessageFormat::strings),
        strings_in(gvc_data_input_stream_new(G_INPUT_STREAM(link.meter.get())))
  {
    g_socket_set_timeout(link.socket(), timeout);
    link.meter->strings = strings;
    link.meter->terminator = static_cast<guint8>(options.format.terminator);
    link.meter->limit = static_cast<guint32>(options.limit);
    link.counts.set_limit(link.meter->limit);
  }

  // Throws if the channel fails.
  Exit
  run()
  {
    std::thread taker([this] { work(&Session::take_messages); });
    {
      std::lock_guard lock(writing);
      work(&Session::send_lines);
    }
    // The end follows the lines. If there were none, only connect does not wait for the peer's end.
    // With --keep, one input is for all peers.
    bool sends_first = input.at_end && input.number > 0 && !options.keep && !options.exec;
    if (!sends_first && !options.tell_end)
      taker.join();
    {
      std::lock_guard lock(writing);
      work(&Session::send_end);
    }
    if (taker.joinable())
      taker.join();

    if (output_closed)
      throw OutputClosed();
    if (interrupted())
      throw Failure{Exit::interrupted, ""};
    if (failure)
      std::rethrow_exception(failure);
    if (!input.failure.empty())
      fail(Exit::local, "cannot read standard input: %s", input.failure.c_str());
    return worst;
  }

private:
  // Does a part of the work, unless the session is over. A failure ends the session.
  void
  work(void (Session::*part)())
  {
    try {
      if (!over && !interrupted())
        (this->*part)();
    } catch (const OutputClosed &) {
      output_closed = over = true;
      g_cancellable_cancel(waiting);
      if (!writing.try_lock_for(std::chrono::seconds(2)))
        g_cancellable_cancel(leaving);
      else
        writing.unlock();
    } catch (...) { // a Failure, or no memory
      if (!over.exchange(true))
        failure = std::current_exception();
      g_cancellable_cancel(waiting);
      g_cancellable_cancel(leaving);
    }
  }

  [[noreturn]] void
  lost(const std::string &what)
  {
    throw Failure{Exit::peer, link.peer + " went away" + what};
  }

  void
  take_messages()
  {
    while (auto message = read_message()) {
      if (options.exec)
        execute(*message);
      else
        print(*message);
    }
    peer_has_ended = link.meter->at_end;
    // A terminal has no end of its own: it ends with the peer. With --keep, so does every input.
    if (input.terminal || options.keep)
      g_cancellable_cancel(waiting);
  }

  // Nothing at the end of the channel. A peer may be silent while it takes messages.
  std::optional<std::string>
  read_message()
  {
    for (;;) {
      g_autoptr(GError) error = nullptr;
      auto begun = g_get_monotonic_time();
      auto before = untaken();
      link.begin_message(timeout, link.meter->limit);
      auto message = try_to_read(&error);
      link.deadline.end();
      if (message || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
        return message;
      if (!is_late(error)) {
        check_end(error);
        return {};
      }
      bool alive = sent_at >= begun || untaken() < before;
      if (!link.deadline.idle() || !alive)
        link.fail_late();
    }
  }

  // Not if the system has a timeout of its own.
  bool
  is_late(const GError *error) const
  {
    return timeout > 0 && g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
  }

  // The bytes that the system keeps because the peer has not taken them yet.
  int
  untaken() const
  {
    int bytes = 0;
    if (timeout > 0)
      ioctl(g_socket_get_fd(link.socket()), TIOCOUTQ, &bytes);
    return bytes;
  }

  // The blocking reader of frames reports an empty message and the end alike, and fills a short
  // message with zeros. The meter tells them apart.
  std::optional<std::string>
  try_to_read(GError **error)
  {
    auto *meter = link.meter.get();
    auto before = meter->total;

    if (strings) {
      gsize length = 0;
      g_autofree char *text = gvc_data_input_stream_read_string(
          strings_in.get(), options.format.terminator, &length, waiting, error);
      if (text)
        return std::string(text, length - 1);
    } else {
      Bytes bytes(gvc_bytes_input_stream_read_bytes(link.frames_in.get(), waiting, error));
      gsize size = 0;
      auto *data = bytes ? g_bytes_get_data(bytes.get(), &size) : nullptr;
      if (meter->between_messages() && (bytes || meter->total > before))
        return std::string(data ? static_cast<const char *>(data) : "", size);
    }
    return {};
  }

  // Throws unless the channel has ended between two messages.
  void
  check_end(const GError *error)
  {
    bool at_end = link.meter->at_end, whole = link.meter->between_messages();
    bool partial = g_error_matches(error, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT);
    if (at_end && whole)
      return;
    if (is_out_of_memory(error))
      throw std::bad_alloc();
    // A timeout here is the system's: it has given the connection up.
    bool gone = is_gone(error) || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT);
    if (whole && !partial && gone)
      lost(std::string(": ") + error->message);
    if (at_end || partial || gone)
      lost(std::string(" in the middle of a ") +
           (strings ? "string, before its terminator" : "message"));
    fail(Exit::protocol,
         "%s sends what cannot be understood (%s): it may speak something else, or use another key "
         "or other stages",
         link.peer.c_str(), error->message);
  }

  void
  print(const std::string &message)
  {
    g_autoptr(GError) error = nullptr;
    if (options.json) {
      JsonLine json;
      json.add("size", static_cast<guint64>(message.size()));
      if (options.format.add_to(json, message, &error))
        return json.print();
    } else if (auto line = options.format.write_line(message, &error)) {
      // A peer must not control the terminal.
      return output((isatty(STDOUT_FILENO) ? printable(*line) : *line) + "\n");
    }
    mishap(link.peer + " sent what is no message here: " + error->message);
  }

  // The command reads the line that would be printed. Its output is sent like a line of input.
  void
  execute(const std::string &message)
  {
    g_autoptr(GError) error = nullptr;
    auto line = options.format.write_line(message, &error);
    if (!line)
      return mishap(link.peer + " sent what is no message here: " + error->message);
    auto answer = run_command(*line + "\n", &error);
    if (over || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED))
      return;
    if (error)
      return mishap(error->message);
    if (answer.ends_with('\n'))
      answer.pop_back();
    if (answer.size() > options.line_limit())
      g_set_error(&error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                  "it has more than %" G_GSIZE_FORMAT " bytes", options.line_limit());
    else if (auto reply = options.format.read_line(answer, &error))
      return send(*reply, "the answer");
    mishap(std::string("the command's output cannot be sent: ") + error->message);
  }

  // Stops a command that prints more than an answer may have, and returns too much.
  std::string
  run_command(const std::string &line, GError **error)
  {
    Descriptor input(file_of(line));
    if (input < 0) {
      g_set_error(error, G_IO_ERROR, G_IO_ERROR_FAILED, "cannot keep a message for the command: %s",
                  g_strerror(errno));
      return "";
    }
    g_autoptr(GSubprocessLauncher) launcher =
        g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE);
    g_subprocess_launcher_set_child_setup(launcher, prepare_command, nullptr, nullptr);
    g_subprocess_launcher_take_stdin_fd(launcher, std::exchange(input.fd, -1));
    g_autoptr(GSubprocess) process =
        g_subprocess_launcher_spawn(launcher, error, "/bin/sh", "-c", options.exec.value, nullptr);
    if (!process) {
      g_prefix_error(error, "cannot run the command: ");
      return "";
    }
    auto *identifier = g_subprocess_get_identifier(process);
    Group group{identifier ? static_cast<pid_t>(g_ascii_strtoll(identifier, nullptr, 10)) : 0};

    std::string answer;
    auto *output = g_subprocess_get_stdout_pipe(process);
    auto most = options.line_limit() + 1; // and the final newline
    char chunk[4096];
    gssize got = 1;
    while (answer.size() <= most &&
           (got = g_input_stream_read(output, chunk, sizeof chunk, waiting, error)) > 0)
      answer.append(chunk, static_cast<gsize>(got));
    // The command would get the signal of prepare_command() if this thread ended first.
    if (got == 0 && g_subprocess_wait(process, waiting, error))
      group.leader = 0;
    g_prefix_error(error, "cannot talk to the command: ");
    return answer;
  }

  // An open file with these bytes, or -1. Unlike a pipe, it need not be written while the command
  // prints.
  static int
  file_of(const std::string &bytes)
  {
    Descriptor file(memfd_create("message", MFD_CLOEXEC));
    for (gsize done = 0; done < bytes.size();) {
      auto at = static_cast<off_t>(done);
      auto written = file < 0 ? -1 : pwrite(file, bytes.data() + done, bytes.size() - done, at);
      if (written < 0)
        return -1;
      done += static_cast<gsize>(written);
    }
    return std::exchange(file.fd, -1);
  }

  void
  send_lines()
  {
    while (!options.exec && !over && input.next(waiting)) {
      g_autoptr(GError) error = nullptr;
      std::optional<std::string> message;
      if (input.too_long)
        g_set_error(&error, G_IO_ERROR, G_IO_ERROR_MESSAGE_TOO_LARGE,
                    "it has more than %" G_GSIZE_FORMAT " bytes", input.limit);
      else
        message = options.format.read_line(input.line, &error);
      auto line = "line " + std::to_string(input.number);
      if (message)
        send(*message, line);
      else
        mishap(line + " is not sent: " + error->message);
    }
  }

  void
  send(std::string message, const std::string &name)
  {
    if (message.size() > G_MAXINT32)
      fail(Exit::local, "a message has less than 2 GiB");
    g_autoptr(GError) error = nullptr;
    sent_at = G_MAXINT64;
    if (strings) {
      message += options.format.terminator;
      g_output_stream_write_all(link.output(), message.data(), message.size(), nullptr, leaving,
                                &error);
    } else {
      Bytes bytes(g_bytes_new_static(message.data(), message.size()));
      gvc_bytes_output_stream_put_bytes(link.frames_out.get(), bytes.get(), leaving, &error);
    }
    sent_at = g_get_monotonic_time();
    if (is_late(error))
      fail(Exit::peer, "%s has taken nothing for %u seconds", link.peer.c_str(), timeout);
    if (error)
      lost(" and did not get " + name + ": " + error->message);
  }

  // Closes our direction of the channel.
  void
  send_end()
  {
    g_autoptr(GError) error = nullptr;
    if (g_output_stream_close(link.output(), leaving, &error))
      g_socket_shutdown(link.socket(), FALSE, TRUE, nullptr);
    else if (!peer_has_ended)
      lost(std::string(": ") + error->message);
  }

  // Complains about a message. The session goes on.
  void
  mishap(const std::string &message)
  {
    complain("%s", message.c_str());
    worst = Exit::partly;
  }

  const Options &options;
  Input &input;
  Link link;
  const guint timeout;
  const bool strings; // instead of frames
  const Owned<GvcDataInputStream> strings_in;
  const Follower waiting{interrupt_soon()}; // for the peer, for input or for the command
  const Follower leaving{interrupt_now()};  // what is being sent

  std::timed_mutex writing;
  std::atomic<gint64> sent_at = 0;          // the last message; later than now meanwhile
  std::atomic<bool> over = false;           // failed, or standard output is closed
  std::atomic<bool> peer_has_ended = false; // no more messages will come
  std::atomic<Exit> worst = Exit::ok;
  std::exception_ptr failure;
  bool output_closed = false;
};
} // namespace

// Talks to one peer until both sides have ended, and takes over the reference to the connection.
// Returns Exit::partly if some message could not be understood. Throws if the channel fails.
static Exit
talk(const Options &options, const CommandLine &line, GSocketConnection *connection)
{
  static Input input(options.line_limit()); // outlasts the peer
  return Session(options, input, line, connection).run();
}

Exit
run_connect(CommandLine &line)
{
  Options options;
  options.tell_end = true;
  auto address = options.parse(line);
  return talk(options, line, connect_to(address, 30));
}

Exit
run_listen(CommandLine &line)
{
  Options options;
  line.add("keep", G_OPTION_ARG_NONE, &options.keep, "Serve one peer after another");
  // As a file name, so that the command gets its bytes in any locale.
  line.add("exec", G_OPTION_ARG_FILENAME, &options.exec.value,
           "Answer each message with the output of this shell command", "COMMAND");
  auto address = options.parse(line);
  // GLib starts a thread with the first command, and ends the program if the system refuses. So do
  // this before any peer comes.
  [[maybe_unused]] g_autoptr(GSubprocess) first =
      options.exec ? g_subprocess_new(G_SUBPROCESS_FLAGS_NONE, nullptr, "true", nullptr) : nullptr;
  Listener listener(address);
  auto serve = [&](auto *connection) { return talk(options, line, connection); };
  // If this side has failed, it would fail with the next peer too.
  return listener.serve(options.keep, serve, Exit::local);
}
