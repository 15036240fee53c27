/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Faults at every step of an operation: base streams that count what is asked of them and misbehave
 * at one chosen step, a channel over them, and the loop that moves the fault on, step by step,
 * until the operation ends without having met it. */
#ifndef TESTS_FAULTY_H
#define TESTS_FAULTY_H

#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <condition_variable>

namespace faulty
{

using support::Ref;

enum class Fault {
  none,
  fail,        /* the step and all after it fail with the error below */
  fail_once,   /* the step alone does: nobody may forget it */
  stall,       /* the step would block, or waits, until the main loop has turned */
  trickle,     /* from the step on, one byte a call */
  cancel,      /* the operation's cancellable is cancelled, and the step moves nothing */
  cancel_late, /* the step is carried out, and then the cancellable is cancelled */
  end,         /* input: from the step on, the stream has ended */
};

const char *fault_name(Fault fault);
GQuark fault_quark();
inline constexpr int fault_code = 42;
inline constexpr const char *fault_message = "Injected failure";

enum class Flavour {
  blocking, /* GIO's worker threads make the asynchronous operations out of blocking ones */
  pollable,
};

/* Shared by both base streams of a channel. A step is a read, a write, a skip, a flush, a close,
 * or a wait for readiness. Worker threads take steps as well. */
class Faults
{
public:
  enum class Kind { transfer, wait, end };

  /* From now on, step number `at`, from 0, meets the fault. */
  void arm(Fault fault, guint at, GCancellable *cancellable);
  void disarm();
  bool reached() const;
  guint steps() const; /* since arm() */

  std::string wire;        /* what the input delivers */
  std::string accepted;    /* what the output has taken */
  gsize chunk = G_MAXSIZE; /* bytes a call */
  bool rests = false;      /* pollable: would block once before every transfer */
  bool jammed = false;     /* pollable: nothing goes out without blocking */
  guint patience = 0; /* that many reads of an ended input cancel the operation; 0 for none do */
  gsize delivered() const; /* bytes of `wire` */
  bool went_on() const;    /* there were steps after the one with the fault */

  /* --- for the streams --- */
  enum class Act { move, one, fail, stall, nothing, move_and_cancel, end };
  Act step(Kind kind);
  void count_end();
  void cancel();
  void wait_for_main_loop();
  gsize take(void *buffer, gsize size, gsize limit);
  gsize give(const void *buffer, gsize size, gsize limit);
  bool is_ready() const;
  bool pass_readiness(); /* FALSE where the call would block */
  void stall_readiness(guint rounds);
  void become_ready();

private:
  mutable std::mutex mutex_;
  std::condition_variable turned_;
  GThread *const home_ = g_thread_self();
  Fault fault_ = Fault::none;
  guint at_ = 0, steps_ = 0;
  bool reached_ = false, armed_ = false;
  GCancellable *cancellable_ = nullptr;
  gsize position_ = 0;
  guint ends_ = 0;
  bool ready_ = true;
  guint rounds_ = 0; /* how often readiness is still announced in vain */
};

/* Stages of a channel, the one nearest to the socket first: encryption, then compression. */
inline constexpr int most_stages = 2;
/* If `lives` is given, it watches the converters and the streams. */
void add_stages(GvcConnection *channel, int stages, support::LifeWatch *lives = nullptr);

/* A channel over faulty streams, and what belongs to one operation on it. */
class Rig
{
public:
  Rig(Flavour flavour, int stages);
  ~Rig();
  Rig(const Rig &) = delete;
  Rig &operator=(const Rig &) = delete;

  Faults &
  faults() const
  {
    return *faults_;
  }
  GIOStream *
  channel() const
  {
    return G_IO_STREAM(channel_.get());
  }
  GInputStream *
  in() const
  {
    return g_io_stream_get_input_stream(channel());
  }
  GOutputStream *
  out() const
  {
    return g_io_stream_get_output_stream(channel());
  }
  /* Streams over the channel's, made when first asked for. */
  GvcBytesInputStream *reader();
  GvcDataInputStream *string_reader();
  GvcBytesOutputStream *writer();
  GCancellable *
  cancellable() const
  {
    return cancellable_.get();
  }
  void renew_cancellable();
  Flavour
  flavour() const
  {
    return flavour_;
  }
  int
  stages() const
  {
    return stages_;
  }

  /* Starts an asynchronous operation and waits for its only callback, which must not come before
   * the call has returned. */
  GAsyncResult *await(const std::function<void(GAsyncReadyCallback, gpointer)> &start);
  /* Fails where any stream of the channel is still marked as busy. */
  void assert_idle();
  /* Drops everything, and fails where something of it lives on. */
  void assert_all_gone();

private:
  template <typename T> T *watched(Ref<T> &object);
  template <typename T, typename Base>
  T *made(support::Ref<T> &object, T *(*create)(Base *), Base *base);

  Flavour flavour_;
  int stages_;
  std::shared_ptr<Faults> faults_;
  Ref<GCancellable> cancellable_;
  Ref<GvcConnection> channel_;
  Ref<GvcBytesInputStream> reader_;
  Ref<GvcDataInputStream> string_reader_;
  Ref<GvcBytesOutputStream> writer_;
  std::unique_ptr<support::Collector> collector_;
  support::LifeWatch lives_;
};

/* Returns the wire bytes of a channel with that many stages, to which each part is written by
 * itself.
 */
std::string through_stages(int stages, std::initializer_list<std::string_view> parts);
/* Returns the bytes that a peer with that many stages reads from `wire`, until its end. */
std::string from_stages(int stages, const std::string &wire);

/* One public operation. */
struct Operation {
  const char *name;
  enum class Way {
    blocking,
    async,     /* the library's: cancelled is cancelled, even after the last step */
    gio_async, /* GIO's, some of which no longer look at the cancellable when all is done */
  } way;
  /* Carries it out and returns what it yields; nothing with the error set. */
  std::function<std::optional<std::string>(Rig &, GError **)> run;
};

/* The result of one operation that met, or did not meet, its fault. */
struct Outcome {
  std::optional<std::string> value;
  support::Error error;
};

/* The loop: makes a rig, arms the fault at step 0, 1, 2, ..., runs the operation and hands rig and
 * outcome to `check`, until an operation has ended before its step; that one is handed on as well.
 * Fails unless the fault met more than one step. */
struct Case {
  Operation operation;
  Fault fault;
  Flavour flavour;
  int stages;
  guint least_steps = 2;
};
void at_every_step(const Case &one, const std::function<void(Rig &)> &prepare,
                   const std::function<void(Rig &, Outcome &)> &check);

/* Fails unless the outcome is the one that the fault prescribes wherever it strikes, the faults
 * apart that an operation survives: those must yield `value`. */
void assert_outcome(const Case &one, Rig &rig, Outcome &outcome, const std::string &value);

/* Adds a test case for every given fault, flavour and number of stages. */
void add_cases(const char *subject, const Operation &operation, std::initializer_list<Fault> faults,
               void (*test)(const Case &), guint least_steps = 2, int stages_up_to = most_stages);

/* Return the contents of a message, or nothing if it is NULL. All take the message over. */
std::optional<std::string> take(GBytes *bytes);
std::optional<std::string> take(GVariant *variant);
std::optional<std::string> take(char *string, gsize length);

} // namespace faulty

#endif /* TESTS_FAULTY_H */
