// SPDX-License-Identifier: LGPL-2.1-or-later
// The contract that all operations on streams share, and the one of our filter streams. A test
// program describes its type and registers each case of the contract under a path of its own.
#pragma once

#include "tests/support/support.h"

namespace contract
{

inline constexpr gsize untouched = 4711;

// One operation in all its forms. Each form returns whether it succeeded. The form itself checks
// what a success brought.
struct Operation {
  using Run = bool (*)(gpointer stream, GBytes *payload, GCancellable *, GError **);
  using Start = void (*)(gpointer stream, GBytes *payload, int priority, GCancellable *,
                         GAsyncReadyCallback, gpointer);
  using Finish = bool (*)(gpointer stream, GAsyncResult *, GError **);

  std::string name;            // of the function that blocks, without "_async" and "_finish"
  std::string payload;         // what an operation that writes is given
  std::string bytes;           // what a success moves through the base stream
  std::vector<gsize> sizes;    // what it asks its stream for, if each request is met at once
  gsize urgent;                // so many of the bytes move at the caller's priority
  bool task_is_urgent = false; // the task has the caller's priority
  Run run = nullptr;           // null if there is no function that blocks
  Start start;
  Finish finish;
  // Takes the result without the finish function, if the task holds it as that function returns it.
  bool (*propagate)(GTask *, GError **) = nullptr;
  // Whether a success follows a second transfer that moves nothing.
  std::optional<bool> after_zero = std::nullopt;
  // The number of bytes from the finish function, if it sets one; `untouched` before.
  const gsize *count = nullptr;
};

struct Type {
  bool reads;
  std::string check;          // the precondition on the stream
  std::string blocking_check; // the same as the functions that block write it
  std::vector<Operation> operations;
  // How the assertion reads that a claim of too much fails, without the numbers.
  const char *claim_message = nullptr;
  // Of filter streams alone; other operations are on the base stream itself.
  GType (*get_type)() = nullptr;
  const char *name = nullptr;
  gsize instance_size = 0;
  gsize class_size = 0;
  gpointer (*create)(gpointer base) = nullptr;
  std::string create_name = {};
  std::string create_check = {};
};

enum class Way { blocking, async };
inline constexpr Way both_ways[] = {Way::blocking, Way::async};

// ---- Filter streams ----

void is_a_plain_filter_stream(gconstpointer type);
void overrides_no_operation(gconstpointer type);
void holds_and_closes_its_base(gconstpointer type);
void new_refuses_other_objects(gconstpointer type);

// ---- Operations ----

void failure_at_any_transfer_passes_through(gconstpointer type);
void closed_streams_fail_as_closed(gconstpointer type);
void errors_may_be_left_out(gconstpointer type);
void requests_have_the_callers_priority(gconstpointer type);
void blocking_requests_have_the_callers_cancellable(gconstpointer type);
void stream_is_busy_until_the_callback(gconstpointer type);
void cancelled_before_it_starts(gconstpointer type);
void cancelled_during_any_transfer(gconstpointer type);
void cancelled_from_another_thread(gconstpointer type);
void cancelled_after_the_call(gconstpointer type);
void cancelled_between_the_last_transfer_and_finish(gconstpointer type);
void blocking_calls_refuse_other_streams(gconstpointer type);
void finish_refuses_other_results(gconstpointer type);
void start_does_not_check_the_stream(gconstpointer type);
void refused_start_never_calls_back(gconstpointer type);
void callback_may_be_left_out(gconstpointer type);
void nothing_stays_alive_after_any_outcome(gconstpointer type);
void uncollected_error_is_released(gconstpointer type);
void stream_may_be_dropped_meanwhile(gconstpointer type);
void completes_in_the_context_of_its_thread(gconstpointer type);

// The process aborts if the base stream claims to have moved more than it was asked to move: in its
// first transfer, or in a later one that was asked for the rest.
void claim_of_too_much_aborts(gconstpointer type);
void claim_of_too_much_later_aborts(gconstpointer type);

// ---- Fixtures ----

// A stream of type T that reads from a scripted base.
template <typename T, T *(*create)(GInputStream *)> struct Reader {
  std::shared_ptr<support::Script> script;
  support::Ref<GInputStream> base;
  support::Ref<T> stream;

  explicit Reader(std::string data = {}, support::StreamKind kind = support::StreamKind::sync_only,
                  gsize max_per_call = G_MAXSIZE)
      : script(support::new_script(std::move(data), max_per_call)),
        base(support::new_scripted_input(script, kind)), stream(create(base.get()))
  {
  }
};

// A stream of a class derived from T that shows what is asked of the stream itself.
template <typename T, GType (*get_type)()> struct InnerReader {
  std::shared_ptr<support::Script> script;
  support::Ref<GInputStream> base;
  support::Ref<GInputStream> owner;

  explicit InnerReader(std::string data)
      : script(support::new_script(std::move(data))),
        base(support::new_scripted_input(support::new_script())),
        owner(support::new_scripted_filter_input(get_type(), base.get(), script))
  {
  }

  T *
  stream() const
  {
    return reinterpret_cast<T *>(owner.get());
  }
};

} // namespace contract
