/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Streams that misbehave on demand and record every call. */
#pragma once

#include "tests/support/values.h"

#include <gio/gio.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace support
{

/* The behaviour of one call of read or write. */
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
  /* The behaviour of the calls in order. Once used up, calls move at most max_per_call bytes, and
   * an input stream whose data has gone reports 0. */
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
  async_only, /* input filters: asynchronous operations; the blocking ones are the parent class's */
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

} // namespace support
