// SPDX-License-Identifier: LGPL-2.1-or-later
// Whole channels over a platform whose n-th call fails, for any function.
#include "tests/support/faulty.h"
#include "tests/platform/ippdouble.h"

using namespace support;
using namespace faulty;
using ippdouble::Function;

namespace
{

const std::string payload = pattern(150, 5);
const std::string message = frame(payload);

struct PlatformCase {
  Operation operation;
  bool writes;
  int stages;
  bool onward;
};

void
run(const Operation &operation, Rig &rig, Outcome &outcome)
{
  outcome.value = operation.run(rig, &outcome.error);
  g_assert_true(outcome.value.has_value() == !outcome.error);
  rig.assert_idle();
}

/* ---- Operations ---- */

std::optional<std::string>
nothing_if(bool done)
{
  return done ? std::optional<std::string>("") : std::nullopt;
}

const Operation put = {"write", Operation::Way::blocking, [](Rig &rig, GError **error) {
                         return nothing_if(gvc_bytes_output_stream_put_bytes(
                             rig.writer(), new_bytes(payload).get(), nullptr, error));
                       }};

const Operation put_async = {
    "write-async", Operation::Way::async, [](Rig &rig, GError **error) {
      return nothing_if(gvc_bytes_output_stream_put_bytes_finish(
          rig.writer(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_output_stream_put_bytes_async(rig.writer(), new_bytes(payload).get(),
                                                    G_PRIORITY_DEFAULT, nullptr, ready, data);
          }),
          error));
    }};

const Operation get = {"read", Operation::Way::blocking, [](Rig &rig, GError **error) {
                         return take(
                             gvc_bytes_input_stream_read_bytes(rig.reader(), nullptr, error));
                       }};

const Operation get_async = {
    "read-async", Operation::Way::async, [](Rig &rig, GError **error) {
      return take(gvc_bytes_input_stream_read_bytes_finish(
          rig.reader(), rig.await([&](GAsyncReadyCallback ready, gpointer data) {
            gvc_bytes_input_stream_read_bytes_async(rig.reader(), G_PRIORITY_DEFAULT, nullptr,
                                                    ready, data);
          }),
          error));
    }};

/* ---- Expected outcomes ---- */

/* Which call of `function` the n-th call of all was. */
unsigned
number_of(Function function, unsigned n)
{
  unsigned number = 0;
  for (unsigned i = 1; i <= n; i++)
    number += ippdouble::anyFunction(i) == function;
  return number;
}

/* A conversion can be had again, an object that came to life without its engine cannot. */
bool
is_conversion(Function function)
{
  switch (function) {
  case Function::encryptCbc:
  case Function::decryptCbc:
  case Function::encodeLzoGetSize:
  case Function::encodeLzoInit:
  case Function::encodeLzo:
  case Function::decodeLzo:
    return true;
  default:
    return false;
  }
}

/* Whether the object that the operation needs came to life without its engine. Each cipher object
 * builds its context twice, and only the second counts; the decryptor comes first. */
bool
is_object_broken(const PlatformCase &one, unsigned n)
{
  const Function function = ippdouble::anyFunction(n);
  const unsigned contexts = one.writes ? 4 : 2;
  if (is_conversion(function))
    return false;
  if (one.onward)
    return number_of(Function::rijndaelInit, n - 1) < contexts;
  switch (function) {
  case Function::init:   /* nobody looks at it */
  case Function::prnGen: /* the IV stays what it was */
    return false;
  case Function::rijndaelGetSize:
  case Function::rijndaelInit:
    return number_of(function, n) == contexts;
  default:
    return one.writes;
  }
}

const char *
cipher_message(const PlatformCase &one)
{
  return one.writes ? "Encryption failed" : "Decryption failed";
}

/* The message with which the operation fails when the n-th call does, or NULL. */
const char *
expected_message(const PlatformCase &one, unsigned n)
{
  switch (ippdouble::anyFunction(n)) {
  case Function::encodeLzoGetSize:
    return "Failed to get LZO size";
  case Function::encodeLzoInit:
    return "Failed to init LZO";
  case Function::encodeLzo:
    return "Failed to encode LZO";
  case Function::decodeLzo:
    return "Failed to decode LZO";
  case Function::encryptCbc:
  case Function::decryptCbc:
    return cipher_message(one);
  default:
    /* If no call succeeds any more, the first stage reports it. */
    if (one.onward && one.writes && one.stages == 2)
      return "Failed to get LZO size";
    return one.onward || is_object_broken(one, n) ? cipher_message(one) : nullptr;
  }
}

/* The last block of a record is encrypted by a call of its own; where that fails the chain has gone
 * on past the blocks before it, and the peer cannot follow any more. */
bool
breaks_the_chain(unsigned n)
{
  return ippdouble::anyFunction(n) == Function::encryptCbc && n > 1 &&
         ippdouble::anyFunction(n - 1) == Function::encryptCbc;
}

void
assert_written(const Rig &rig, bool twice)
{
  const std::string plain = from_stages(rig.stages(), rig.faults().accepted);
  const gsize part = plain.size() - message.size();
  g_assert_cmpuint(plain.size(), >=, message.size());
  g_assert_cmpuint(part, <=, twice ? message.size() : 0);
  assert_bytes(plain, message.substr(0, part) + message);
}

/* Whether the length was read before the n-th call, and only the payload is still to come. */
bool
has_read_length(const PlatformCase &one, unsigned n)
{
  return number_of(one.stages == 2 ? Function::decodeLzo : Function::decryptCbc, n - 1) > 0;
}

void
assert_reads(Rig &rig, const std::string &expected)
{
  std::string rest(expected.size(), '\0');
  gsize count;
  Error error;
  g_assert_true(
      g_input_stream_read_all(rig.in(), rest.data(), rest.size(), &count, nullptr, &error));
  error.assert_none();
  rest.resize(count);
  assert_bytes(rest, expected);
}

/* Once the platform works again, nothing is missing and nothing is there twice. */
void
assert_recovers(const PlatformCase &one, Rig &rig, unsigned n)
{
  Error error;
  if (one.writes) {
    Outcome again;
    run(one.operation, rig, again);
    again.error.assert_none();
    if (!breaks_the_chain(n))
      assert_written(rig, true);
    g_assert_true(g_io_stream_close(rig.channel(), nullptr, &error));
  } else {
    assert_reads(rig, has_read_length(one, n) ? payload : message);
    g_assert_true(g_input_stream_close(rig.in(), nullptr, &error));
  }
  error.assert_none();
}

void
fail_call(const PlatformCase &one, const std::string &wire, unsigned n, bool *reached)
{
  ippdouble::failAny(n, one.onward);
  gvc_init();
  Rig rig(Flavour::pollable, one.stages);
  rig.faults().rests = true;
  rig.faults().wire = wire;
  rig.faults().chunk = 61;
  Outcome outcome;
  run(one.operation, rig, outcome);
  *reached = ippdouble::anyCount() >= n;
  ippdouble::failAny(0);

  const char *const message_text = *reached ? expected_message(one, n) : nullptr;
  if (message_text != nullptr) {
    outcome.error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, message_text);
    if (!is_object_broken(one, n)) {
      assert_recovers(one, rig, n);
    } else {
      /* Dead, and as dead the second time. */
      Outcome again;
      run(one.operation, rig, again);
      again.error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, cipher_message(one));
      g_io_stream_close(rig.channel(), nullptr, nullptr);
    }
  } else {
    outcome.error.assert_none();
    if (one.writes)
      assert_written(rig, false);
    else
      assert_bytes(*outcome.value, payload);
  }
  rig.assert_all_gone();
}

void
test_platform(const PlatformCase &one)
{
  ippdouble::reset();
  const std::string wire =
      through_stages(one.stages, {std::string_view(message).substr(0, 4), payload});
  bool reached = true;
  unsigned n = 0;
  while (reached) {
    ippdouble::reset();
    fail_call(one, wire, ++n, &reached);
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 0);
    g_assert_cmpuint(ippdouble::initsOverLiveContexts(), ==, 0);
  }
  g_test_message("%u calls", n - 1);
  g_assert_cmpuint(n - 1, >=, 19);
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  for (const Operation *operation : {&put, &put_async, &get, &get_async})
    for (int stages = 1; stages <= most_stages; stages++)
      for (const bool onward : {false, true}) {
        const bool writes = operation == &put || operation == &put_async;
        const std::string path = std::string("/faults/platform/") + operation->name + "/" +
                                 std::to_string(stages) + "-stages/" +
                                 (onward ? "from-a-call-on" : "one-call");
        g_test_add_data_func_full(
            path.c_str(), new PlatformCase{*operation, writes, stages, onward},
            [](gconstpointer data) { test_platform(*static_cast<const PlatformCase *>(data)); },
            [](gpointer data) { delete static_cast<PlatformCase *>(data); });
      }
  return g_test_run();
}
