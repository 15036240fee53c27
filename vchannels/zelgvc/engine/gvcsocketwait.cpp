// SPDX-License-Identifier: LGPL-2.1-or-later
// Invariants:
//
// - A Set belongs to one main context and one priority, and is a source there. It has an epoll
//   instance for reading and one for writing. A Place is a stream's membership in one set, in the
//   instance of its direction. It stays from one wait to the next, so that waiting costs no system
//   call.
// - Events are edges. None is lost: a wait begins only after the socket was found not ready, and an
//   edge before the wait stays in the epoll instance.
// - Events name their place by a number, never by a pointer: epoll may report a place that is gone.
// - A place that fires while nothing waits in it is taken out of the set until the next wait, so a
//   peer that sends to a channel that nobody reads wakes nobody twice.
// - One lock protects everything. It is not held while a waiter or a handler of a host runs.
// - A closed descriptor leaves an epoll set silently. A sweep over the waiting places, twice a
//   second, finds closed sockets. A set in which nothing has waited between two sweeps is given up.
// - A child process must not use the epoll instances of its parent: after a fork a set makes its
// own.
#include "gvcsocketwait.h"

#include <cstring>
#include <utility>

// The streams of GSocketConnection have no public type, but a property for their socket. A stream
// keeps its socket for life.
static GSocket *
find_socket(gpointer stream)
{
  auto *type = G_OBJECT_TYPE_NAME(stream);
  if (strcmp(type, "GSocketInputStream") != 0 && strcmp(type, "GSocketOutputStream") != 0)
    return nullptr;
  g_autoptr(GSocket) socket = nullptr;
  g_object_get(stream, "socket", &socket, nullptr);
  return socket;
}

#ifdef GVC_EPOLL

#include <pthread.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace
{

constexpr gint64 sweep_interval = 450 * G_TIME_SPAN_MILLISECOND;
constexpr int max_events = 64;

struct Set;

// Referenced by its stream, by its set while it is a member, and by a handler for cancellation.
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
  void (*ready)(gpointer data);
  gpointer data;
  GCancellable *cancellable; // kept by the waiter
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

// ThreadSanitizer knows this lock, but none of GLib's.
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
GHashTable *sets; // of themselves, by context and priority
guint generation; // of the process: a child after a fork has a new one
guint64 last_number;

class Lock
{
public:
  Lock()
  {
    pthread_mutex_lock(&mutex);
  }
  ~Lock()
  {
    pthread_mutex_unlock(&mutex);
  }
  Lock(const Lock &) = delete;
};

} // namespace

// ---- Places ----

static void
place_unref(gpointer data, GClosure * = nullptr)
{
  auto *place = static_cast<Place *>(data);

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
}

static void
stream_is_gone(gpointer data, GObject *)
{
  auto *place = static_cast<Place *>(data);
  {
    Lock lock;
    leave(place);
  }
  place_unref(place);
}

// NULL if the stream has no socket.
static Place *
place_of(gpointer stream)
{
  static gsize quark;
  if (g_once_init_enter(&quark))
    g_once_init_leave(&quark, g_quark_from_static_string("gvc-socket-wait"));
  auto *object = static_cast<GObject *>(stream);
  auto *place = static_cast<Place *>(g_object_get_qdata(object, static_cast<GQuark>(quark)));
  if (place)
    return place;
  auto *socket = find_socket(stream);
  if (!socket)
    return nullptr;
  place = g_new0(Place, 1);
  g_atomic_ref_count_init(&place->references);
  place->socket = socket;
  place->fd = g_socket_get_fd(socket);
  place->direction = G_IS_INPUT_STREAM(stream) ? 0 : 1;
  g_object_set_qdata(object, static_cast<GQuark>(quark), place);
  g_object_weak_ref(object, stream_is_gone, place);
  return place;
}

GSocket *
gvc::plain_socket(gpointer stream)
{
  auto *place = place_of(stream);
  return place ? place->socket : nullptr;
}

// Adds the place to the epoll instance, which reports an edge at once if the socket is ready.
static gboolean
enter_epoll(Place *place)
{
  auto *set = place->set;
  auto *epoll = &set->epoll[place->direction];
  epoll_event event = {};
  event.events = (place->direction == 0 ? EPOLLIN | EPOLLRDHUP : EPOLLOUT) | EPOLLET;
  event.data.u64 = place->number;

  if (epoll->fd < 0) {
    *epoll = {.fd = epoll_create1(EPOLL_CLOEXEC), .events = G_IO_IN, .revents = 0};
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
  Lock lock;

  if (place->set && place->waits) {
    fire(place);
    g_main_context_wakeup(place->set->context);
  }
}

// g_cancellable_disconnect() would wait for the host's handlers, which may wait for the operation.
// The handler keeps the place instead. A cancellation that it misses shows when the wait begins.
static void
watch(Place *place, GCancellable *cancellable)
{
  if (!cancellable)
    return;
  g_atomic_ref_count_inc(&place->references);
  place->cancellable = cancellable;
  place->cancelled_handler =
      g_signal_connect_data(cancellable, "cancelled", G_CALLBACK(cancelled), place, place_unref,
                            static_cast<GConnectFlags>(0));
}

// ---- Sets ----

template <class Function>
static void
for_each_place(Set *set, Function function)
{
  GHashTableIter places;
  gpointer place;

  g_hash_table_iter_init(&places, set->places);
  while (g_hash_table_iter_next(&places, nullptr, &place))
    function(static_cast<Place *>(place));
}

// Takes events of an epoll instance. The edges of places in which nothing waits are dropped, and so
// are those of places that are gone. They must not hide the events behind them.
static void
collect(Set *set, guint direction)
{
  epoll_event events[max_events];
  int count = max_events;

  while (count == max_events && g_queue_is_empty(&set->fired)) {
    count = epoll_wait(set->epoll[direction].fd, events, max_events, 0);
    for (int i = 0; i < count; i++) {
      auto *place = static_cast<Place *>(g_hash_table_lookup(set->places, &events[i].data.u64));
      if (place && place->waits)
        fire(place);
      else if (place)
        leave_epoll(place);
    }
  }
}

// In the child after a fork the epoll instances are those of the parent, and stay its own.
static void
renew_after_fork(Set *set)
{
  if (set->generation == generation)
    return;
  set->generation = generation;
  for (auto &epoll : set->epoll) {
    if (epoll.fd < 0)
      continue;
    g_source_remove_poll(&set->source, &epoll);
    close(epoll.fd);
    epoll.fd = -1;
  }
  for_each_place(set, [](Place *place) {
    if (!enter_epoll(place))
      fire(place);
  });
}

// Returns FALSE if the set is not used any more.
static gboolean
sweep(Set *set, gint64 now)
{
  if (set->waiting == 0 && !set->used)
    return FALSE;
  for_each_place(set, [](Place *place) {
    if (place->waits && g_socket_is_closed(place->socket))
      fire(place);
  });
  set->used = FALSE;
  set->sweep_at = now + sweep_interval;
  return TRUE;
}

static void
abandon(Set *set)
{
  if (set->abandoned)
    return;
  set->abandoned = TRUE;
  g_hash_table_remove(sets, set);
  for_each_place(set, [](Place *place) {
    place->set = nullptr;
    place->fires = FALSE;
  });
  g_hash_table_remove_all(set->places);
}

static gboolean
set_prepare(GSource *source, int *timeout)
{
  auto *set = reinterpret_cast<Set *>(source);
  gint64 now = g_source_get_time(source);
  gboolean ready, abandoned;
  {
    Lock lock;
    renew_after_fork(set);
    if (now >= set->sweep_at && !sweep(set, now))
      abandon(set);
    ready = !g_queue_is_empty(&set->fired);
    abandoned = set->abandoned;
  }
  if (abandoned)
    g_source_destroy(source);
  *timeout = static_cast<int>((set->sweep_at - now) / G_TIME_SPAN_MILLISECOND) + 1;
  return ready;
}

static gboolean
set_check(GSource *source)
{
  auto *set = reinterpret_cast<Set *>(source);
  Lock lock;

  for (guint direction = 0; direction < 2; direction++)
    if (set->epoll[direction].fd >= 0 && set->epoll[direction].revents)
      collect(set, direction);
  return !g_queue_is_empty(&set->fired);
}

static gboolean
call_next(Set *set)
{
  Place next;
  {
    Lock lock;
    auto *place = static_cast<Place *>(g_queue_pop_head(&set->fired));
    if (!place)
      return FALSE;
    next = *place;
    place->cancellable = nullptr;
    place->fired = place->waits = FALSE;
    set->waiting--;
  }
  if (next.cancellable)
    g_signal_handler_disconnect(next.cancellable, next.cancelled_handler);
  next.ready(next.data);
  return TRUE;
}

// Only the waiters that are there now get their turn: each may wait again.
static gboolean
set_dispatch(GSource *source, GSourceFunc, gpointer)
{
  auto *set = reinterpret_cast<Set *>(source);
  guint left;
  {
    Lock lock;
    left = set->fired.length;
  }
  while (left > 0 && call_next(set))
    left--;
  return G_SOURCE_CONTINUE;
}

// The context is gone, or the set has been given up.
static void
set_finalize(GSource *source)
{
  auto *set = reinterpret_cast<Set *>(source);
  {
    Lock lock;
    abandon(set);
  }
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

// No thread holds the lock while the process is copied.
static void
make_sets()
{
  sets = g_hash_table_new(set_hash, set_equal);
  pthread_atfork([] { pthread_mutex_lock(&mutex); }, [] { pthread_mutex_unlock(&mutex); },
                 [] {
                   generation++;
                   pthread_mutex_unlock(&mutex);
                 });
}

static Set *
make_set(GMainContext *context, int priority)
{
  static GSourceFuncs funcs = {.prepare = set_prepare,
                               .check = set_check,
                               .dispatch = set_dispatch,
                               .finalize = set_finalize,
                               .closure_callback = nullptr,
                               .closure_marshal = nullptr};

  auto *source = g_source_new(&funcs, sizeof(Set));
  auto *set = reinterpret_cast<Set *>(source);
  set->context = context;
  set->priority = priority;
  set->epoll[0].fd = set->epoll[1].fd = -1;
  set->places = g_hash_table_new_full(g_int64_hash, g_int64_equal, nullptr,
                                      [](gpointer place) { place_unref(place); });
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

static Set *
set_of(GMainContext *context, int priority)
{
  if (!sets)
    make_sets();
  Set key = {};
  key.context = context;
  key.priority = priority;
  auto *set = static_cast<Set *>(g_hash_table_lookup(sets, &key));
  // GLib frees a context before it finalizes the sources, so a new one may have the same address.
  if (set && g_source_is_destroyed(&set->source)) {
    abandon(set);
    set = nullptr;
  }
  if (!set)
    return make_set(context, priority);
  renew_after_fork(set);
  return set;
}

static gboolean
join(Place *place, GMainContext *context, int priority)
{
  auto *set = place->set;

  if (!set || set->context != context || set->priority != priority ||
      set->generation != generation || g_source_is_destroyed(&set->source))
    set = set_of(context, priority);
  if (place->set == set)
    return place->fires || enter_epoll(place);
  leave(place);
  return enter(place, set);
}

// Channels with stages may share a socket connection, and each of them waits for itself: a place
// serves one waiter. From here on the waiter may be called, in another thread, before this function
// has returned.
gboolean
gvc::wait_for_socket(gpointer stream, GTask *task, int priority, void (*ready)(gpointer data),
                     gpointer data)
{
  auto *context = g_task_get_context(task);
  auto *place = place_of(stream);
  Lock lock;

  if (!place || place->waits || g_socket_get_timeout(place->socket) > 0 ||
      g_socket_is_closed(place->socket) || !join(place, context, priority))
    return FALSE;
  watch(place, g_task_get_cancellable(task));
  place->ready = ready;
  place->data = data;
  place->waits = TRUE;
  place->set->waiting++;
  place->set->used = TRUE;
  if (g_cancellable_is_cancelled(place->cancellable)) {
    fire(place);
    g_main_context_wakeup(context);
  }
  return TRUE;
}

#else

GSocket *
gvc::plain_socket(gpointer stream)
{
  return find_socket(stream);
}

gboolean
gvc::wait_for_socket(gpointer, GTask *, int, void (*)(gpointer), gpointer)
{
  return FALSE;
}

#endif
