// SPDX-License-Identifier: LGPL-2.1-or-later
// In a host with a logger of its own, and with a clock that the tests set: this program defines
// zel_log and gettimeofday, and the library finds both in it.
#include "tests/support/convert.h"
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <sys/time.h>
#include <time.h>

#include <bit>
#include <climits>
#include <cstdarg>
#include <set>

using namespace support;

namespace
{

struct HostMessage {
  std::string domain;
  int level;
  std::string function;
  int line;
  std::string format;
  int value;
};

std::vector<HostMessage> host_messages;

struct Clock {
  bool set;
  timeval now;
  guint reads;
  bool zone_asked_for;
} fake_clock;

} // namespace

extern "C" {

__attribute__((visibility("default"))) void
zel_log(const char *domain, int level, const char *function, int line, const char *format, ...)
{
  va_list arguments;
  va_start(arguments, format);
  host_messages.push_back({domain, level, function, line, format, va_arg(arguments, int)});
  va_end(arguments);
}

__attribute__((visibility("default"))) int
gettimeofday(timeval *time, void *zone) noexcept
{
  fake_clock.reads++;
  fake_clock.zone_asked_for |= zone != nullptr;
  if (fake_clock.set) {
    *time = fake_clock.now;
    return 0;
  }
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  *time = {.tv_sec = now.tv_sec, .tv_usec = now.tv_nsec / 1000};
  return 0;
}
}

namespace
{

/* ---- Key length ---- */

gint
crypt_key_len(int length)
{
  g_auto(GValue) value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, length);
  const gint result = gvc_get_crypt_key_len(&value);
  g_assert_cmpint(g_value_get_int(&value), ==, length);
  return result;
}

void
test_good_key_lengths_are_silent()
{
  LogCapture log;
  host_messages.clear();
  g_assert_cmpint(crypt_key_len(128), ==, 128);
  g_assert_cmpint(crypt_key_len(256), ==, 256);
  g_assert_cmpuint(host_messages.size(), ==, 0);
  log.expect_none();
}

void
test_other_key_lengths_warn_the_host()
{
  LogCapture log;
  for (int length : {192, 0, -1, 1, 127, 129, 255, 257, 512, INT_MAX, INT_MIN}) {
    host_messages.clear();
    g_assert_cmpint(crypt_key_len(length), ==, 256);
    g_assert_cmpuint(host_messages.size(), ==, 1);
    const HostMessage &message = host_messages[0];
    g_assert_cmpstr(message.domain.c_str(), ==, "ZEL");
    g_assert_cmpint(message.level, ==, 16);
    g_assert_cmpstr(message.function.c_str(), ==, "gvc_get_crypt_key_len");
    g_assert_cmpint(message.line, ==, 24);
    g_assert_cmpstr(message.format.c_str(), ==, "Invalid key length %d");
    g_assert_cmpint(message.value, ==, length);
  }
  // The host's logger has it, so GLib's has not.
  log.expect_none();
}

/* ---- Random source ---- */

struct RandFree {
  void
  operator()(GvcRand *rand) const
  {
    gvc_rand_free(rand);
  }
};
using RandRef = std::unique_ptr<GvcRand, RandFree>;

RandRef
new_rand()
{
  RandRef rand{gvc_rand_new()};
  g_assert_nonnull(rand.get());
  return rand;
}

RandRef
new_rand_at(gint64 seconds, gint64 microseconds)
{
  fake_clock = {.set = true,
                .now = {.tv_sec = seconds, .tv_usec = microseconds},
                .reads = 0,
                .zone_asked_for = false};
  RandRef rand = new_rand();
  g_assert_cmpuint(fake_clock.reads, ==, 1);
  g_assert_false(fake_clock.zone_asked_for);
  fake_clock.set = false;
  return rand;
}

Bytes
draw(GvcRand *rand, gsize size)
{
  Bytes bytes(size);
  g_assert_true(gvc_rand_array(rand, bytes.data(), size));
  return bytes;
}

void
test_new_is_silent()
{
  LogCapture log;
  host_messages.clear();
  new_rand();
  g_assert_cmpuint(host_messages.size(), ==, 0);
  log.expect_none();
}

// A byte that came out equal to the fill by chance comes out otherwise in one of the rounds.
void
test_fills_exactly_the_length()
{
  const RandRef rand = new_rand();
  constexpr gsize guard = 16;
  for (gsize size = 1; size <= 200; size++)
    for (gsize shift = 0; shift < 4; shift++) {
      Bytes touched(size, 0);
      for (int round = 0; round < 8; round++) {
        Bytes memory(guard + shift + size + guard, 0x33);
        g_assert_true(gvc_rand_array(rand.get(), memory.data() + guard + shift, size) == TRUE);
        for (gsize i = 0; i < memory.size(); i++) {
          const gsize at = i - guard - shift;
          if (at >= size)
            g_assert_cmphex(memory[i], ==, 0x33);
          else
            touched[at] |= memory[i] != 0x33;
        }
      }
      for (guint8 byte : touched)
        g_assert_cmpuint(byte, ==, 1);
    }
}

void
test_draws_differ()
{
  const RandRef rand = new_rand();
  std::set<Bytes> seen;
  for (int i = 0; i < 2000; i++)
    g_assert_true(seen.insert(draw(rand.get(), 16)).second);
}

void
test_bits_are_balanced()
{
  const RandRef rand = new_rand_at(1700000000, 123456);
  const Bytes bytes = draw(rand.get(), 1 << 16);
  guint64 ones = 0;
  guint counts[256] = {};
  for (guint8 byte : bytes) {
    ones += std::popcount(byte);
    counts[byte]++;
  }
  // 2^19 coin flips have a standard deviation of 362, 2^16 draws of 256 values one of 16.
  g_assert_cmpuint(ones, >, (1 << 18) - 3000);
  g_assert_cmpuint(ones, <, (1 << 18) + 3000);
  for (guint count : counts) {
    g_assert_cmpuint(count, >, 256 - 128);
    g_assert_cmpuint(count, <, 256 + 128);
  }
}

void
test_output_follows_from_the_time()
{
  const Bytes first = draw(new_rand_at(1700000000, 123456).get(), 64);
  ASSERT_BYTES(draw(new_rand_at(1700000000, 123456).get(), 64), first);
  g_assert_false(draw(new_rand_at(1700000000, 123457).get(), 64) == first);
  g_assert_false(draw(new_rand_at(1700000001, 123456).get(), 64) == first);
  // The count of microseconds is more than 32 bits, and all of them matter.
  g_assert_false(draw(new_rand_at(1700000000 + (gint64{1} << 32), 123456).get(), 64) == first);
}

void
test_seed_is_the_count_of_microseconds()
{
  const Bytes first = draw(new_rand_at(1, 500).get(), 64);
  ASSERT_BYTES(draw(new_rand_at(0, 1000500).get(), 64), first);
  ASSERT_BYTES(draw(new_rand_at(2, 500 - 1000000).get(), 64), first);
  g_assert_false(draw(new_rand_at(500, 1).get(), 64) == first);
}

void
test_generators_are_independent()
{
  const RandRef one = new_rand_at(1700000000, 1), two = new_rand_at(1700000000, 1);
  const Bytes first = draw(one.get(), 32), second = draw(one.get(), 32);
  ASSERT_BYTES(draw(two.get(), 32), first);
  ASSERT_BYTES(draw(two.get(), 32), second);
}

// Counts of bits that an int does not hold; cut to 32 bits some are 0, 16 or 128.
void
test_too_long_draws_write_nothing()
{
  const RandRef rand = new_rand();
  for (gsize size : {gsize{1} << 28, (gsize{1} << 28) + 16, gsize{1} << 29, (gsize{1} << 29) + 2,
                     (gsize{1} << 29) + 16, gsize{1} << 61, (gsize{1} << 61) + 2, G_MAXSIZE}) {
    Bytes memory(64, 0x33);
    g_assert_false(gvc_rand_array(rand.get(), memory.data(), size));
    ASSERT_BYTES(memory, Bytes(64, 0x33));
  }
  draw(rand.get(), 16);
}

void
test_encryptor_ivs_follow_from_the_time()
{
  auto first_iv = [] {
    const Bytes key_bytes = sample(Kind::noise, 32);
    const BytesRef key{g_bytes_new(key_bytes.data(), key_bytes.size())};
    const auto encryptor = own(gvc_encryptor_new(key.get()));
    const Conversion c = convert(encryptor.get(), {}, 24);
    ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 0, 24);
    return Bytes(c.room.begin() + 8, c.room.end());
  };
  fake_clock.set = true;
  fake_clock.now = {.tv_sec = 1700000000, .tv_usec = 9};
  const Bytes iv = first_iv();
  ASSERT_BYTES(first_iv(), iv);
  // The first draw was replaced when the key length was applied.
  const RandRef same = new_rand_at(1700000000, 9);
  draw(same.get(), 16);
  ASSERT_BYTES(draw(same.get(), 16), iv);
  fake_clock.set = true;
  fake_clock.now.tv_usec = 10;
  g_assert_false(first_iv() == iv);
  fake_clock.set = false;
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  gvc_init();

  g_test_add_func("/crypt-key-len/good-lengths-are-silent", test_good_key_lengths_are_silent);
  g_test_add_func("/crypt-key-len/other-lengths-warn-the-host",
                  test_other_key_lengths_warn_the_host);
  g_test_add_func("/rand/new-is-silent", test_new_is_silent);
  g_test_add_func("/rand/fills-exactly-the-length", test_fills_exactly_the_length);
  g_test_add_func("/rand/draws-differ", test_draws_differ);
  g_test_add_func("/rand/bits-are-balanced", test_bits_are_balanced);
  g_test_add_func("/rand/output-follows-from-the-time", test_output_follows_from_the_time);
  g_test_add_func("/rand/seed-is-the-count-of-microseconds",
                  test_seed_is_the_count_of_microseconds);
  g_test_add_func("/rand/generators-are-independent", test_generators_are_independent);
  g_test_add_func("/rand/too-long-draws-write-nothing", test_too_long_draws_write_nothing);
  g_test_add_func("/rand/encryptor-ivs-follow-from-the-time",
                  test_encryptor_ivs_follow_from_the_time);
  return g_test_run();
}
