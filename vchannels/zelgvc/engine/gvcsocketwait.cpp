// SPDX-License-Identifier: LGPL-2.1-or-later
// Invariants:
//
// - A Set belongs to one main context and one priority, and is a source there. It has an epoll
//   instance for reading and one for writing. A Place is a stream's membership in one set, in the
//   instance of its direction. It stays from one wait to the next, so that waiting costs no system
//   call.
// - Events are edges. None is lost: a wait begins only after the socket was found not ready, and an
//   edge that comes before the wait is still in the epoll instance.
// - Events name their place by a number, never by a pointer: epoll may report a place that is gone.
// - A place that fires while nothing waits in it is taken out of the set until the next wait, so a
//   peer that sends to a channel that nobody reads wakes nobody twice.
// - One lock protects everything. It is not held while a waiter or a handler of a host runs.
// - A closed descriptor leaves an epoll set silently. A sweep over the places that wait, twice a
//   second, finds closed sockets. A set in which nothing has waited between two sweeps is given up.
// - The epoll instances of a process are none of its child's: after a fork a set makes its own.
#include "gvcsocketwait.h"

#ifdef GVC_EPOLL

#include "gvcpollable.h"

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace
{

constexpr gint64 sweep_interval = 450 * G_TIME_SPAN_MILLISECOND;
constexpr int most_events = 64;

struct Set;

// Referenced by its stream and, while it is a member, by its set.
struct Place {
  gatomicrefcount references;
  Set *set;        // NULL if the place is in none
  GSocket *socket; // valid while the stream is
  guint64 number;
  int fd;
  guint direction; // index of the epoll instance
  gboolean fires;  // the epoll instance reports it
  gboolean waits;
  gboolean fired; // in the queue of the set
  gvc::SocketWaiter waiter;
  GCancellable *cancellable;
  gulong cancelled_handler;
};

struct Set {
  GSource source;
  GMainContext *context;
  int priority;
  GPollFD epoll[2];   // fd -1 until they are needed
  GHashTable *places; // by number
  GQueue fired;       // places whose waiters are to be called
  guint waiting;
  gboolean used;    // since the last sweep
  gint64 sweep_at;  // in the time of sources
  guint generation; // of the process that made the epoll instances
  gboolean abandoned;
};

} // namespace

// ThreadSanitizer knows this lock, but none of GLib's.
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static GHashTable *sets; // of themselves, by context and priority
static guint generation; // of the process: a child after a fork has a new one
static guint64 last_number;

// ---- Places ----

static void
place_unref(Place *place)
{
  if (g_atomic_ref_count_dec(&place->references))
    g_free(place);
}

// The descriptor is known to be the one that was added only while the socket is open.
static void
leave_epoll(Place *place)
{
  if (place->fires && place->set->generation == generation &&
      g_socket_get_fd(place->socket) == place->fd)
    epoll_ctl(place->set->epoll[place->direction].fd, EPOLL_CTL_DEL, place->fd, nullptr);
  place->fires = FALSE;
}

static void
leave(Place *place)
{
  auto *set = place->set;

  if (!set)
    return;
  leave_epoll(place);
  place->set = nullptr;
  g_hash_table_remove(set->places, &place->number);
  place_unref(place);
}

static void
stream_is_gone(gpointer data, GObject *)
{
  auto *place = static_cast<Place *>(data);

  pthread_mutex_lock(&lock);
  leave(place);
  pthread_mutex_unlock(&lock);
  place_unref(place);
}

static G_DEFINE_QUARK(gvc - socket - wait, place);

// NULL if the stream is none of a socket's.
static Place *
place_of(gpointer stream, guint direction)
{
  auto *object = static_cast<GObject *>(stream);
  auto *place = static_cast<Place *>(g_object_get_qdata(object, place_quark()));

  if (place)
    return place;
  auto *socket = gvc::plain_socket(stream);
  if (!socket)
    return nullptr;
  place = g_new0(Place, 1);
  g_atomic_ref_count_init(&place->references);
  place->socket = socket;
  place->fd = g_socket_get_fd(socket);
  place->direction = direction;
  g_object_set_qdata(object, place_quark(), place);
  g_object_weak_ref(object, stream_is_gone, place);
  return place;
}

// Lets the epoll instance report the place. An edge comes at once if the socket is ready by now.
static gboolean
enter_epoll(Place *place)
{
  auto *set = place->set;
  epoll_event event = {};
  event.events = (place->direction == 0 ? EPOLLIN | EPOLLRDHUP : EPOLLOUT) | EPOLLET;
  event.data.u64 = place->number;

  auto *epoll = &set->epoll[place->direction];
  if (epoll->fd < 0) {
    *epoll = {epoll_create1(EPOLL_CLOEXEC), G_IO_IN, 0};
    if (epoll->fd < 0)
      return FALSE;
    // GLib would call a source with g_source_add_unix_fd() ready whatever its check says.
    g_source_add_poll(&set->source, epoll);
  }
  place->fires = epoll_ctl(epoll->fd, EPOLL_CTL_ADD, place->fd, &event) == 0;
  return place->fires;
}

static gboolean
enter(Place *place, Set *set)
{
  place->number = ++last_number;
  place->set = set;
  g_atomic_ref_count_inc(&place->references);
  g_hash_table_insert(set->places, &place->number, place);
  if (enter_epoll(place))
    return TRUE;
  leave(place);
  return FALSE;
}

static void
fire(Place *place)
{
  if (!place->waits || place->fired)
    return;
  place->fired = TRUE;
  g_queue_push_tail(&place->set->fired, place);
}

static void
cancelled(GCancellable *, gpointer data)
{
  auto *place = static_cast<Place *>(data);

  pthread_mutex_lock(&lock);
  if (place->set && place->waits) {
    fire(place);
    g_main_context_wakeup(place->set->context);
  }
  pthread_mutex_unlock(&lock);
}

static void
handler_is_gone(gpointer place, GClosure *)
{
  place_unref(static_cast<Place *>(place));
}

// ---- Sets ----

// Returns FALSE if there are no more events to take.
static gboolean
collect_some(Set *set, guint direction)
{
  epoll_event events[most_events];
  int count = epoll_wait(set->epoll[direction].fd, events, most_events, 0);

  for (int i = 0; i < count; i++) {
    auto *place = static_cast<Place *>(g_hash_table_lookup(set->places, &events[i].data.u64));
    if (!place)
      continue;
    if (place->waits)
      fire(place);
    else
      leave_epoll(place);
  }
  return count == most_events;
}

// Takes events of an epoll instance. The edges of places in which nothing waits are dropped, and so
// are those of places that are gone. They must not hide what follows.
static void
collect(Set *set, guint direction)
{
  while (collect_some(set, direction) && g_queue_is_empty(&set->fired))
    ;
}

// In the child after a fork the epoll instances are those of the parent, and stay its own.
static void
renew_after_fork(Set *set)
{
  for (guint direction = 0; direction < 2; direction++) {
    if (set->epoll[direction].fd < 0)
      continue;
    g_source_remove_poll(&set->source, &set->epoll[direction]);
    close(set->epoll[direction].fd);
    set->epoll[direction] = {-1, 0, 0};
  }
  set->generation = generation;

  GHashTableIter places;
  gpointer place;
  g_hash_table_iter_init(&places, set->places);
  while (g_hash_table_iter_next(&places, nullptr, &place))
    if (!enter_epoll(static_cast<Place *>(place)))
      fire(static_cast<Place *>(place));
}

// Returns FALSE if the set is not used any more.
static gboolean
sweep(Set *set, gint64 now)
{
  GHashTableIter places;
  gpointer data;

  if (set->waiting == 0 && !set->used)
    return FALSE;
  g_hash_table_iter_init(&places, set->places);
  while (g_hash_table_iter_next(&places, nullptr, &data)) {
    auto *place = static_cast<Place *>(data);
    if (place->waits && g_socket_is_closed(place->socket))
      fire(place);
  }
  set->used = FALSE;
  set->sweep_at = now + sweep_interval;
  return TRUE;
}

static void
abandon(Set *set)
{
  GHashTableIter places;
  gpointer data;

  if (set->abandoned)
    return;
  set->abandoned = TRUE;
  g_hash_table_remove(sets, set);
  g_hash_table_iter_init(&places, set->places);
  while (g_hash_table_iter_next(&places, nullptr, &data)) {
    auto *place = static_cast<Place *>(data);
    g_hash_table_iter_remove(&places);
    place->set = nullptr;
    place->fires = FALSE;
    place_unref(place);
  }
}

static gboolean
set_prepare(GSource *source, int *timeout)
{
  auto *set = reinterpret_cast<Set *>(source);
  gint64 now = g_source_get_time(source);

  pthread_mutex_lock(&lock);
  if (set->generation != generation)
    renew_after_fork(set);
  if (now >= set->sweep_at && !sweep(set, now))
    abandon(set);
  gboolean ready = !g_queue_is_empty(&set->fired), abandoned = set->abandoned;
  pthread_mutex_unlock(&lock);
  if (abandoned)
    g_source_destroy(source);
  *timeout = static_cast<int>((set->sweep_at - now) / G_TIME_SPAN_MILLISECOND) + 1;
  return ready;
}

static gboolean
set_check(GSource *source)
{
  auto *set = reinterpret_cast<Set *>(source);

  pthread_mutex_lock(&lock);
  for (guint direction = 0; direction < 2; direction++)
    if (set->epoll[direction].fd >= 0 && set->epoll[direction].revents)
      collect(set, direction);
  gboolean ready = !g_queue_is_empty(&set->fired);
  pthread_mutex_unlock(&lock);
  return ready;
}

static void
call_next(Set *set)
{
  auto *place = static_cast<Place *>(g_queue_pop_head(&set->fired));
  auto waiter = place->waiter;
  auto *cancellable = static_cast<GCancellable *>(g_steal_pointer(&place->cancellable));
  gulong handler = place->cancelled_handler;

  place->fired = place->waits = FALSE;
  set->waiting--;
  pthread_mutex_unlock(&lock);
  if (cancellable)
    g_signal_handler_disconnect(cancellable, handler);
  g_clear_object(&cancellable);
  waiter.ready(waiter.data);
  pthread_mutex_lock(&lock);
}

// Only the waiters that are there now get their turn: each may wait again.
static gboolean
set_dispatch(GSource *source, GSourceFunc, gpointer)
{
  auto *set = reinterpret_cast<Set *>(source);

  pthread_mutex_lock(&lock);
  for (guint left = set->fired.length; left > 0 && set->fired.length > 0; left--)
    call_next(set);
  pthread_mutex_unlock(&lock);
  return G_SOURCE_CONTINUE;
}

// The context is gone, or the set has been given up.
static void
set_finalize(GSource *source)
{
  auto *set = reinterpret_cast<Set *>(source);

  pthread_mutex_lock(&lock);
  abandon(set);
  pthread_mutex_unlock(&lock);
  g_hash_table_unref(set->places);
  for (auto &epoll : set->epoll)
    if (epoll.fd >= 0)
      close(epoll.fd);
}

static guint
set_hash(gconstpointer key)
{
  auto *set = static_cast<const Set *>(key);
  return g_direct_hash(set->context) ^ static_cast<guint>(set->priority);
}

static gboolean
set_equal(gconstpointer a, gconstpointer b)
{
  auto *one = static_cast<const Set *>(a), *other = static_cast<const Set *>(b);
  return one->context == other->context && one->priority == other->priority;
}

// No thread has the lock while the process is copied.
static void
before_fork()
{
  pthread_mutex_lock(&lock);
}

static void
parent_after_fork()
{
  pthread_mutex_unlock(&lock);
}

static void
child_after_fork()
{
  generation++;
  pthread_mutex_unlock(&lock);
}

static Set *
set_of(GMainContext *context, int priority)
{
  static GSourceFuncs funcs = {set_prepare,  set_check, set_dispatch,
                               set_finalize, nullptr,   nullptr};

  if (!sets) {
    sets = g_hash_table_new(set_hash, set_equal);
    pthread_atfork(before_fork, parent_after_fork, child_after_fork);
  }
  Set key = {};
  key.context = context;
  key.priority = priority;
  auto *set = static_cast<Set *>(g_hash_table_lookup(sets, &key));
  if (set) {
    if (set->generation != generation)
      renew_after_fork(set);
    return set;
  }

  auto *source = g_source_new(&funcs, sizeof(Set));
  set = reinterpret_cast<Set *>(source);
  set->context = context;
  set->priority = priority;
  set->epoll[0].fd = set->epoll[1].fd = -1;
  set->places = g_hash_table_new(g_int64_hash, g_int64_equal);
  g_queue_init(&set->fired);
  set->generation = generation;
  g_source_set_name(source, "GvcSocketWait");
  g_source_set_priority(source, priority);
  // Other waits go on while a callback runs the main loop.
  g_source_set_can_recurse(source, TRUE);
  set->sweep_at = g_get_monotonic_time() + sweep_interval;
  g_hash_table_add(sets, set);
  g_source_attach(source, context);
  g_source_unref(source);
  return set;
}

// From here on the waiter may be called, in another thread, before this function has returned.
static gboolean
wait_in_set(Place *place, GMainContext *context, int priority, const gvc::SocketWaiter &waiter)
{
  auto *set = place->set;

  if (!set || set->context != context || set->priority != priority ||
      set->generation != generation) {
    set = set_of(context, priority);
    if (place->set != set)
      leave(place);
  }
  if (place->set != set ? !enter(place, set) : !place->fires && !enter_epoll(place))
    return FALSE;
  place->waiter = waiter;
  place->waits = TRUE;
  set->waiting++;
  set->used = TRUE;
  if (g_cancellable_is_cancelled(place->cancellable)) {
    fire(place);
    g_main_context_wakeup(context);
  }
  return TRUE;
}

// Channels with stages may share a socket connection, and each of them waits for itself.
static gboolean
is_taken(Place *place)
{
  pthread_mutex_lock(&lock);
  gboolean taken = place->waits;
  pthread_mutex_unlock(&lock);
  return taken;
}

// g_cancellable_disconnect() would wait for the host's handlers, which may wait for the operation.
// The handler keeps the place instead. A cancellation that it misses shows when the wait begins.
static void
watch(Place *place, GCancellable *cancellable)
{
  if (!cancellable)
    return;
  g_atomic_ref_count_inc(&place->references);
  place->cancelled_handler =
      g_signal_connect_data(cancellable, "cancelled", G_CALLBACK(cancelled), place, handler_is_gone,
                            static_cast<GConnectFlags>(0));
  place->cancellable = static_cast<GCancellable *>(g_object_ref(cancellable));
}

gboolean
gvc::wait_for_socket(gpointer stream, GIOCondition condition, GMainContext *context, int priority,
                     GCancellable *cancellable, const SocketWaiter &waiter)
{
  auto *place = place_of(stream, condition == G_IO_IN ? 0 : 1);
  if (!place || is_taken(place) || g_socket_get_timeout(place->socket) > 0 ||
      g_socket_is_closed(place->socket))
    return FALSE;

  watch(place, cancellable);
  pthread_mutex_lock(&lock);
  gboolean waits = wait_in_set(place, context, priority, waiter);
  pthread_mutex_unlock(&lock);
  if (!waits && cancellable) {
    g_signal_handler_disconnect(cancellable, place->cancelled_handler);
    g_clear_object(&place->cancellable);
  }
  return waits;
}

#else

gboolean
gvc::wait_for_socket(gpointer, GIOCondition, GMainContext *, int, GCancellable *,
                     const SocketWaiter &)
{
  return FALSE;
}

#endif
