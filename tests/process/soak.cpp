// SPDX-License-Identifier: LGPL-2.1-or-later
// Random use of channels for as long as one likes. Every message that arrives is compared with what
// was sent, and when the program is at rest it must stand where it stood before: the same heap, the
// same descriptors, the same threads.
//
// A round makes some channels, does a few operations on each and drops them all. Everything about
// it follows from the seed and the number of the round, except how the system cuts what is sent.
#include "tests/support/resources.h"
#include "tests/support/traffic.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <random>

using namespace support;
using namespace traffic;

namespace
{

constexpr gsize mib = 1 << 20;

struct Options {
  gint64 seconds = 20;
  guint64 seed = 0;
  guint64 rounds = G_MAXUINT64;
  guint64 first_round = 0;
} options;

struct Counts {
  guint64 operations, messages, bytes, channels, failures;
} counts;

/* ---- Chance ---- */

class Random
{
public:
  explicit Random(guint64 seed) : engine_(seed) {}
  guint64
  below(guint64 limit)
  {
    return engine_() % limit;
  }
  bool
  one_in(guint64 count)
  {
    return below(count) == 0;
  }
  /* Every power of two is as likely as any other. */
  gsize
  size(guint least_bits, guint most_bits)
  {
    const guint bits = least_bits + static_cast<guint>(below(most_bits - least_bits + 1));
    return (gsize{1} << bits) + below(gsize{1} << bits);
  }

private:
  std::mt19937_64 engine_;
};

Stages
random_stages(Random &random)
{
  Stages stages;
  for (guint64 left = random.below(4); left > 0; left--)
    stages.push_back(static_cast<Stage>(random.below(3)));
  return stages;
}

Message
random_message(Random &random)
{
  static guint32 number;
  Message message;
  message.form = static_cast<Form>(random.below(forms));
  message.number = ++number;
  /* A string is read byte by byte. */
  message.size = message.form == Form::string ? random.size(0, 11)
                 : random.one_in(16)          ? random.size(16, 21)
                                              : random.size(0, 14);
  return message;
}

/* ---- Pairs of channels ---- */

struct Pair {
  SocketPair sockets;
  Channel a;
  Channel b;
  bool over = false; /* nothing more can be said */

  Pair(Family family, const Stages &stages)
      : sockets(new_socket_pair(family)), a(sockets.a.get(), stages), b(sockets.b.get(), stages)
  {
    counts.channels += 2;
  }
};

[[noreturn]] void
give_up(const char *what, const Message &message, const GError *error)
{
  g_error("%s: message %u, form %d, %zu bytes: %s", what, message.number,
          static_cast<int>(message.form), static_cast<size_t>(message.size),
          error != nullptr ? error->message : "wrong content");
}

void
check_received(const Message &message, const std::optional<std::string> &data, const Error &error)
{
  if (!data || *data != content(message))
    give_up("reading", message, error.get());
  counts.messages++;
  counts.bytes += data->size();
}

/* An operation that loses its peer or is stopped must say so, and nothing else. */
void
check_failed(const char *what, bool failed, const Error &error)
{
  if (!failed)
    g_error("%s: success is reported", what);
  const GError *const why = error.get();
  g_assert_nonnull(why);
  const bool known =
      g_error_matches(why, GVC_ERROR, GVC_ERROR_DISCONNECTED) ||
      g_error_matches(why, G_IO_ERROR, G_IO_ERROR_CANCELLED) ||
      g_error_matches(why, G_IO_ERROR, G_IO_ERROR_PARTIAL_INPUT) ||
      g_error_matches(why, G_IO_ERROR, G_IO_ERROR_CONNECTION_CLOSED) || /* reset, broken pipe */
      g_error_matches(why, G_IO_ERROR, G_IO_ERROR_CLOSED);
  if (!known)
    g_error("%s: %s, %d: %s", what, g_quark_to_string(why->domain), why->code, why->message);
  counts.failures++;
}

/* An asynchronous message on its way from one channel to the other. */
class Transfer
{
public:
  Transfer(Channel &from, Channel &to, const Message &message)
      : from_(from), to_(to), message_(message), outgoing_(message)
  {
    outgoing_.put_async(from_, nullptr, Collector::ready, &written_);
    get_async(to_, message_.form, nullptr, Collector::ready, &read_);
  }
  ~Transfer()
  {
    Error write_error, read_error;
    GAsyncResult *const read = read_.wait();
    check_received(message_, get_finish(to_, message_.form, read, &read_error), read_error);
    if (!outgoing_.put_finish(from_, written_.wait(), &write_error))
      give_up("writing", message_, write_error.get());
  }
  Transfer(const Transfer &) = delete;
  Transfer &operator=(const Transfer &) = delete;

private:
  Channel &from_;
  Channel &to_;
  Message message_;
  Outgoing outgoing_;
  Collector written_;
  Collector read_;
};

/* ---- Operations ---- */

void
exchange_async(Pair &pair, Random &random)
{
  const Message there = random_message(random);
  const Message back = random_message(random);
  const guint64 directions = 1 + random.below(3);
  std::unique_ptr<Transfer> transfers[2];
  if (directions & 1)
    transfers[0] = std::make_unique<Transfer>(pair.a, pair.b, there);
  if (directions & 2)
    transfers[1] = std::make_unique<Transfer>(pair.b, pair.a, back);
}

void
exchange_blocking(Pair &pair, Random &random)
{
  const Message message = random_message(random);
  const Outgoing outgoing(message);
  Background writer([&] {
    Error error;
    if (!outgoing.put(pair.a, nullptr, &error))
      give_up("writing", message, error.get());
  });
  Error error;
  check_received(message, get(pair.b, message.form, nullptr, &error), error);
}

void
exchange_mixed(Pair &pair, Random &random)
{
  const Message message = random_message(random);
  const Outgoing outgoing(message);
  Background reader([&] {
    Error error;
    check_received(message, get(pair.b, message.form, nullptr, &error), error);
  });
  Collector written;
  Error error;
  outgoing.put_async(pair.a, nullptr, Collector::ready, &written);
  if (!outgoing.put_finish(pair.a, written.wait(), &error))
    give_up("writing", message, error.get());
}

/* Nothing has been sent, so nothing is lost: the channel goes on. */
void
cancel_read(Pair &pair, Random &random)
{
  const Form form = static_cast<Form>(random.below(forms));
  const auto cancellable = own(g_cancellable_new());
  Collector read;
  Error error;
  const bool beforehand = random.one_in(2);
  if (beforehand)
    g_cancellable_cancel(cancellable.get());
  get_async(pair.a, form, cancellable.get(), Collector::ready, &read);
  if (!beforehand) {
    spin_pending();
    g_cancellable_cancel(cancellable.get());
  }
  check_failed("cancelled read", !get_finish(pair.a, form, read.wait(), &error), error);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_CANCELLED);
}

/* Starts more than sockets hold, so that it cannot end by itself. */
struct HugeWrite {
  Ref<GCancellable> cancellable{g_cancellable_new()};
  Collector written;

  static const Message &
  message()
  {
    static const Message huge = {Form::bytes, 0, 24 * mib};
    return huge;
  }
  static const Outgoing &
  outgoing()
  {
    static const Outgoing huge(message());
    return huge;
  }
  explicit HugeWrite(Channel &from)
  {
    outgoing().put_async(from, cancellable.get(), Collector::ready, &written);
    spin_pending();
  }
  void
  fail(Channel &from, const char *what)
  {
    Error error;
    check_failed(what, !outgoing().put_finish(from, written.wait(), &error), error);
  }
};

void
cancel_write(Pair &pair, Random &)
{
  HugeWrite huge(pair.a);
  g_cancellable_cancel(huge.cancellable.get());
  huge.fail(pair.a, "cancelled write");
  pair.over = true;
}

void
peer_resets_writer(Pair &pair, Random &)
{
  HugeWrite huge(pair.a);
  pair.b.reset();
  huge.fail(pair.a, "write to a peer that resets");
  pair.over = true;
}

void
peer_resets_reader(Pair &pair, Random &random)
{
  /* Strings do not end with their stream. */
  const Form form = random.one_in(2) ? Form::bytes : Form::variant;
  Collector read;
  Error error;
  get_async(pair.a, form, nullptr, Collector::ready, &read);
  spin_pending();
  pair.b.reset();
  check_failed("read from a peer that resets", !get_finish(pair.a, form, read.wait(), &error),
               error);
  pair.over = true;
}

/* Part of a message arrives, and then the end; or the whole message, where the socket has taken all
 * of it by then. What the writer is told must be what the reader sees. */
void
peer_stops_within(Pair &pair, Random &random)
{
  HugeWrite huge(pair.b);
  Error read_error, write_error, error;
  Collector read;
  get_async(pair.a, Form::bytes, nullptr, Collector::ready, &read);
  for (guint64 turns = random.below(32); turns > 0; turns--)
    g_main_context_iteration(nullptr, FALSE);
  g_socket_shutdown(pair.b.socket(), FALSE, TRUE, &error);
  error.assert_none();
  pair.over = true;
  GAsyncResult *const result = read.wait();
  const auto data = get_finish(pair.a, Form::bytes, result, &read_error);
  if (HugeWrite::outgoing().put_finish(pair.b, huge.written.wait(), &write_error))
    return check_received(HugeWrite::message(), data, read_error);
  check_failed("write after a shutdown", true, write_error);
  check_failed("read of a part", !data, read_error);
}

void
close_orderly(Pair &pair, Random &random)
{
  Error error;
  if (random.one_in(2)) {
    pair.b.close(&error);
  } else {
    Collector closed;
    g_io_stream_close_async(G_IO_STREAM(pair.b.connection.get()), G_PRIORITY_DEFAULT, nullptr,
                            Collector::ready, &closed);
    g_io_stream_close_finish(G_IO_STREAM(pair.b.connection.get()), closed.wait(), &error);
  }
  error.assert_none();
  pair.b.abandon();
  check_failed("read after the end", !get(pair.a, Form::bytes, nullptr, &error), error);
  error.clear();
  pair.a.close(&error); /* fails where the peer was first */
  pair.over = true;
}

/* An operation keeps alive all that it needs, and ends when the socket does. */
void
drop_while_pending(Pair &pair, Random &)
{
  Collector read, written;
  Error read_error, write_error;
  HugeWrite::outgoing().put_async(pair.a, nullptr, Collector::ready, &written);
  get_async(pair.a, Form::variant, nullptr, Collector::ready, &read);
  spin_pending();
  pair.a.strings.reset();
  pair.a.in.reset();
  pair.a.out.reset();
  pair.a.connection.reset();
  pair.b.abandon();
  GAsyncResult *const read_result = read.wait();
  GAsyncResult *const write_result = written.wait();
  const VariantRef message(gvc_bytes_input_stream_read_variant_finish(
      GVC_BYTES_INPUT_STREAM(read.source()), read_result, &read_error));
  check_failed("read of a dropped channel", message == nullptr, read_error);
  check_failed("write of a dropped channel",
               !gvc_bytes_output_stream_put_bytes_finish(GVC_BYTES_OUTPUT_STREAM(written.source()),
                                                         write_result, &write_error),
               write_error);
  pair.over = true;
}

struct Operation {
  const char *name;
  guint weight;
  void (*run)(Pair &pair, Random &random);
};

const Operation operations[] = {
    {"exchange, asynchronous", 40, exchange_async},
    {"exchange, blocking", 12, exchange_blocking},
    {"exchange, asynchronous to blocking", 12, exchange_mixed},
    {"cancelled read", 12, cancel_read},
    {"cancelled write", 1, cancel_write},
    {"reset while writing", 1, peer_resets_writer},
    {"reset while reading", 3, peer_resets_reader},
    {"end within a message", 1, peer_stops_within},
    {"orderly close", 4, close_orderly},
    {"dropped while busy", 1, drop_while_pending},
};
guint64 times[G_N_ELEMENTS(operations)];

gsize
choose_operation(Random &random)
{
  guint total = 0;
  for (const auto &operation : operations)
    total += operation.weight;
  guint64 left = random.below(total);
  gsize choice = 0;
  while (left >= operations[choice].weight)
    left -= operations[choice++].weight;
  return choice;
}

/* ---- Waiting channels ---- */

constexpr gsize crowd_size = 500; /* pairs, and each end waits */

/* One end of a pair that always has a read under way. */
class Waiter
{
public:
  explicit Waiter(Channel &channel) : channel_(channel)
  {
    start();
  }
  void
  receive(const Message &message)
  {
    Error error;
    check_received(message, get_finish(channel_, Form::bytes, read_->wait(), &error), error);
    start();
  }
  void
  stop()
  {
    Error error;
    g_cancellable_cancel(cancellable_.get());
    check_failed("cancelled wait", !get_finish(channel_, Form::bytes, read_->wait(), &error),
                 error);
  }

private:
  void
  start()
  {
    read_ = std::make_unique<Collector>();
    get_async(channel_, Form::bytes, cancellable_.get(), Collector::ready, read_.get());
  }

  Channel &channel_;
  Ref<GCancellable> cancellable_{g_cancellable_new()};
  std::unique_ptr<Collector> read_;
};

struct WaitingPair {
  Pair pair;
  Waiter a, b;

  explicit WaitingPair(Family family) : pair(family, {}), a(pair.a), b(pair.b) {}
};

/* A thousand channels that wait beside all others. Some get a message in every round. */
class Crowd
{
public:
  Crowd()
  {
    for (gsize i = 0; i < crowd_size; i++)
      pairs_.push_back(std::make_unique<WaitingPair>(i % 2 ? Family::tcp4 : Family::unix_domain));
  }
  ~Crowd()
  {
    for (const auto &each : pairs_) {
      each->a.stop();
      each->b.stop();
    }
  }
  void
  exchange(Random &random)
  {
    for (int i = 0; i < 4; i++) {
      WaitingPair &each = *pairs_[random.below(crowd_size)];
      Message message = random_message(random);
      message.form = Form::bytes;
      message.size = random.size(0, 12); /* what a socket takes at once */
      Error error;
      if (!Outgoing(message).put(each.pair.a, nullptr, &error))
        give_up("writing", message, error.get());
      each.b.receive(message);
    }
  }

private:
  std::vector<std::unique_ptr<WaitingPair>> pairs_;
};

/* ---- Rounds ---- */

/* The stages of a channel that is dropped wait for a peer that does not read, unless the socket has
 * been closed. */
void
drop(std::unique_ptr<Pair> pair, Random &random)
{
  if (!pair->over && random.one_in(2))
    return;
  for (const auto &connection : {pair->sockets.a.get(), pair->sockets.b.get()}) {
    Error error;
    g_socket_close(g_socket_connection_get_socket(connection), &error);
    error.assert_none();
  }
}

void
run_round(guint64 number, Crowd &crowd)
{
  Random random(options.seed * 1'000'003 + number);
  crowd.exchange(random);
  std::vector<std::unique_ptr<Pair>> pairs;
  for (guint64 left = 1 + random.below(6); left > 0; left--)
    pairs.push_back(std::make_unique<Pair>(random.one_in(2) ? Family::tcp4 : Family::unix_domain,
                                           random_stages(random)));
  for (guint64 left = random.below(40); left > 0; left--) {
    Pair &pair = *pairs[random.below(pairs.size())];
    if (pair.over)
      continue;
    const gsize choice = choose_operation(random);
    times[choice]++;
    g_debug("round %" G_GUINT64_FORMAT ": pair %p, %s", number, static_cast<void *>(&pair),
            operations[choice].name);
    counts.operations++;
    operations[choice].run(pair, random);
  }
  while (!pairs.empty()) {
    drop(std::move(pairs.back()), random);
    pairs.pop_back();
  }
  spin_pending();
}

void
print_counts(gint64 elapsed)
{
  g_print("%" G_GINT64_FORMAT " s: %" G_GUINT64_FORMAT " operations, %" G_GUINT64_FORMAT
          " messages, %" G_GUINT64_FORMAT " bytes, %" G_GUINT64_FORMAT
          " channels, %" G_GUINT64_FORMAT " expected failures\n",
          elapsed / G_USEC_PER_SEC, counts.operations, counts.messages, counts.bytes,
          counts.channels, counts.failures);
}

int
soak()
{
  const gint64 start = g_get_monotonic_time();
  const gint64 length = options.seconds * G_USEC_PER_SEC;
  gint64 next_report = start + G_USEC_PER_SEC * 60;
  Crowd crowd;
  Resources before = Resources::most(), after = Resources::most();
  guint taken_before = 0, taken_after = 0;
  g_print("seed %" G_GUINT64_FORMAT ", from round %" G_GUINT64_FORMAT "\n", options.seed,
          options.first_round);
  for (guint64 round = 0; round < options.rounds; round++) {
    const gint64 elapsed = g_get_monotonic_time() - start;
    if (elapsed >= length)
      break;
    run_round(options.first_round + round, crowd);
    /* The first quarter warms up; then the second is compared with the last. */
    const gint64 quarter = elapsed * 4 / length;
    if (quarter == 1) {
      before = before.least(Resources::now());
      taken_before++;
    } else if (quarter == 3) {
      after = after.least(Resources::now());
      taken_after++;
    }
    if (start + elapsed >= next_report) {
      print_counts(elapsed);
      next_report += G_USEC_PER_SEC * 60;
    }
  }
  print_counts(g_get_monotonic_time() - start);
  for (gsize i = 0; i < G_N_ELEMENTS(operations); i++)
    g_print("  %s: %" G_GUINT64_FORMAT "\n", operations[i].name, times[i]);
  if (!heap_is_known()) {
    g_print("nothing is known of the heap, and nothing compared\n");
    return EXIT_SUCCESS;
  }
  if (taken_before == 0 || taken_after == 0) {
    g_print("too short to compare\n");
    return options.rounds != G_MAXUINT64 ? EXIT_SUCCESS : EXIT_FAILURE;
  }
  before.print("after warm-up");
  after.print("at the end");
  g_print("growth after warm-up: %" G_GSSIZE_FORMAT " bytes\n",
          static_cast<gssize>(after.heap) - static_cast<gssize>(before.heap));
  return after.returned_to(before) ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* A thousand sockets are more than many systems allow at first. */
void
raise_descriptor_limit()
{
  rlimit limit;
  g_assert_cmpint(getrlimit(RLIMIT_NOFILE, &limit), ==, 0);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 4096);
  g_assert_cmpint(setrlimit(RLIMIT_NOFILE, &limit), ==, 0);
}

void
parse_options(int argc, char **argv)
{
  gint64 seconds = options.seconds, seed = g_get_real_time() % 1'000'000, rounds = 0, first = 0;
  const GOptionEntry entries[] = {
      {"seconds", 0, 0, G_OPTION_ARG_INT64, &seconds, "How long", "N"},
      {"seed", 0, 0, G_OPTION_ARG_INT64, &seed, "What chance follows from", "N"},
      {"rounds", 0, 0, G_OPTION_ARG_INT64, &rounds, "Stop after as many", "N"},
      {"first-round", 0, 0, G_OPTION_ARG_INT64, &first, "Where to begin", "N"},
      {},
  };
  GOptionContext *const context = g_option_context_new("- uses channels at random");
  g_option_context_add_main_entries(context, entries, nullptr);
  Error error;
  if (!g_option_context_parse(context, &argc, &argv, &error)) {
    g_printerr("%s\n", error.get()->message);
    exit(2);
  }
  g_option_context_free(context);
  options.seconds = std::max<gint64>(seconds, 1);
  options.seed = static_cast<guint64>(seed);
  options.first_round = static_cast<guint64>(first);
  if (rounds > 0)
    options.rounds = static_cast<guint64>(rounds);
}

} // namespace

int
main(int argc, char **argv)
{
  want_plain_heap(argv);
  parse_options(argc, argv);
  raise_descriptor_limit();
  gvc_init();
  return soak();
}
