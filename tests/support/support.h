/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* What the test programs share: captured log messages, connected sockets, streams that misbehave on
 * demand, waiting for asynchronous results, and watching objects go away. */
#ifndef TESTS_SUPPORT_H
#define TESTS_SUPPORT_H

#include <gio/gio.h>

#include <cstddef>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace support
{

/* How long anything may take before the program gives up with an error: a guard against hangs, not
 * a measurement. TEST_PATIENCE in the environment multiplies it, for where programs run slowly. */
gint64 watchdog_usec();

/* ---- Owners ---- */

struct ObjectUnref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
};
struct BytesUnref {
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};
struct VariantUnref {
  void
  operator()(GVariant *variant) const
  {
    g_variant_unref(variant);
  }
};
struct Free {
  void
  operator()(gpointer memory) const
  {
    g_free(memory);
  }
};

template <typename T> using Ref = std::unique_ptr<T, ObjectUnref>;
using BytesRef = std::unique_ptr<GBytes, BytesUnref>;
using VariantRef = std::unique_ptr<GVariant, VariantUnref>;
template <typename T> using Mem = std::unique_ptr<T, Free>;

/* Takes over a full reference; for `auto stream = own(gvc_..._new(...))`. */
template <typename T>
Ref<T>
own(T *object)
{
  return Ref<T>(object);
}

/* An error out-argument that is cleared at the end of its scope. */
class Error
{
public:
  Error() = default;
  Error(const Error &) = delete;
  Error &operator=(const Error &) = delete;
  ~Error()
  {
    g_clear_error(&error_);
  }
  GError **
  operator&()
  {
    return &error_;
  }
  const GError *
  get() const
  {
    return error_;
  }
  explicit operator bool() const
  {
    return error_ != nullptr;
  }
  GError *
  steal()
  {
    return static_cast<GError *>(g_steal_pointer(&error_));
  }
  void
  clear()
  {
    g_clear_error(&error_);
  }
  /* Fails unless exactly this error is set; clears it, so that the variable can be used again. */
  void assert_is(GQuark domain, int code, const char *message);
  /* The same without a look at the message (for texts that are GIO's). */
  void assert_is(GQuark domain, int code);
  void assert_none() const;

private:
  GError *error_ = nullptr;
};

/* ---- Bytes ---- */

std::string bytes_string(GBytes *bytes);
BytesRef new_bytes(std::string_view data);
/* `size` bytes that repeat with no short period; the same for the same seed on every run. */
std::string pattern(size_t size, guint32 seed = 1);
/* A frame length as it travels: four bytes, the lowest first. */
std::string le32(guint32 value);
/* One whole message frame. */
std::string frame(std::string_view payload);
/* "0a0b0c"; blanks between digits are skipped. */
std::string unhex(std::string_view digits);
std::string hex(std::string_view data);
/* As g_assert_cmpstr(), which keeps no temporary alive long enough. */
void assert_text(const std::string &actual, const std::string &expected);
/* Fails with both sides in hexadecimal (shortened) unless equal. */
void assert_bytes(std::string_view actual, std::string_view expected);

/* ---- Log messages ---- */

struct LogMessage {
  std::optional<std::string> domain; /* none where the message has no log domain */
  GLogLevelFlags level;
  std::string text;
  bool operator==(const LogMessage &) const = default;
};

/* Messages without a log domain, as the library's own are. */
LogMessage critical(std::string text);
LogMessage warning(std::string text);
/* Messages of somebody else, "GLib-GIO" for instance. */
LogMessage critical(const char *domain, std::string text);
LogMessage warning(const char *domain, std::string text);
/* "function: assertion 'expression' failed", as a failed precondition prints it. */
LogMessage failed_check(const char *function, const char *expression);

/* Collects every message above the level "info", from g_log() and from structured logging alike and
 * from any thread, as long as it lives; criticals and warnings do not end the program meanwhile. At
 * the end of its scope, whatever was not asked for with expect() fails the test. */
class LogCapture
{
public:
  LogCapture();
  ~LogCapture();
  LogCapture(const LogCapture &) = delete;
  LogCapture &operator=(const LogCapture &) = delete;

  /* Fails unless exactly these messages came, in this order, since the last call. */
  void expect(std::initializer_list<LogMessage> expected);
  void
  expect_none()
  {
    expect({});
  }
  std::vector<LogMessage> take();

private:
  GLogLevelFlags old_fatal_;
  GLogFunc old_handler_;
};

/* ---- Sockets ---- */

enum class Family { tcp4, tcp6, unix_domain };

bool have_ipv6();

struct SocketPair {
  Ref<GSocketConnection> a; /* the side that connected */
  Ref<GSocketConnection> b; /* the side that accepted */
};
/* Two connected ends. For tcp6 ask have_ipv6() first. */
SocketPair new_socket_pair(Family family);

/* One end as a connection, the other a bare blocking descriptor. */
class RawPeer
{
public:
  explicit RawPeer(Family family);
  ~RawPeer();
  RawPeer(const RawPeer &) = delete;
  RawPeer &operator=(const RawPeer &) = delete;

  GSocketConnection *
  connection() const
  {
    return connection_.get();
  }
  int
  fd() const
  {
    return fd_;
  }
  /* Blocks until all has been taken; keep it below the socket buffers where one thread does both.
   */
  void send(std::string_view data);
  /* Blocks until `size` bytes or the end have come. */
  std::string receive(size_t size);
  std::string receive_all();
  void shutdown_write();
  void close();
  /* Drops the connection's reference from this helper; the caller's own keep it alive. */
  Ref<GSocketConnection>
  take_connection()
  {
    return std::move(connection_);
  }

private:
  Ref<GSocketConnection> connection_;
  int fd_ = -1;
};

/* ---- Scripted streams ---- */

/* What one call of read or write does. */
struct Step {
  enum class What {
    move,        /* deliver, or accept, at most `count` bytes */
    zero,        /* report 0 bytes */
    fail,        /* fail with `code` and `message` in G_IO_ERROR */
    report,      /* move what fits and report `count` whatever was asked for */
    hold,        /* wait for Script::resume() or cancellation, then move */
    would_block, /* pollable streams: G_IO_ERROR_WOULD_BLOCK once, then ready again; others: move */
  };
  What what = What::move;
  gssize count = G_MAXSSIZE;
  GIOErrorEnum code = G_IO_ERROR_FAILED;
  std::string message;

  static Step move(gssize count = G_MAXSSIZE);
  static Step zero();
  static Step fail(GIOErrorEnum code = G_IO_ERROR_FAILED, std::string message = "Scripted failure");
  static Step report(gssize count);
  static Step hold();
  static Step would_block();
};

struct Call {
  enum class Kind { sync, async, nonblocking, skip, flush, close };
  Kind kind;
  gsize size;                /* bytes asked for */
  int priority;              /* of an asynchronous call, otherwise 0 */
  GCancellable *cancellable; /* not owned: to compare with */
  GThread *thread;
  guint sequence; /* rises from call to call over all scripts */
};

/* The behaviour and the record of a scripted stream. Shared with the stream, and looked at from
 * whichever thread GIO calls in, so its fields are set before the stream is used; once calls may be
 * in flight, only the functions are. */
class Script
{
public:
  /* For an input stream what it delivers; for an output stream what it has accepted. */
  std::string data;
  /* Bytes moved by a call that has no step. */
  gsize max_per_call = G_MAXSIZE;
  /* What the calls do in order; once used up, calls move at most max_per_call bytes, and an input
   * stream whose data has gone reports 0. */
  std::deque<Step> steps;
  /* Calls, counted from 1, with a step of their own, before `steps` is looked at. */
  std::map<guint, Step> at_call;
  /* From here on, every call does this, before `steps` is looked at. */
  std::optional<std::pair<guint, Step>> from_call;
  /* Close and flush fail with this text, in G_IO_ERROR_FAILED. */
  std::string close_failure;
  std::string flush_failure;
  /* Output streams: how much of what is accepted is put into `data`; the rest is only counted. */
  gsize keep = G_MAXSIZE;
  /* Pollable streams: what can_poll() answers. */
  bool can_poll = true;
  /* Called at the start of every read or write with its number, counted from 1, in the thread of
   * the call and with no lock held. */
  std::function<void(guint)> on_call;

  std::vector<Call> calls() const;           /* all of them */
  std::vector<Call> calls(Call::Kind) const; /* those of one kind */
  std::vector<Call> transfers() const;       /* reads or writes of any kind */
  std::vector<gsize> sizes() const;          /* what the transfers asked for */
  gsize moved() const;                       /* bytes delivered or accepted */
  std::string written() const;               /* copy of data */
  bool closed() const;
  bool holding() const; /* a call waits at a hold step */
  void resume();        /* lets it go on */

  /* --- for the streams --- */
  struct Held;
  mutable std::mutex mutex;
  std::vector<Call> record;
  guint transfer_count = 0;
  gsize position = 0;
  bool blocked = false; /* pollable: not ready until the source has been asked for, or resume() */
  bool poll_held = false;
  std::shared_ptr<Held> held;
  Ref<GCancellable> wake; /* cancelled by resume(); what a pollable source watches at a hold */
};

std::shared_ptr<Script> new_script(std::string data = {}, gsize max_per_call = G_MAXSIZE);

enum class StreamKind {
  sync_only,  /* blocking operations only: GIO makes the asynchronous ones out of them */
  with_async, /* asynchronous operations of its own, which complete in a later main loop round */
  pollable,   /* blocking and non-blocking operations */
};

inline constexpr StreamKind all_stream_kinds[] = {StreamKind::sync_only, StreamKind::with_async,
                                                  StreamKind::pollable};

Ref<GInputStream> new_scripted_input(std::shared_ptr<Script> script,
                                     StreamKind kind = StreamKind::with_async);
Ref<GOutputStream> new_scripted_output(std::shared_ptr<Script> script,
                                       StreamKind kind = StreamKind::with_async);

/* An object of a class derived from the given filter stream class, whose read or write operations
 * are the script's. It shows what is asked of the stream itself, with which priority. The base
 * stream stays untouched except for being closed. */
Ref<GInputStream> new_scripted_filter_input(GType parent, GInputStream *base,
                                            std::shared_ptr<Script> script,
                                            StreamKind kind = StreamKind::with_async);
Ref<GOutputStream> new_scripted_filter_output(GType parent, GOutputStream *base,
                                              std::shared_ptr<Script> script,
                                              StreamKind kind = StreamKind::with_async);

/* A socket connection with these streams. Its socket is connected to nothing. */
Ref<GSocketConnection> new_connection_over(Ref<GInputStream> in, Ref<GOutputStream> out);

/* ---- Main loop ---- */

/* Runs the thread-default main context until the condition holds. */
void spin_until(const std::function<bool()> &condition);
/* Runs whatever is ready in the thread-default main context, and returns. */
void spin_pending();

/* Takes the place of a GAsyncReadyCallback: pass `Collector::ready` and `&collector`. */
class Collector
{
public:
  Collector() = default;
  Collector(const Collector &) = delete;
  Collector &operator=(const Collector &) = delete;

  static void ready(GObject *source, GAsyncResult *result, gpointer collector);

  /* Runs the thread-default main context until the callback has run; borrowed result. */
  GAsyncResult *wait();
  guint
  calls() const
  {
    return calls_;
  }
  GAsyncResult *
  result() const
  {
    return result_.get();
  }
  GObject *
  source() const
  {
    return source_; /* as passed to the callback; not owned */
  }
  GThread *
  thread() const
  {
    return thread_;
  }
  /* Drops the result, so that nothing of the operation stays alive through this object. */
  void
  clear()
  {
    result_.reset();
  }

private:
  guint calls_ = 0;
  Ref<GAsyncResult> result_;
  GObject *source_ = nullptr;
  GThread *thread_ = nullptr;
};

/* Runs the code in a new thread that has a thread-default main context of its own, and waits for
 * its end. The caller's context is not run meanwhile. */
void run_in_thread(const std::function<void()> &code);

/* Runs the code beside the test; for the far end of a socket, say. */
class Background
{
public:
  explicit Background(std::function<void()> code);
  ~Background()
  {
    join();
  }
  Background(const Background &) = delete;
  Background &operator=(const Background &) = delete;
  void join();

private:
  std::function<void()> code_;
  GThread *thread_;
};

/* ---- Lives of objects ---- */

/* Counts objects that have gone. Where GIO used a worker thread, the last reference may be dropped
 * there a moment after the result has arrived, hence the waiting. */
class LifeWatch
{
public:
  LifeWatch() = default;
  ~LifeWatch();
  LifeWatch(const LifeWatch &) = delete;
  LifeWatch &operator=(const LifeWatch &) = delete;

  void add(gpointer object);
  /* A GBytes over a copy of the data that is counted as well. */
  BytesRef add_bytes(std::string_view data);
  guint alive() const;
  /* Waits, running the thread-default main context, until every object has gone. */
  void assert_all_gone();

private:
  struct State;
  static void object_gone(gpointer state, GObject *object);
  static void bytes_gone(gpointer memory);
  std::shared_ptr<State> state();
  std::shared_ptr<State> state_;
};

guint refcount(gpointer object);
/* At once. */
void assert_refcount(gpointer object, guint expected);
/* After waiting for a worker thread of GIO to drop what it may still hold. */
void assert_refcount_becomes(gpointer object, guint expected);

/* ---- Types ---- */

/* Fails unless the property is exactly so. */
void assert_property(GType owner, const char *name, GType value_type, const char *nick,
                     const char *blurb, guint flags);
/* Names of the properties that the type itself adds. */
std::vector<std::string> own_properties(GType owner);
/* Names of the signals that the type itself adds. */
std::vector<std::string> own_signals(GType owner);

/* Fails where the class of a stream type sets an operation that its parent type has: for types that
 * promise to override none. */
void assert_overrides_nothing(GType stream_type);

/* A converter out of a function, which has the arguments of g_converter_convert(). */
using ConvertFunction = std::function<GConverterResult(
    std::string_view in, char *out, gsize out_size, GConverterFlags flags, gsize *read,
    gsize *written, GError **error)>;
Ref<GConverter> new_converter(ConvertFunction conversion);
/* Sets an error in G_IO_ERROR; what the function then returns. */
GConverterResult conversion_error(GIOErrorEnum code, const char *message, GError **error);

/* A converter that maps each byte by itself and takes at most `max_per_call` bytes a time. */
Ref<GConverter> new_map_converter(std::function<guint8(guint8)> map, gsize max_per_call = 5);

/* Runs a test case of this program in a process of its own and fails unless it aborts, or exits
 * with a failure, and prints exactly this line (after others) on standard error. */
void assert_dies(const char *subprocess_path, const char *stderr_line);

} // namespace support

#endif /* TESTS_SUPPORT_H */
