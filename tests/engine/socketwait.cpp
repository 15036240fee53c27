// SPDX-License-Identifier: LGPL-2.1-or-later
// Operations that wait for real sockets: contexts, priorities, closed and reused descriptors, fork,
// and what is left behind. All of it holds with epoll sets and with a source for each wait.
#include "tests/support/resources.h"
#include "tests/support/traffic.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <utility>

using namespace support;
using namespace traffic;

namespace
{

/* ---- The moment before a wait ---- */

/* Runs once, when a read of this descriptor has found nothing. */
int empty_fd = -1;
std::function<void()> when_empty;

} // namespace

/* GIO calls this function in place of the C library's. The header may define an inline one of that
   name, so the name is the linker's alone. */
extern "C" ssize_t interposed_recv(int fd, void *buffer, size_t size, int flags) __asm__("recv");

ssize_t
interposed_recv(int fd, void *buffer, size_t size, int flags)
{
  static const auto real = reinterpret_cast<decltype(&interposed_recv)>(dlsym(RTLD_NEXT, "recv"));
  const ssize_t received = real(fd, buffer, size, flags);
  const int error = errno;
  if (received < 0 && fd == empty_fd && when_empty)
    std::exchange(when_empty, {})();
  errno = error;
  return received;
}

bool no_watches_left;

extern "C" int interposed_epoll_ctl(int epoll, int operation, int fd,
                                    epoll_event *event) __asm__("epoll_ctl");

int
interposed_epoll_ctl(int epoll, int operation, int fd, epoll_event *event)
{
  static const auto real =
      reinterpret_cast<decltype(&interposed_epoll_ctl)>(dlsym(RTLD_NEXT, "epoll_ctl"));
  if (!no_watches_left || operation != EPOLL_CTL_ADD)
    return real(epoll, operation, fd, event);
  errno = ENOSPC;
  return -1;
}

namespace
{

/* ---- Channels ---- */

struct Pair {
  SocketPair sockets;
  Channel a;
  Channel b;

  explicit Pair(Family family = Family::unix_domain, const Stages &stages = {})
      : sockets(new_socket_pair(family)), a(sockets.a.get(), stages), b(sockets.b.get(), stages)
  {
  }
};

using Pairs = std::vector<std::unique_ptr<Pair>>;

Pairs
new_pairs(gsize count)
{
  Pairs pairs;
  for (gsize i = 0; i < count; i++)
    pairs.push_back(std::make_unique<Pair>());
  return pairs;
}

/* Small enough for the buffer of the socket. */
void
send(Channel &channel, const std::string &message)
{
  Error error;
  g_assert_true(gvc_bytes_output_stream_put_bytes(channel.out.get(), new_bytes(message).get(),
                                                  nullptr, &error));
  error.assert_none();
}

/* An asynchronous read. `then` runs in its callback. */
class Read
{
public:
  explicit Read(Channel &channel, int priority = G_PRIORITY_DEFAULT,
                GCancellable *cancellable = nullptr, std::function<void()> then = {})
      : then_(std::move(then))
  {
    gvc_bytes_input_stream_read_bytes_async(channel.in.get(), priority, cancellable, ready, this);
  }
  Read(const Read &) = delete;
  Read &operator=(const Read &) = delete;

  bool
  done() const
  {
    return collector_.calls() > 0;
  }
  GThread *
  thread() const
  {
    return collector_.thread();
  }
  void
  expect(const std::string &message)
  {
    Error error;
    const BytesRef bytes = finish(&error);
    error.assert_none();
    assert_bytes(bytes_string(bytes.get()), message);
  }
  void
  expect_failure(int code)
  {
    Error error;
    g_assert_null(finish(&error).get());
    error.assert_is(G_IO_ERROR, code);
  }

private:
  static void
  ready(GObject *source, GAsyncResult *result, gpointer data)
  {
    const auto self = static_cast<Read *>(data);
    Collector::ready(source, result, &self->collector_);
    if (self->then_)
      self->then_();
  }
  BytesRef
  finish(GError **error)
  {
    GAsyncResult *const result = collector_.wait();
    return BytesRef(gvc_bytes_input_stream_read_bytes_finish(
        GVC_BYTES_INPUT_STREAM(collector_.source()), result, error));
  }

  Collector collector_;
  std::function<void()> then_;
};

using Reads = std::vector<std::unique_ptr<Read>>;

/* More than a socket holds. */
class HugeWrite
{
public:
  explicit HugeWrite(Channel &channel, int priority = G_PRIORITY_DEFAULT)
      : channel_(channel), bytes_(new_bytes(data()))
  {
    gvc_bytes_output_stream_put_bytes_async(channel.out.get(), bytes_.get(), priority, nullptr,
                                            Collector::ready, &written_);
  }
  static const std::string &
  data()
  {
    static const std::string huge = pattern(8 << 20);
    return huge;
  }
  bool
  finish(GError **error)
  {
    return gvc_bytes_output_stream_put_bytes_finish(channel_.out.get(), written_.wait(), error);
  }
  void
  expect_success()
  {
    Error error;
    g_assert_true(finish(&error));
    error.assert_none();
  }

private:
  Channel &channel_;
  BytesRef bytes_;
  Collector written_;
};

void
cancel(const Ref<GCancellable> &cancellable)
{
  g_cancellable_cancel(cancellable.get());
}

/* The read has waited in the main loop, so whatever waits stays prepared for the next one. */
void
warm_up(Pair &pair)
{
  Read read(pair.a);
  spin_pending();
  send(pair.b, "warm");
  read.expect("warm");
}

/* ---- Main loop ---- */

GPollFunc real_poll;
std::function<void()> before_poll;
int last_poll;

int
watched_poll(GPollFD *fds, guint count, int timeout)
{
  if (before_poll)
    std::exchange(before_poll, {})();
  return last_poll = real_poll(fds, count, timeout);
}

/* Sees what the default context polls. */
class PollWatch
{
public:
  PollWatch()
  {
    real_poll = g_main_context_get_poll_func(nullptr);
    g_main_context_set_poll_func(nullptr, watched_poll);
  }
  ~PollWatch()
  {
    g_main_context_set_poll_func(nullptr, real_poll);
  }
  PollWatch(const PollWatch &) = delete;
  PollWatch &operator=(const PollWatch &) = delete;
};

/* A loop that has nothing to do must not find a descriptor ready in every turn. */
void
assert_quiet()
{
  const PollWatch watch;
  for (int turn = 0; turn < 20; turn++)
    g_main_context_iteration(nullptr, FALSE);
  for (int turn = 0; turn < 20; turn++) {
    g_assert_false(g_main_context_pending(nullptr));
    g_assert_cmpint(last_poll, ==, 0);
  }
}

guint
epoll_instances()
{
  guint count = 0;
  GDir *const directory = g_dir_open("/proc/self/fd", 0, nullptr);
  g_assert_nonnull(directory);
  while (const char *const name = g_dir_read_name(directory)) {
    const Mem<char> path(g_build_filename("/proc/self/fd", name, nullptr));
    const Mem<char> target(g_file_read_link(path.get(), nullptr));
    count += g_strcmp0(target.get(), "anon_inode:[eventpoll]") == 0;
  }
  g_dir_close(directory);
  return count;
}

void
wait_until_given_up()
{
  spin_until([] { return epoll_instances() == 0; });
}

void
close_connection(Channel &channel)
{
  Error error;
  GSocketConnection *const connection = gvc_connection_get_connection(channel.connection.get());
  g_io_stream_close(G_IO_STREAM(connection), nullptr, &error);
}

void
close_socket(Channel &channel)
{
  channel.abandon();
}

constexpr Family families[] = {Family::unix_domain, Family::tcp4};

/* Ends the child without what belongs to the parent: exit handlers, the test's report. */
void
in_child(const std::function<void()> &code)
{
  const pid_t child = fork();
  g_assert_cmpint(child, >=, 0);
  if (child == 0) {
    code();
    _exit(0);
  }
  int status = 0;
  g_assert_cmpint(waitpid(child, &status, 0), ==, child);
  g_assert_true(WIFEXITED(status));
  g_assert_cmpint(WEXITSTATUS(status), ==, 0);
}

enum class Deed { close, cancel, free };

/* ---- Contexts, priorities, order ---- */

void
test_default_context()
{
  Pair pair;
  std::unique_ptr<Read> read;
  Background([&] { read = std::make_unique<Read>(pair.a); }).join();
  spin_pending();
  g_assert_false(read->done());
  send(pair.b, "hello");
  read->expect("hello");
  g_assert_true(read->thread() == g_thread_self());
}

/* The waiting in one thread must not depend on the other thread's loop. */
void
test_two_contexts()
{
  const auto serve = [] {
    run_in_thread([] {
      Pair pair;
      for (int i = 0; i < 50; i++) {
        Read read(pair.a);
        spin_pending();
        send(pair.b, std::to_string(i));
        read.expect(std::to_string(i));
        g_assert_true(read.thread() == g_thread_self());
      }
    });
  };
  Background one(serve), other(serve);
}

void
test_priorities()
{
  Pair low, high;
  std::string order;
  Read last(low.a, G_PRIORITY_DEFAULT + 100, nullptr, [&] { order += "low "; });
  Read first(high.a, G_PRIORITY_DEFAULT - 100, nullptr, [&] { order += "high "; });
  spin_pending();
  g_idle_add_full(
      G_PRIORITY_DEFAULT + 50,
      [](gpointer text) {
        *static_cast<std::string *>(text) += "idle ";
        return G_SOURCE_REMOVE;
      },
      &order, nullptr);
  send(low.b, "l");
  send(high.b, "h");
  last.expect("l");
  first.expect("h");
  assert_text(order, "high idle low ");
}

/* Sets are found by a hash of context and priority, which may be the same for two sets. */
void
test_same_hash()
{
  GMainContext *const here = g_main_context_new();
  const gint difference = GPOINTER_TO_INT(here) ^ GPOINTER_TO_INT(g_main_context_default());
  Pair one, other;
  Read first(one.a, 0);
  g_main_context_push_thread_default(here);
  Read second(other.a, difference);
  spin_pending();
  send(one.b, "first");
  send(other.b, "second");
  second.expect("second");
  g_assert_false(first.done());
  g_main_context_pop_thread_default(here);
  g_main_context_unref(here);
  first.expect("first");
}

/* A channel that always has a message lets the others have theirs. */
void
test_fair()
{
  Pair busy, other;
  constexpr gsize messages = 50;
  Reads reads;
  std::function<void()> again = [&] {
    if (reads.size() < messages)
      reads.push_back(std::make_unique<Read>(busy.a, G_PRIORITY_DEFAULT, nullptr, again));
  };
  Read wanted(other.a);
  again();
  spin_pending();
  for (gsize i = 0; i < messages; i++)
    send(busy.b, "more");
  send(other.b, "mine");
  wanted.expect("mine");
  g_assert_cmpuint(reads.size(), <, messages);
  spin_until([&] { return reads.size() == messages; });
  for (const auto &read : reads)
    read->expect("more");
}

/* The loop sleeps in poll() when another thread cancels, and must find something to do at once. */
void
test_cancelled_by_thread()
{
  Pair pair;
  const PollWatch watch;
  const auto cancellable = own(g_cancellable_new());
  Read read(pair.a, G_PRIORITY_DEFAULT, cancellable.get());
  spin_pending();
  g_assert_false(read.done());
  before_poll = [&] { Background([&] { cancel(cancellable); }).join(); };
  g_main_context_iteration(nullptr, TRUE);
  g_assert_cmpint(last_poll, >, 0);
  while (!read.done())
    g_assert_true(g_main_context_iteration(nullptr, FALSE));
  read.expect_failure(G_IO_ERROR_CANCELLED);
}

/* A cancellable may serve many operations. None leaves a handler behind. */
void
test_no_handler_left()
{
  Pair pair;
  const auto cancellable = own(g_cancellable_new());
  Read read(pair.a, G_PRIORITY_DEFAULT, cancellable.get());
  spin_pending();
  send(pair.b, "message");
  read.expect("message");
  spin_pending();
  g_assert_false(g_signal_has_handler_pending(
      cancellable.get(), g_signal_lookup("cancelled", G_TYPE_CANCELLABLE), 0, TRUE));
}

/* A host's handler that waits for the operation runs before ours, or instead of it. */
void
test_loop_in_cancelled_handler()
{
  Pair pair;
  const auto cancellable = own(g_cancellable_new());
  struct Handler {
    Pair &pair;
    Read *read;
  } handler = {pair, nullptr};
  g_signal_connect(cancellable.get(), "cancelled", G_CALLBACK(+[](GCancellable *, Handler *data) {
                     send(data->pair.b, "late");
                     spin_until([&] { return data->read->done(); });
                   }),
                   &handler);
  Read read(pair.a, G_PRIORITY_DEFAULT, cancellable.get());
  handler.read = &read;
  spin_pending();
  cancel(cancellable);
  read.expect_failure(G_IO_ERROR_CANCELLED);
}

void
test_destroyed_context()
{
  Pair pair;
  wait_until_given_up();
  run_in_thread([&] { warm_up(pair); });
  g_assert_cmpuint(epoll_instances(), ==, 0);
  warm_up(pair);
  run_in_thread([&] { warm_up(pair); });
  warm_up(pair);
}

/* The stream waits in one context, then in another one, while the first goes. */
void
test_moved_to_another_context()
{
  Pair pair;
  GMainContext *const first = g_main_context_new();
  g_main_context_push_thread_default(first);
  warm_up(pair);
  g_main_context_pop_thread_default(first);
  Read read(pair.a);
  spin_pending();
  g_main_context_unref(first);
  send(pair.b, "moved");
  read.expect("moved");
}

/* GLib finalizes the sources of a context when it has already freed the context. A context that is
   made between the two may have its address. */
struct LateSource {
  GSource source;
  GMainContext *freed; // only its address is used
};

bool address_returned;

void
wait_at_the_same_address(GSource *source)
{
  const auto freed = reinterpret_cast<LateSource *>(source)->freed;
  std::vector<GMainContext *> contexts;
  for (int i = 0; i < 100 && (i == 0 || contexts.back() != freed); i++)
    contexts.push_back(g_main_context_new());
  if (contexts.back() == freed) {
    address_returned = true;
    g_main_context_push_thread_default(freed);
    {
      Pair pair;
      warm_up(pair);
    }
    g_main_context_pop_thread_default(freed);
  }
  for (auto *context : contexts)
    g_main_context_unref(context);
}

void
attach_late_source(GMainContext *context)
{
  static GSourceFuncs funcs = {[](GSource *, int *) -> gboolean { return FALSE; },
                               [](GSource *) -> gboolean { return FALSE; },
                               nullptr,
                               wait_at_the_same_address,
                               nullptr,
                               nullptr};
  GSource *source = g_source_new(&funcs, sizeof(LateSource));
  reinterpret_cast<LateSource *>(source)->freed = context;
  g_source_attach(source, context);
  g_source_unref(source);
}

void
test_reused_address()
{
  /* calloc() takes nothing from the cache for freed blocks, so this fills the cache. */
  std::array<GMainContext *, 16> others;
  for (auto &other : others)
    other = g_main_context_new();
  GMainContext *context = others[8];
  g_main_context_push_thread_default(context);
  /* One of the two is finalized before the library's source. */
  attach_late_source(context);
  {
    Pair pair;
    warm_up(pair);
  }
  attach_late_source(context);
  g_main_context_pop_thread_default(context);
  for (gsize i = 0; i < 8; i++)
    g_main_context_unref(others[i]);
  g_main_context_unref(context);
  for (gsize i = 9; i < others.size(); i++)
    g_main_context_unref(others[i]);
  if (!address_returned)
    g_test_skip("the allocator gave no new context the address of the old one");
}

void
test_nested_loop()
{
  Pair first, second;
  int level = 0;
  Read outer(first.a, G_PRIORITY_DEFAULT, nullptr, [&] {
    level++;
    Read other(second.a), same(first.a);
    HugeWrite written(first.a), far(first.b);
    spin_pending();
    Background reader([&] {
      Error error;
      const BytesRef bytes(gvc_bytes_input_stream_read_bytes(first.b.in.get(), nullptr, &error));
      error.assert_none();
      assert_bytes(bytes_string(bytes.get()), HugeWrite::data());
    });
    written.expect_success();
    same.expect(HugeWrite::data());
    far.expect_success();
    send(second.b, "other");
    other.expect("other");
    level--;
  });
  spin_pending();
  send(first.b, "outer");
  outer.expect("outer");
  g_assert_cmpint(level, ==, 0);
}

/* The callback of one serves all others that were ready with it. */
void
test_batch_in_nested_loop()
{
  Pairs pairs = new_pairs(3);
  Reads reads;
  const auto serve_all = [&] {
    spin_until([&] { return std::all_of(reads.begin(), reads.end(), std::mem_fn(&Read::done)); });
  };
  for (const auto &pair : pairs)
    reads.push_back(std::make_unique<Read>(pair->a, G_PRIORITY_DEFAULT, nullptr, serve_all));
  spin_pending();
  for (const auto &pair : pairs)
    send(pair->b, "here");
  for (const auto &read : reads)
    read->expect("here");
}

void
test_pending()
{
  Pair pair;
  Read read(pair.a);
  assert_quiet();
  send(pair.b, "there");
  g_assert_true(g_main_context_pending(nullptr));
  g_assert_true(g_main_context_pending(nullptr));
  read.expect("there");
  assert_quiet();
}

/* Data on a channel that nobody reads is no work for the loop. */
void
test_unread()
{
  Pair pair;
  warm_up(pair);
  send(pair.b, "one");
  g_assert_false(g_main_context_pending(nullptr));
  g_assert_false(g_main_context_iteration(nullptr, FALSE));
  assert_quiet();
  send(pair.b, "two");
  {
    const PollWatch watch;
    g_main_context_iteration(nullptr, FALSE);
    g_assert_cmpint(last_poll, ==, 0);
  }
  assert_quiet();
  Read(pair.a).expect("one");
  Read(pair.a).expect("two");
  warm_up(pair);
}

/* Nor does it hide a message that somebody waits for. */
void
test_pending_behind_unread()
{
  const Pairs unread = new_pairs(200);
  Pair pair;
  for (const auto &each : unread)
    warm_up(*each);
  Read read(pair.a);
  assert_quiet();
  for (const auto &each : unread)
    send(each->b, "nobody");
  send(pair.b, "somebody");
  g_assert_true(g_main_context_pending(nullptr));
  read.expect("somebody");
}

/* ---- Closed and reused descriptors, fork ---- */

template <void (*close)(Channel &)>
void
test_closed()
{
  for (const Family family : families) {
    Pair pair(family);
    Read read(pair.a);
    HugeWrite write(pair.a);
    spin_pending();
    close(pair.a);
    read.expect_failure(G_IO_ERROR_CLOSED);
    Error error;
    g_assert_false(write.finish(&error));
    error.assert_is(G_IO_ERROR, G_IO_ERROR_CLOSED);
  }
}

/* The number belongs to another channel before the first operation has ended. */
void
test_reused_number()
{
  for (const Family family : families) {
    Pair old(family);
    Read lost(old.a);
    spin_pending();
    const int number = g_socket_get_fd(old.a.socket());
    old.a.abandon();
    Pair next(family);
    Channel *user = nullptr, *peer = nullptr;
    if (g_socket_get_fd(next.a.socket()) == number)
      user = &next.a, peer = &next.b;
    else if (g_socket_get_fd(next.b.socket()) == number)
      user = &next.b, peer = &next.a;
    g_assert_nonnull(user);
    Read read(*user), unread(*peer);
    spin_pending();
    send(*peer, "new");
    read.expect("new");
    lost.expect_failure(G_IO_ERROR_CLOSED);
    send(*user, "back");
    unread.expect("back");
  }
}

/* A copy of the descriptor keeps the socket alive, and in the kernel's sets. */
void
test_copied_descriptor()
{
  Pair bystander;
  Read waiting(bystander.a);
  int copy;
  {
    Pair pair;
    Read read(pair.a);
    spin_pending();
    copy = dup(g_socket_get_fd(pair.a.socket()));
    pair.a.abandon();
    read.expect_failure(G_IO_ERROR_CLOSED);
    send(pair.b, "to the copy");
    assert_quiet();
    Pair next;
    warm_up(next);
    send(pair.b, "and more");
    assert_quiet();
    char data[64];
    const std::string all = frame("to the copy") + frame("and more");
    g_assert_cmpint(recv(copy, data, sizeof data, 0), ==, all.size());
    assert_bytes(std::string_view(data, all.size()), all);
    warm_up(next);
    assert_quiet();
  }
  assert_quiet();
  close(copy);
  send(bystander.b, "still");
  waiting.expect("still");
}

void
test_fork()
{
  auto used = std::make_unique<Pair>(), waiting = std::make_unique<Pair>();
  warm_up(*used);
  auto read = std::make_unique<Read>(waiting->a);
  spin_pending();
  in_child([&] {
    for (int i = 0; i < 3; i++)
      warm_up(*used);
    run_in_thread([&] { warm_up(*used); });
    used.reset();
    waiting->a.abandon();
    read->expect_failure(G_IO_ERROR_CLOSED);
    waiting.reset();
    spin_pending();
  });
  spin_pending();
  g_assert_false(read->done());
  send(waiting->b, "for the parent");
  read->expect("for the parent");
  for (int i = 0; i < 3; i++)
    warm_up(*used);
}

/* ---- Edge cases ---- */

void
test_early_data()
{
  for (const Family family : families) {
    Pair pair(family);
    for (int i = 0; i < 100; i++) {
      const std::string message = pattern(1 + static_cast<gsize>(i) * 50);
      send(pair.b, message);
      if (i % 2)
        spin_pending();
      Read(pair.a).expect(message);
      if (i % 3)
        warm_up(pair);
    }
  }
}

/* The answer comes between the attempt to read and the wait, in some of the rounds. */
void
test_answers()
{
  constexpr int rounds = 2000;
  Pair pair;
  Background echo([&] {
    for (int i = 0; i < rounds; i++) {
      Error error;
      const BytesRef bytes(gvc_bytes_input_stream_read_bytes(pair.b.in.get(), nullptr, &error));
      error.assert_none();
      send(pair.b, "answer");
    }
  });
  for (int i = 0; i < rounds; i++) {
    send(pair.a, "question");
    Read(pair.a, i % 2 ? G_PRIORITY_DEFAULT : G_PRIORITY_HIGH).expect("answer");
  }
}

/* A message that comes after a read has found nothing, and before the wait begins, ends that wait.
 * The stream waits for the first time, or again, or again after a message that nobody waited for.
 */
void
test_data_before_wait()
{
  enum class Past { none, waited, unread };
  for (const Past past : {Past::none, Past::waited, Past::unread}) {
    Pair pair;
    if (past != Past::none)
      warm_up(pair);
    if (past == Past::unread) {
      send(pair.b, "unread");
      spin_pending();
      Read(pair.a).expect("unread");
    }
    bool sent = false;
    when_empty = [&] {
      send(pair.b, "in between");
      sent = true;
    };
    empty_fd = g_socket_get_fd(pair.a.socket());
    Read read(pair.a);
    g_assert_true(sent);
    g_assert_false(read.done());
    read.expect("in between");
    assert_quiet();
  }
  empty_fd = -1;
}

/* Another thread may close the socket there, too. */
void
test_closed_before_wait()
{
  Pair pair;
  when_empty = [&] { close_socket(pair.a); };
  empty_fd = g_socket_get_fd(pair.a.socket());
  Read read(pair.a);
  empty_fd = -1;
  g_assert_false(when_empty);
  read.expect_failure(G_IO_ERROR_CLOSED);
}

void
test_both_directions()
{
  for (const Family family : families) {
    Pair pair(family);
    Read read(pair.a, G_PRIORITY_HIGH);
    HugeWrite write(pair.a, G_PRIORITY_LOW);
    spin_pending();
    send(pair.b, "while it writes");
    read.expect("while it writes");
    Read far(pair.b, G_PRIORITY_HIGH_IDLE);
    far.expect(HugeWrite::data());
    write.expect_success();
    warm_up(pair);
  }
}

void
test_many_at_once()
{
  constexpr gsize count = 500;
  const Pairs pairs = new_pairs(count);
  guint called = 0;
  for (int round = 0; round < 3; round++) {
    Reads reads;
    for (const auto &pair : pairs)
      reads.push_back(
          std::make_unique<Read>(pair->a, G_PRIORITY_DEFAULT, nullptr, [&] { called++; }));
    spin_pending();
    for (gsize i = 0; i < count; i++)
      send(pairs[i]->b, std::to_string(i));
    for (gsize i = 0; i < count; i++)
      reads[i]->expect(std::to_string(i));
    spin_pending();
    g_assert_cmpuint(called, ==, count * static_cast<guint>(round + 1));
  }
}

/* The first callback of a batch does something to all other channels of the batch. */
template <Deed deed>
void
test_batch()
{
  constexpr gsize count = 5;
  Pairs pairs = new_pairs(count);
  std::vector<Ref<GCancellable>> cancellables;
  gsize first = count;
  Reads reads;
  const auto act = [&](gsize self) {
    if (first != count)
      return;
    first = self;
    for (gsize i = 0; i < count; i++) {
      if (i == self)
        continue;
      if (deed == Deed::close)
        pairs[i]->a.abandon();
      else if (deed == Deed::cancel)
        cancel(cancellables[i]);
      else
        pairs[i].reset();
    }
  };
  for (gsize i = 0; i < count; i++) {
    cancellables.push_back(own(g_cancellable_new()));
    reads.push_back(std::make_unique<Read>(pairs[i]->a, G_PRIORITY_DEFAULT, cancellables[i].get(),
                                           [&, i] { act(i); }));
  }
  spin_pending();
  for (const auto &pair : pairs)
    send(pair->b, "here");
  spin_until([&] { return first != count; });
  for (gsize i = 0; i < count; i++) {
    if (deed == Deed::free || i == first)
      reads[i]->expect("here");
    else
      reads[i]->expect_failure(deed == Deed::close ? G_IO_ERROR_CLOSED : G_IO_ERROR_CANCELLED);
  }
}

/* Channels over one socket: each wait ends for itself. */
void
test_shared_socket()
{
  Pair pair;
  const Stages stages = {Stage::compression};
  Channel one(pair.sockets.a.get(), stages), other(pair.sockets.a.get(), stages);
  const auto cancel_one = own(g_cancellable_new()), cancel_other = own(g_cancellable_new());
  Read first(one, G_PRIORITY_DEFAULT, cancel_one.get());
  Read second(other, G_PRIORITY_DEFAULT, cancel_other.get());
  spin_pending();
  cancel(cancel_one);
  first.expect_failure(G_IO_ERROR_CANCELLED);
  spin_pending();
  g_assert_false(second.done());
  cancel(cancel_other);
  second.expect_failure(G_IO_ERROR_CANCELLED);

  Channel plain(pair.sockets.a.get(), {});
  for (Channel *const channel : {&pair.a, &plain, &pair.a}) {
    Read read(*channel);
    spin_pending();
    send(pair.b, "in turn");
    read.expect("in turn");
  }
}

/* An epoll instance takes a descriptor once. The second wait leaves the first one alone. */
void
test_two_connections_of_a_socket()
{
  Pair pair;
  const auto again = own(g_socket_connection_factory_create_connection(pair.a.socket()));
  Channel other(again.get(), {});
  const auto cancellable = own(g_cancellable_new());
  Read first(pair.a);
  Read second(other, G_PRIORITY_DEFAULT, cancellable.get());
  spin_pending();
  cancel(cancellable);
  second.expect_failure(G_IO_ERROR_CANCELLED);
  send(pair.b, "first");
  first.expect("first");
}

void
test_armed_and_cancelled()
{
  Pair pair;
  const auto cycles = [&](int count) {
    for (int i = 0; i < count; i++) {
      const auto cancellable = own(g_cancellable_new());
      Read read(pair.a, i % 2 ? G_PRIORITY_DEFAULT : G_PRIORITY_HIGH, cancellable.get());
      if (i % 3)
        spin_pending();
      cancel(cancellable);
      while (!read.done())
        g_main_context_iteration(nullptr, TRUE);
      read.expect_failure(G_IO_ERROR_CANCELLED);
    }
  };
  cycles(1000);
  const Resources before = Resources::now();
  cycles(20000);
  if (heap_is_known())
    g_assert_true(Resources::now().returned_to(before));
  warm_up(pair);
}

void
test_timeout()
{
  Pair pair;
  warm_up(pair);
  g_socket_set_timeout(pair.a.socket(), 1);
  Read(pair.a).expect_failure(G_IO_ERROR_TIMED_OUT);
  g_socket_set_timeout(pair.a.socket(), 0);
  warm_up(pair);
}

/* ---- Descriptors ---- */

/* Otherwise the other cases say nothing about epoll sets. */
void
test_used()
{
  Pair pair;
  Read read(pair.a);
  spin_pending();
  g_assert_true((epoll_instances() > 0) == EPOLL);
  send(pair.b, "done");
  read.expect("done");
}

void
test_given_up()
{
  Pair pair;
  for (int i = 0; i < 3; i++) {
    warm_up(pair);
    HugeWrite write(pair.a);
    spin_pending();
    Read(pair.b).expect(HugeWrite::data());
    write.expect_success();
    wait_until_given_up();
  }
}

/* A wait keeps what it needs, however long it takes. */
void
test_kept()
{
  Pair pair;
  Read read(pair.a);
  const gint64 end = g_get_monotonic_time() + 3 * G_USEC_PER_SEC;
  spin_until([&] { return g_get_monotonic_time() > end; });
  g_assert_true((epoll_instances() > 0) == EPOLL);
  send(pair.b, "at last");
  read.expect("at last");
}

void
test_blocking_calls()
{
  wait_until_given_up();
  Pair pair;
  Background peer([&] {
    Error error;
    const BytesRef bytes(gvc_bytes_input_stream_read_bytes(pair.b.in.get(), nullptr, &error));
    error.assert_none();
    send(pair.b, bytes_string(bytes.get()));
  });
  send(pair.a, HugeWrite::data());
  Error error;
  const BytesRef bytes(gvc_bytes_input_stream_read_bytes(pair.a.in.get(), nullptr, &error));
  error.assert_none();
  assert_bytes(bytes_string(bytes.get()), HugeWrite::data());
  g_assert_cmpuint(epoll_instances(), ==, 0);
}

/* Without a descriptor for an epoll instance, a source of GLib's waits. */
void
test_no_descriptor()
{
  Pair pair;
  warm_up(pair); /* GLib makes a context of its own for its first task */
  wait_until_given_up();
  rlimit limit;
  g_assert_cmpint(getrlimit(RLIMIT_NOFILE, &limit), ==, 0);
  const int lowest = dup(g_socket_get_fd(pair.a.socket()));
  close(lowest);
  const rlimit none = {static_cast<rlim_t>(lowest), limit.rlim_max};
  g_assert_cmpint(setrlimit(RLIMIT_NOFILE, &none), ==, 0);

  Read read(pair.a);
  HugeWrite write(pair.a);
  spin_pending();
  g_assert_cmpint(dup(g_socket_get_fd(pair.a.socket())), ==, -1);
  send(pair.b, "all the same");
  read.expect("all the same");
  Read(pair.b).expect(HugeWrite::data());
  write.expect_success();

  g_assert_cmpint(setrlimit(RLIMIT_NOFILE, &limit), ==, 0);
  warm_up(pair);
}

/* The system limits the watches of a user (fs.epoll.max_user_watches). The set has been left
   because of a message that nobody waited for, and cannot be entered again. */
void
test_no_watches()
{
  Pair pair;
  warm_up(pair);
  send(pair.b, "unread");
  spin_pending();
  Read(pair.a).expect("unread");
  no_watches_left = true;
  for (const char *const message : {"one", "two"}) {
    Read read(pair.a);
    spin_pending();
    g_assert_false(read.done());
    send(pair.b, message);
    read.expect(message);
  }
  no_watches_left = false;
  warm_up(pair);
}

/* First a socket is descriptor 0, then whatever the waiting needs. */
void
use_descriptor_zero()
{
  close(STDIN_FILENO);
  {
    Pair pair;
    g_assert_cmpint(fcntl(STDIN_FILENO, F_GETFD), !=, -1);
    warm_up(pair);
    wait_until_given_up();
  }
  g_assert_cmpint(open("/dev/null", O_RDONLY), ==, STDIN_FILENO);
  Pair pair, other;
  close(STDIN_FILENO);
  warm_up(pair);
  warm_up(other);
  wait_until_given_up();
}

void
test_descriptor_zero()
{
  g_test_trap_subprocess("/socketwait/descriptors/zero/subprocess", 0,
                         G_TEST_SUBPROCESS_INHERIT_STDERR);
  g_test_trap_assert_passed();
}

} // namespace

int
main(int argc, char **argv)
{
  want_plain_heap(argv);
  g_test_init(&argc, &argv, nullptr);
  gvc_init();
  /* A thousand sockets at once. */
  rlimit limit;
  g_assert_cmpint(getrlimit(RLIMIT_NOFILE, &limit), ==, 0);
  limit.rlim_cur = MIN(limit.rlim_max, 4096);
  g_assert_cmpint(setrlimit(RLIMIT_NOFILE, &limit), ==, 0);

  g_test_add_func("/socketwait/context/default", test_default_context);
  g_test_add_func("/socketwait/context/two", test_two_contexts);
  g_test_add_func("/socketwait/context/destroyed", test_destroyed_context);
  g_test_add_func("/socketwait/context/moved", test_moved_to_another_context);
  g_test_add_func("/socketwait/context/reused-address", test_reused_address);
  g_test_add_func("/socketwait/context/nested", test_nested_loop);
  g_test_add_func("/socketwait/order/priorities", test_priorities);
  g_test_add_func("/socketwait/context/same-hash", test_same_hash);
  g_test_add_func("/socketwait/order/fair", test_fair);
  g_test_add_func("/socketwait/cancel/thread", test_cancelled_by_thread);
  g_test_add_func("/socketwait/cancel/no-handler-left", test_no_handler_left);
  g_test_add_func("/socketwait/cancel/loop-in-handler", test_loop_in_cancelled_handler);
  g_test_add_func("/socketwait/context/nested-batch", test_batch_in_nested_loop);
  g_test_add_func("/socketwait/pending", test_pending);
  g_test_add_func("/socketwait/pending/unread", test_unread);
  g_test_add_func("/socketwait/pending/behind-unread", test_pending_behind_unread);
  g_test_add_func("/socketwait/closed/connection", test_closed<close_connection>);
  g_test_add_func("/socketwait/closed/socket", test_closed<close_socket>);
  g_test_add_func("/socketwait/closed/reused-number", test_reused_number);
  g_test_add_func("/socketwait/closed/copied", test_copied_descriptor);
  g_test_add_func("/socketwait/fork", test_fork);
  g_test_add_func("/socketwait/early-data", test_early_data);
  g_test_add_func("/socketwait/answers", test_answers);
  g_test_add_func("/socketwait/data-before-wait", test_data_before_wait);
  g_test_add_func("/socketwait/closed-before-wait", test_closed_before_wait);
  g_test_add_func("/socketwait/both-directions", test_both_directions);
  g_test_add_func("/socketwait/many-at-once", test_many_at_once);
  g_test_add_func("/socketwait/batch/close", test_batch<Deed::close>);
  g_test_add_func("/socketwait/batch/cancel", test_batch<Deed::cancel>);
  g_test_add_func("/socketwait/batch/free", test_batch<Deed::free>);
  g_test_add_func("/socketwait/shared-socket", test_shared_socket);
  g_test_add_func("/socketwait/two-connections", test_two_connections_of_a_socket);
  g_test_add_func("/socketwait/armed-and-cancelled", test_armed_and_cancelled);
  g_test_add_func("/socketwait/timeout", test_timeout);
  g_test_add_func("/socketwait/descriptors/used", test_used);
  g_test_add_func("/socketwait/descriptors/given-up", test_given_up);
  g_test_add_func("/socketwait/descriptors/kept", test_kept);
  g_test_add_func("/socketwait/descriptors/blocking-calls", test_blocking_calls);
  g_test_add_func("/socketwait/descriptors/none-left", test_no_descriptor);
  g_test_add_func("/socketwait/descriptors/no-watches-left", test_no_watches);
  g_test_add_func("/socketwait/descriptors/zero", test_descriptor_zero);
  g_test_add_func("/socketwait/descriptors/zero/subprocess", use_descriptor_zero);
  return g_test_run();
}
