// SPDX-License-Identifier: LGPL-2.1-or-later
// Thousands of channels at once in one process.
#include "tests/support/resources.h"
#include "tests/support/traffic.h"

#include <sys/resource.h>

using namespace support;
using namespace traffic;

namespace
{

constexpr guint many_pairs = 5000;
/* Descriptors beside the sockets, with some to spare. */
constexpr rlim_t other_descriptors = 100;

/* A channel with both ends, and a message under way in each direction. */
class Pair
{
public:
  explicit Pair(guint number)
      : number_(number),
        sockets_(new_socket_pair(number % 2 == 0 ? Family::tcp4 : Family::unix_domain)),
        ends_{Channel(sockets_.a.get(), both_stages), Channel(sockets_.b.get(), both_stages)}
  {
  }

  void
  start(guint round)
  {
    for (guint end = 0; end < 2; end++) {
      auto &way = ways_[end];
      way = std::make_unique<Way>(message(round, end));
      way->outgoing.put_async(ends_[end], nullptr, Collector::ready, &way->written);
      get_async(ends_[1 - end], way->message.form, nullptr, Collector::ready, &way->read);
    }
  }
  void
  finish()
  {
    for (guint end = 0; end < 2; end++) {
      auto &way = *ways_[end];
      Error write_error, read_error;
      if (!way.outgoing.put_finish(ends_[end], way.written.wait(), &write_error))
        write_error.assert_none();
      const auto data = get_finish(ends_[1 - end], way.message.form, way.read.wait(), &read_error);
      read_error.assert_none();
      assert_bytes(data.value(), content(way.message));
      ways_[end].reset();
    }
  }

private:
  struct Way {
    Message message;
    Outgoing outgoing;
    Collector written, read;
    explicit Way(const Message &sent) : message(sent), outgoing(sent) {}
  };

  Message
  message(guint round, guint end) const
  {
    const guint32 serial = (round * many_pairs + number_) * 2 + end;
    const auto form = static_cast<Form>(serial % forms);
    /* Each byte of a string takes a round of the main loop, and a round looks at all sockets. */
    return {form, serial, 1 + serial * 31 % (form == Form::string ? 40 : 600)};
  }

  guint number_;
  SocketPair sockets_;
  Channel ends_[2];
  std::unique_ptr<Way> ways_[2];
};

bool
may_open(rlim_t descriptors)
{
  rlimit limit;
  g_assert_no_errno(getrlimit(RLIMIT_NOFILE, &limit));
  limit.rlim_cur = limit.rlim_max;
  g_assert_no_errno(setrlimit(RLIMIT_NOFILE, &limit));
  return limit.rlim_cur >= descriptors;
}

void
use_channels(guint count, guint rounds)
{
  std::vector<std::unique_ptr<Pair>> pairs;
  for (guint i = 0; i < count; i++)
    pairs.push_back(std::make_unique<Pair>(i));
  for (guint round = 0; round < rounds; round++) {
    for (auto &pair : pairs)
      pair->start(round);
    for (auto &pair : pairs)
      pair->finish();
  }
  if (count == many_pairs)
    Resources::now().print("with all channels");
}

void
thousands_of_channels()
{
  if (!may_open(2 * many_pairs + other_descriptors)) {
    g_test_skip("the limit of open files is too low");
    return;
  }
  use_channels(100, 2);
  spin_pending();
  const auto before = Resources::now();
  before.print("before");
  use_channels(many_pairs, 3);
  spin_pending();
  const auto after = Resources::now();
  after.print("after");
  g_assert_true(after.returned_to(before));
}

} // namespace

int
main(int argc, char **argv)
{
  want_plain_heap(argv);
  g_test_init(&argc, &argv, nullptr);
  gvc_init();
  g_test_add_func("/load/thousands-of-channels-come-and-go", thousands_of_channels);
  return g_test_run();
}
