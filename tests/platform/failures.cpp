// SPDX-License-Identifier: LGPL-2.1-or-later
// The library over a platform that fails on demand and remembers every call.
#include "tests/support/convert.h"
#include "tests/platform/ippdouble.h"
#include "tests/support/support.h"

#include <zelgvc/zelgvc.h>

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>

using namespace support;
using ippdouble::Function;

namespace
{

constexpr gsize mib = 1 << 20;
constexpr IppStatus all_failures[] = {ippStsErr,
                                      ippStsBadArgErr,
                                      ippStsNullPtrErr,
                                      ippStsContextMatchErr,
                                      ippStsLengthErr,
                                      ippStsUnderRunErr,
                                      ippStsBrokenStreamErr,
                                      ippStsDstSizeLessExpected,
                                      static_cast<IppStatus>(1),
                                      static_cast<IppStatus>(32),
                                      static_cast<IppStatus>(34),
                                      static_cast<IppStatus>(INT_MIN),
                                      static_cast<IppStatus>(INT_MAX)};

Bytes
test_key()
{
  return sample(Kind::noise, 32, 4711);
}

template <typename T>
Ref<T>
new_with_key(GType type, int bits = 256)
{
  const Bytes key = test_key();
  const BytesRef bytes{g_bytes_new(key.data(), key.size())};
  return own(static_cast<T *>(g_object_new(type, "key", bytes.get(), "key-length", bits, nullptr)));
}

Ref<GvcEncryptor>
new_encryptor(int bits = 256)
{
  return new_with_key<GvcEncryptor>(GVC_TYPE_ENCRYPTOR, bits);
}

Ref<GvcDecryptor>
new_decryptor(int bits = 256)
{
  return new_with_key<GvcDecryptor>(GVC_TYPE_DECRYPTOR, bits);
}

Bytes
take_iv(GvcEncryptor *encryptor)
{
  const Conversion c = convert(encryptor, {}, 24);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 0, 24);
  return Bytes(c.room.begin() + 8, c.room.end());
}

ippdouble::Call
last_call(Function function)
{
  const std::vector<ippdouble::Call> calls = ippdouble::calls(function);
  g_assert_cmpuint(calls.size(), >=, 1);
  return calls.back();
}

std::vector<Function>
functions_called()
{
  std::vector<Function> functions;
  for (const ippdouble::Call &call : ippdouble::calls())
    if (call.function != Function::rijndaelRelease)
      functions.push_back(call.function);
  return functions;
}

// Returns the text that the code writes to standard error.
template <typename Code>
std::string
standard_error_of(Code code)
{
  FILE *file = tmpfile();
  g_assert_nonnull(file);
  const int saved = dup(STDERR_FILENO);
  fflush(stderr);
  dup2(fileno(file), STDERR_FILENO);
  code();
  fflush(stderr);
  dup2(saved, STDERR_FILENO);
  close(saved);
  std::string text(ftell(file) >= 0 ? static_cast<gsize>(lseek(fileno(file), 0, SEEK_END)) : 0, 0);
  lseek(fileno(file), 0, SEEK_SET);
  g_assert_cmpint(read(fileno(file), text.data(), text.size()), ==, text.size());
  fclose(file);
  return text;
}

// Every test starts with a platform that works and has seen nothing, and leaves no cipher context
// behind that was not released.
template <void (*test)()>
void
with_double()
{
  ippdouble::reset();
  test();
  g_assert_cmpuint(ippdouble::liveContexts(), ==, 0);
  g_assert_cmpuint(ippdouble::initsOverLiveContexts(), ==, 0);
}

guint64
microseconds_now()
{
  timeval now;
  gettimeofday(&now, nullptr);
  return static_cast<guint64>(now.tv_sec) * 1000000 + static_cast<guint64>(now.tv_usec);
}

constexpr struct {
  Function function;
  const char *line;
} generator_failures[] = {{Function::prngInit, "ippsPRNGSetSeed return error\n"},
                          {Function::bigNumGetSize, "ippsBigNumGetSize return error\n"},
                          {Function::bigNumInit, "ippsBigNumInit return error\n"},
                          {Function::setBn, "ippsSet_BN return error\n"},
                          {Function::prngSetSeed, "ippsPRNGSetSeed return error\n"}};

// The chaining value that the next record starts from.
Bytes
next_chain(GvcEncryptor *encryptor)
{
  const Conversion c = convert(encryptor, sample(Kind::text, 1), 24);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 1, 24);
  return last_call(Function::encryptCbc).iv;
}

template <typename Code>
void
for_every_broken_context(Code code)
{
  for (Function function : {Function::rijndaelGetSize, Function::rijndaelInit})
    for (IppStatus status : {ippStsErr, ippStsDstSizeLessExpected}) {
      ippdouble::reset();
      ippdouble::failFrom(function, 1, status);
      code();
      g_assert_cmpuint(ippdouble::liveContexts(), ==, 0);
    }
}

Bytes
record(gsize length, guint32 seed = 1)
{
  return join({little_endian(length, 8), sample(Kind::noise, length, seed)});
}

// Every context is released before its memory goes, whatever was done with the object.
template <typename T>
void
assert_contexts_are_released(GType type, void (*set_key_length)(T *, guint))
{
  ippdouble::reset();
  for (int i = 0; i < 3; i++) {
    auto converter = new_with_key<T>(type);
    g_converter_reset(G_CONVERTER(converter.get()));
    set_key_length(converter.get(), 128);
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);
    auto other = new_with_key<T>(type, 128);
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 2);
    converter.reset();
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);
    other.reset();
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 0);
  }
  g_assert_cmpuint(ippdouble::initsOverLiveContexts(), ==, 0);

  // No block is initialised twice without having been released in between.
  std::vector<const void *> live;
  for (const ippdouble::Call &call : ippdouble::calls()) {
    const auto found = std::find(live.begin(), live.end(), call.context);
    if (call.function == Function::rijndaelInit && call.status == ippStsNoErr) {
      g_assert_true(found == live.end());
      live.push_back(call.context);
    } else if (call.function == Function::rijndaelRelease && found != live.end()) {
      live.erase(found);
    }
  }
  g_assert_true(live.empty());
}

Bytes
block(ByteView payload, gsize dest_size)
{
  return join({little_endian(payload.size(), 4), little_endian(dest_size, 4), payload});
}

/* ---- Start-up ---- */

void
test_init()
{
  gvc_init();
  g_assert_cmpuint(ippdouble::callCount(Function::init), ==, 1);
  gvc_init();
  g_assert_cmpuint(ippdouble::callCount(Function::init), ==, 2);
  LogCapture log;
  for (IppStatus status : all_failures) {
    ippdouble::failFrom(Function::init, 1, status);
    g_assert_true(standard_error_of(gvc_init).empty());
  }
  log.expect_none();
  g_assert_true(functions_called() ==
                std::vector<Function>(2 + G_N_ELEMENTS(all_failures), Function::init));
}

/* ---- Random source ---- */

void
test_generator_calls()
{
  const guint64 before = microseconds_now();
  GvcRand *rand = gvc_rand_new();
  const guint64 after = microseconds_now();
  g_assert_nonnull(rand);
  g_assert_true(
      functions_called() ==
      (std::vector<Function>{Function::prngGetSize, Function::prngInit, Function::bigNumGetSize,
                             Function::bigNumInit, Function::setBn, Function::prngSetSeed}));

  const ippdouble::Call init = last_call(Function::prngInit), set = last_call(Function::setBn),
                        seed = last_call(Function::prngSetSeed);
  g_assert_cmpint(init.option, ==, 64);
  g_assert_cmpint(last_call(Function::bigNumGetSize).length, ==, 16);
  g_assert_cmpint(last_call(Function::bigNumInit).length, ==, 16);
  g_assert_true(last_call(Function::bigNumInit).context == set.context);
  g_assert_cmpint(set.option, ==, 1);
  g_assert_cmpint(set.length, ==, 16);
  g_assert_cmpuint(set.data.size(), ==, 64);
  const guint64 time = load_little_endian(set.data, 0, 8);
  g_assert_cmpuint(time, >=, before);
  g_assert_cmpuint(time, <=, after);
  const ByteView upper_words = ByteView{set.data}.subspan(8);
  ASSERT_BYTES(upper_words, Bytes(56, 0));
  g_assert_true(seed.source == set.context);
  g_assert_true(seed.context == init.context);

  guint8 data[16];
  g_assert_true(gvc_rand_array(rand, data, 16));
  const ippdouble::Call draw = last_call(Function::prnGen);
  g_assert_cmpint(draw.length, ==, 128);
  g_assert_true(draw.destination == data);
  g_assert_true(draw.context == init.context);
  g_assert_cmpuint(ippdouble::callCount(Function::prnGen), ==, 1);
  g_assert_true(gvc_rand_array(rand, data, 1));
  g_assert_cmpint(last_call(Function::prnGen).length, ==, 8);
  gvc_rand_free(rand);
}

void
test_draw_fails_with_any_status()
{
  GvcRand *rand = gvc_rand_new();
  guint8 data[16];
  for (IppStatus status : all_failures) {
    ippdouble::failFrom(Function::prnGen, 1, status);
    g_assert_true(gvc_rand_array(rand, data, sizeof data) == FALSE);
  }
  ippdouble::plan(Function::prnGen) = {};
  g_assert_true(gvc_rand_array(rand, data, sizeof data) == TRUE);
  gvc_rand_free(rand);
}

void
test_generator_failures()
{
  LogCapture log;
  for (const auto &one : generator_failures)
    for (IppStatus status : all_failures) {
      ippdouble::reset();
      ippdouble::failFrom(one.function, 1, status);
      GvcRand *rand = reinterpret_cast<GvcRand *>(&log);
      const std::string text = standard_error_of([&] { rand = gvc_rand_new(); });
      g_assert_null(rand);
      g_assert_cmpstr(text.c_str(), ==, one.line);
      // Nothing is called after what failed.
      g_assert_true(functions_called().back() == one.function);
    }
  log.expect_none();
}

void
test_status_of_the_generator_size_is_ignored()
{
  // Without a size there is no state, which the next call refuses.
  ippdouble::failFrom(Function::prngGetSize, 1);
  GvcRand *rand = nullptr;
  const std::string text = standard_error_of([&] { rand = gvc_rand_new(); });
  g_assert_null(rand);
  g_assert_cmpstr(text.c_str(), ==, "ippsPRNGSetSeed return error\n");
  g_assert_cmpuint(ippdouble::callCount(Function::prngInit), ==, 1);
}

/* ---- Encryptor ---- */

void
test_encryptor_construction_calls()
{
  const auto encryptor = new_encryptor();
  std::vector<Function> functions = functions_called();
  // The generator, an IV, another one when the length is applied, a context then and a context
  // when construction ends.
  g_assert_true(functions ==
                (std::vector<Function>{
                    Function::prngGetSize, Function::prngInit, Function::bigNumGetSize,
                    Function::bigNumInit, Function::setBn, Function::prngSetSeed, Function::prnGen,
                    Function::prnGen, Function::rijndaelGetSize, Function::rijndaelInit,
                    Function::rijndaelGetSize, Function::rijndaelInit}));
  for (const ippdouble::Call &draw : ippdouble::calls(Function::prnGen))
    g_assert_cmpint(draw.length, ==, 128);
  const ippdouble::Call init = last_call(Function::rijndaelInit);
  g_assert_cmpint(init.option, ==, 256);
  ASSERT_BYTES(init.data, test_key());
  for (const ippdouble::Call &one : ippdouble::calls(Function::rijndaelInit))
    g_assert_true(one.wasZeroFilled);
  g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);
  take_iv(encryptor.get());
  g_assert_cmpuint(functions_called().size(), ==, functions.size());
}

void
test_encryptor_reset_calls()
{
  const auto encryptor = new_encryptor();
  gsize before = functions_called().size();
  auto assert_rebuilt = [&](int bits) {
    std::vector<Function> functions = functions_called();
    functions.erase(functions.begin(), functions.begin() + before);
    g_assert_true(functions == (std::vector<Function>{Function::prnGen, Function::rijndaelGetSize,
                                                      Function::rijndaelInit}));
    const ippdouble::Call init = last_call(Function::rijndaelInit);
    g_assert_cmpint(init.option, ==, bits);
    g_assert_true(init.wasZeroFilled);
    const Bytes key = test_key();
    const ByteView used = ByteView{key}.first(bits / 8);
    ASSERT_BYTES(init.data, used);
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);
    before = functions_called().size();
  };
  g_converter_reset(G_CONVERTER(encryptor.get()));
  assert_rebuilt(256);
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  assert_rebuilt(128);
  gvc_encryptor_set_key_length(encryptor.get(), 128);
  g_assert_cmpuint(functions_called().size(), ==, before);
  gvc_encryptor_set_key_length(encryptor.get(), 256);
  assert_rebuilt(256);
}

void
test_encryption_calls()
{
  const auto encryptor = new_encryptor();
  const Bytes iv = take_iv(encryptor.get());
  const Bytes plain = sample(Kind::noise, 37);
  Bytes out(8 + 48);
  Conversion c = convert_in_place(encryptor.get(), plain.data(), 37, out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 37, 56);

  std::vector<ippdouble::Call> calls = ippdouble::calls(Function::encryptCbc);
  g_assert_cmpuint(calls.size(), ==, 2);
  // The whole blocks go straight from the caller's input to the caller's room.
  g_assert_true(calls[0].source == plain.data());
  g_assert_true(calls[0].destination == out.data() + 8);
  g_assert_cmpint(calls[0].length, ==, 32);
  g_assert_cmpint(calls[0].option, ==, 0);
  ASSERT_BYTES(calls[0].iv, iv);
  g_assert_true(calls[1].destination == out.data() + 40);
  g_assert_cmpint(calls[1].length, ==, 16);
  g_assert_cmpint(calls[1].option, ==, 0);
  ASSERT_BYTES(calls[1].data, join({ByteView{plain}.subspan(32), Bytes(11, 11)}));
  ASSERT_BYTES(calls[1].iv, Bytes(out.begin() + 24, out.begin() + 40));

  // Less than a block: one call. A whole block: a second one of nothing but padding.
  c = convert_in_place(encryptor.get(), plain.data(), 15, out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 15, 24);
  g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, 3);
  c = convert_in_place(encryptor.get(), plain.data(), 16, out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 16, 40);
  calls = ippdouble::calls(Function::encryptCbc);
  g_assert_cmpuint(calls.size(), ==, 5);
  g_assert_cmpint(calls[3].length, ==, 16);
  ASSERT_BYTES(calls[4].data, Bytes(16, 16));
}

void
test_failing_encryption_of_whole_blocks()
{
  for (IppStatus status : all_failures) {
    ippdouble::reset();
    const auto encryptor = new_encryptor();
    const Bytes iv = take_iv(encryptor.get());
    for (int i = 1; i <= 3; i++) {
      ippdouble::failAt(Function::encryptCbc, i, status);
      ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 100), 200), G_IO_ERROR_FAILED,
                    "Encryption failed");
      g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, i);
    }
    ASSERT_BYTES(next_chain(encryptor.get()), iv);
  }
}

void
test_failing_encryption_of_the_final_block()
{
  for (IppStatus status : all_failures) {
    ippdouble::reset();
    const auto encryptor = new_encryptor();
    take_iv(encryptor.get());
    ippdouble::failAt(Function::encryptCbc, 2, status);
    const Conversion c = convert(encryptor.get(), sample(Kind::text, 100), 200);
    ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Encryption failed");
    // The chain has gone on past the whole blocks.
    ASSERT_BYTES(next_chain(encryptor.get()),
                 Bytes(c.room.begin() + 8 + 80, c.room.begin() + 8 + 96));
  }
}

void
test_failing_encryption_of_an_only_block()
{
  const auto encryptor = new_encryptor();
  const Bytes iv = take_iv(encryptor.get());
  ippdouble::failAt(Function::encryptCbc, 1);
  ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 10), 24), G_IO_ERROR_FAILED,
                "Encryption failed");
  g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, 1);
  ASSERT_BYTES(next_chain(encryptor.get()), iv);
}

void
test_engine_is_not_called_without_need()
{
  const auto encryptor = new_encryptor();
  take_iv(encryptor.get());
  const Bytes plain = sample(Kind::text, 20);
  ASSERT_CONVERTED(convert(encryptor.get(), plain, 100, G_CONVERTER_FLUSH), G_CONVERTER_FLUSHED, 0,
                   0);
  ASSERT_CONVERTED(convert(encryptor.get(), {}, 100), G_CONVERTER_CONVERTED, 0, 0);
  ASSERT_FAILED(convert(encryptor.get(), plain, 39), G_IO_ERROR_NO_SPACE, "Not enough space");
  g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, 0);

  // More than an int counts never reaches the engine.
  const Reserve in{(gsize{1} << 32) + 16}, out{(gsize{1} << 32) + 64};
  const Conversion c =
      convert_in_place(encryptor.get(), in.data(), in.size(), out.data(), out.size());
  ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Encryption failed");
  g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, 0);
}

void
test_encryptor_without_a_generator()
{
  for (const auto &one : generator_failures) {
    ippdouble::reset();
    ippdouble::failFrom(one.function, 1);
    Ref<GvcEncryptor> encryptor;
    const std::string text = standard_error_of([&] { encryptor = new_encryptor(); });
    g_assert_cmpstr(text.c_str(), ==, one.line);
    g_assert_cmpuint(ippdouble::callCount(Function::prnGen), ==, 0);
    auto assert_unusable = [&] {
      for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}}) {
        ASSERT_FAILED(convert(encryptor.get(), {}, 100, flags), G_IO_ERROR_FAILED,
                      "Encryption failed");
        ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 40), 100, flags),
                      G_IO_ERROR_FAILED, "Encryption failed");
      }
      ASSERT_CONVERTED(convert(encryptor.get(), {}, 100, G_CONVERTER_FLUSH), G_CONVERTER_FLUSHED, 0,
                       0);
    };
    assert_unusable();
    g_converter_reset(G_CONVERTER(encryptor.get()));
    assert_unusable();
    gvc_encryptor_set_key_length(encryptor.get(), 128);
    assert_unusable();
    g_assert_cmpuint(ippdouble::callCount(Function::encryptCbc), ==, 0);
    encryptor.reset();
    g_assert_cmpuint(ippdouble::liveContexts(), ==, 0);
  }
}

// The result of the draw is ignored: the IV stays what it was.
void
test_encryptor_with_a_failing_draw()
{
  ippdouble::failFrom(Function::prnGen, 1);
  const auto encryptor = new_encryptor();
  ASSERT_BYTES(take_iv(encryptor.get()), Bytes(16, 0));
  ippdouble::plan(Function::prnGen) = {};
  g_converter_reset(G_CONVERTER(encryptor.get()));
  const Bytes iv = take_iv(encryptor.get());
  g_assert_false(iv == Bytes(16, 0));
  ippdouble::failFrom(Function::prnGen, 1);
  g_converter_reset(G_CONVERTER(encryptor.get()));
  ASSERT_BYTES(take_iv(encryptor.get()), iv);
}

void
test_iv_is_what_the_generator_draws()
{
  const Bytes drawn = sample(Kind::noise, 16, 5);
  ippdouble::plan(Function::prnGen).output = drawn;
  const auto encryptor = new_encryptor();
  ASSERT_BYTES(take_iv(encryptor.get()), drawn);
}

void
test_encryptor_without_a_context()
{
  for_every_broken_context([] {
    const auto encryptor = new_encryptor();
    take_iv(encryptor.get());
    ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 40), 100), G_IO_ERROR_FAILED,
                  "Encryption failed");
    g_converter_reset(G_CONVERTER(encryptor.get()));
    gvc_encryptor_set_key_length(encryptor.get(), 128);
    take_iv(encryptor.get());
    ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 4), 100), G_IO_ERROR_FAILED,
                  "Encryption failed");
  });
}

// Once the engine works again a reset is all that is needed.
void
test_encryptor_recovers()
{
  ippdouble::failFrom(Function::rijndaelInit, 1);
  const auto encryptor = new_encryptor();
  take_iv(encryptor.get());
  ASSERT_FAILED(convert(encryptor.get(), sample(Kind::text, 40), 100), G_IO_ERROR_FAILED,
                "Encryption failed");
  ippdouble::plan(Function::rijndaelInit) = {};
  g_converter_reset(G_CONVERTER(encryptor.get()));
  take_iv(encryptor.get());
  ASSERT_CONVERTED(convert(encryptor.get(), sample(Kind::text, 40), 100), G_CONVERTER_CONVERTED, 40,
                   56);
}

void
test_failure_surfaces_through_the_stream()
{
  const auto encryptor = new_encryptor();
  const auto base = own(g_memory_output_stream_new_resizable());
  const auto stream = own(g_converter_output_stream_new(base.get(), G_CONVERTER(encryptor.get())));
  ippdouble::failFrom(Function::encryptCbc, 3);
  const Bytes plain = sample(Kind::text, 100);
  Error error;
  g_assert_true(g_output_stream_write_all(stream.get(), plain.data(), plain.size(), nullptr,
                                          nullptr, &error));
  g_assert_cmpint(g_output_stream_write(stream.get(), plain.data(), plain.size(), nullptr, &error),
                  ==, -1);
  error.assert_is(G_IO_ERROR, G_IO_ERROR_FAILED, "Encryption failed");
}

/* ---- Decryptor ---- */

void
test_decryptor_construction_calls()
{
  const auto decryptor = new_decryptor();
  g_assert_true(functions_called() ==
                (std::vector<Function>{Function::rijndaelGetSize, Function::rijndaelInit,
                                       Function::rijndaelGetSize, Function::rijndaelInit}));
  const ippdouble::Call init = last_call(Function::rijndaelInit);
  g_assert_cmpint(init.option, ==, 256);
  g_assert_true(init.wasZeroFilled);
  ASSERT_BYTES(init.data, test_key());
  g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);

  gvc_decryptor_set_key_length(decryptor.get(), 128);
  const ippdouble::Call half = last_call(Function::rijndaelInit);
  g_assert_cmpint(half.option, ==, 128);
  const Bytes key = test_key();
  const ByteView used = ByteView{key}.first(16);
  ASSERT_BYTES(half.data, used);
  g_assert_cmpuint(functions_called().size(), ==, 6);
  gvc_decryptor_set_key_length(decryptor.get(), 128);
  g_assert_cmpuint(functions_called().size(), ==, 6);
  g_converter_reset(G_CONVERTER(decryptor.get()));
  g_assert_cmpuint(functions_called().size(), ==, 8);
  g_assert_cmpint(last_call(Function::rijndaelInit).option, ==, 128);
  g_assert_cmpuint(ippdouble::liveContexts(), ==, 1);
}

void
test_decryption_calls()
{
  const auto decryptor = new_decryptor();
  ippdouble::plan(Function::decryptCbc).output = Bytes(48, 3);
  const Bytes first = record(48), second = record(32, 2);
  Bytes out(100);
  Conversion c =
      convert_in_place(decryptor.get(), first.data(), first.size(), out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 56, 45);
  ippdouble::Call call = last_call(Function::decryptCbc);
  g_assert_true(call.source == first.data() + 8);
  g_assert_true(call.destination == out.data());
  g_assert_cmpint(call.length, ==, 48);
  g_assert_cmpint(call.option, ==, 0);
  ASSERT_BYTES(call.iv, Bytes(16, 0));
  g_assert_cmpuint(ippdouble::callCount(Function::decryptCbc), ==, 1);

  c = convert_in_place(decryptor.get(), second.data(), second.size(), out.data(), 32);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 40, 29);
  ASSERT_BYTES(last_call(Function::decryptCbc).iv, Bytes(first.end() - 16, first.end()));
  g_assert_cmpuint(ippdouble::callCount(Function::decryptCbc), ==, 2);
}

void
test_failing_decryption()
{
  const Bytes iv = sample(Kind::noise, 16, 9);
  for (IppStatus status : all_failures) {
    ippdouble::reset();
    const auto decryptor = new_decryptor();
    ASSERT_CONVERTED(convert(decryptor.get(), join({Bytes(8, 0), iv}), 10), G_CONVERTER_CONVERTED,
                     24, 0);
    for (int i = 1; i <= 3; i++) {
      ippdouble::failAt(Function::decryptCbc, i, status);
      ASSERT_FAILED(convert(decryptor.get(), record(64), 64), G_IO_ERROR_FAILED,
                    "Decryption failed");
    }
    ippdouble::plan(Function::decryptCbc) = {};
    ippdouble::plan(Function::decryptCbc).output = Bytes(64, 1);
    ASSERT_CONVERTED(convert(decryptor.get(), record(64), 64), G_CONVERTER_CONVERTED, 72, 63);
    ASSERT_BYTES(last_call(Function::decryptCbc).iv, iv);
  }
}

void
test_padding_beyond_the_record()
{
  const auto decryptor = new_decryptor();
  for (guint last : {17, 100, 255}) {
    ippdouble::plan(Function::decryptCbc).output = Bytes(16, static_cast<guint8>(last));
    ASSERT_FAILED(convert(decryptor.get(), record(16), 16), G_IO_ERROR_FAILED, "Decryption failed");
    ASSERT_BYTES(last_call(Function::decryptCbc).iv, Bytes(16, 0));
  }
  ippdouble::plan(Function::decryptCbc).output = Bytes(16, 16);
  ASSERT_CONVERTED(convert(decryptor.get(), record(16), 16), G_CONVERTER_CONVERTED, 24, 0);
  ASSERT_BYTES(last_call(Function::decryptCbc).iv, Bytes(16, 0));
}

void
test_checks_come_before_decryption()
{
  const auto decryptor = new_decryptor();
  const Bytes whole = record(32);
  const struct {
    Bytes in;
    gsize room;
    GIOErrorEnum code;
    const char *message;
  } cases[] = {
      {Bytes(7), 100, G_IO_ERROR_PARTIAL_INPUT, "Partial header"},
      {Bytes(23), 100, G_IO_ERROR_PARTIAL_INPUT, "Partial IV"},
      {record(20), 100, G_IO_ERROR_FAILED, "Not multiple of AES block"},
      {Bytes(whole.begin(), whole.end() - 1), 100, G_IO_ERROR_PARTIAL_INPUT, "Partial data"},
      {whole, 31, G_IO_ERROR_NO_SPACE, "Not enough space"},
      {join({little_endian(G_MAXUINT64 - 15, 8), Bytes(2 * mib)}), 4 * mib, G_IO_ERROR_FAILED,
       "Decryption failed"}};
  for (const auto &one : cases)
    ASSERT_FAILED(convert(decryptor.get(), one.in, one.room), one.code, one.message);
  ASSERT_CONVERTED(convert(decryptor.get(), whole, 32, G_CONVERTER_FLUSH), G_CONVERTER_FLUSHED, 0,
                   0);
  g_assert_cmpuint(ippdouble::callCount(Function::decryptCbc), ==, 0);
}

void
test_decryptor_without_a_context()
{
  for_every_broken_context([] {
    const auto decryptor = new_decryptor();
    ASSERT_FAILED(convert(decryptor.get(), record(32), 32), G_IO_ERROR_FAILED, "Decryption failed");
    g_converter_reset(G_CONVERTER(decryptor.get()));
    gvc_decryptor_set_key_length(decryptor.get(), 128);
    ASSERT_FAILED(convert(decryptor.get(), record(32), 32), G_IO_ERROR_FAILED, "Decryption failed");
  });
}

void
test_contexts_are_released()
{
  assert_contexts_are_released<GvcEncryptor>(GVC_TYPE_ENCRYPTOR, gvc_encryptor_set_key_length);
  assert_contexts_are_released<GvcDecryptor>(GVC_TYPE_DECRYPTOR, gvc_decryptor_set_key_length);
}

/* ---- Compressor ---- */

void
test_compression_calls()
{
  const auto compressor = own(gvc_compressor_new());
  g_assert_true(functions_called().empty());
  const Bytes plain = sample(Kind::noise, 1000);
  Bytes out(5000);
  const Conversion c =
      convert_in_place(compressor.get(), plain.data(), plain.size(), out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 1000, 1008);
  g_assert_true(functions_called() ==
                (std::vector<Function>{Function::encodeLzoGetSize, Function::encodeLzoInit,
                                       Function::encodeLzo}));
  const ippdouble::Call size = last_call(Function::encodeLzoGetSize),
                        init = last_call(Function::encodeLzoInit),
                        encode = last_call(Function::encodeLzo);
  g_assert_cmpint(size.option, ==, 1);
  g_assert_cmpint(size.length, ==, 1000);
  g_assert_cmpint(init.option, ==, 1);
  g_assert_cmpint(init.length, ==, 1000);
  g_assert_true(init.context == encode.context);
  g_assert_true(encode.source == plain.data());
  g_assert_cmpint(encode.length, ==, 1000);
  g_assert_true(encode.destination == out.data() + 8);
  // All of the room, though the header takes 8 bytes of it.
  g_assert_cmpint(encode.room, ==, 5000);
}

void
test_announced_room_is_the_whole_room()
{
  const auto compressor = own(gvc_compressor_new());
  for (gsize size : {0, 1, 30, 100, 1000})
    for (gsize extra : {0, 1, 100, 100000}) {
      const gsize room = size + size / 10 + 8 + extra;
      const Conversion c = convert(compressor.get(), sample(Kind::noise, size), room);
      ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, size + 8);
      g_assert_cmpint(last_call(Function::encodeLzo).room, ==, room);
      g_assert_cmpint(last_call(Function::encodeLzo).length, ==, size);
    }
}

void
test_sizes_are_cut_to_32_bits()
{
  const auto compressor = own(gvc_compressor_new());
  const gsize size = (gsize{1} << 32) + 1000, room = size + size / 10 + 8 + 77;
  const Reserve in{size}, out{room};
  const Conversion c = convert_in_place(compressor.get(), in.data(), size, out.data(), room);
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, size, 1008);
  g_assert_cmpint(last_call(Function::encodeLzoGetSize).length, ==, 1000);
  g_assert_cmpint(last_call(Function::encodeLzoInit).length, ==, 1000);
  g_assert_cmpint(last_call(Function::encodeLzo).length, ==, 1000);
  g_assert_cmpuint(last_call(Function::encodeLzo).room, ==, room & 0xffffffff);
  const ByteView header{out.data(), 8};
  ASSERT_BYTES(header, join({little_endian(1000, 4), little_endian(1000, 4)}));
}

// The header's sizes are what the encoder reports and what the input is.
void
test_header_of_a_block()
{
  const auto compressor = own(gvc_compressor_new());
  ippdouble::plan(Function::encodeLzo).produced = 777;
  const Conversion c =
      convert(compressor.get(), sample(Kind::noise, 1000), 1200, G_CONVERTER_INPUT_AT_END);
  ASSERT_CONVERTED(c, G_CONVERTER_FINISHED, 1000, 785);
  const ByteView header = c.produced().first(8);
  ASSERT_BYTES(header, join({little_endian(777, 4), little_endian(1000, 4)}));
}

void
test_compressor_failures()
{
  const struct {
    Function function;
    const char *message;
  } cases[] = {{Function::encodeLzoGetSize, "Failed to get LZO size"},
               {Function::encodeLzoInit, "Failed to init LZO"},
               {Function::encodeLzo, "Failed to encode LZO"}};
  const auto compressor = own(gvc_compressor_new());
  for (const auto &one : cases)
    for (IppStatus status : all_failures)
      for (gsize size : {0, 1, 30, 1000, 100000}) {
        ippdouble::reset();
        ippdouble::failFrom(one.function, 1, status);
        for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}})
          ASSERT_FAILED(convert(compressor.get(), sample(Kind::noise, size), 2 * size + 100, flags),
                        G_IO_ERROR_FAILED, one.message);
        // Nothing is called after what failed.
        g_assert_true(functions_called().back() == one.function);
        ippdouble::reset();
        ASSERT_CONVERTED(convert(compressor.get(), sample(Kind::noise, size), 2 * size + 100),
                         G_CONVERTER_CONVERTED, size, size + 8);
      }
}

void
test_checks_come_before_encoding()
{
  const auto compressor = own(gvc_compressor_new());
  ippdouble::failFrom(Function::encodeLzoGetSize, 1);
  ASSERT_FAILED(convert(compressor.get(), sample(Kind::noise, 100), 117), G_IO_ERROR_NO_SPACE,
                "Not enough space");
  ASSERT_CONVERTED(convert(compressor.get(), sample(Kind::noise, 100), 10, G_CONVERTER_FLUSH),
                   G_CONVERTER_FLUSHED, 0, 0);
  g_converter_reset(G_CONVERTER(compressor.get()));
  g_assert_true(functions_called().empty());
}

/* ---- Decompressor ---- */

void
test_decompression_calls()
{
  const auto decompressor = own(gvc_decompressor_new());
  const Bytes payload = sample(Kind::noise, 100), wire = block(payload, 300);
  Bytes out(1000);
  const Conversion c =
      convert_in_place(decompressor.get(), wire.data(), wire.size(), out.data(), out.size());
  ASSERT_CONVERTED(c, G_CONVERTER_CONVERTED, 108, 100);
  g_assert_true(functions_called() == std::vector<Function>{Function::decodeLzo});
  const ippdouble::Call decode = last_call(Function::decodeLzo);
  g_assert_true(decode.source == wire.data() + 8);
  g_assert_cmpint(decode.length, ==, 100);
  g_assert_true(decode.destination == out.data());
  g_assert_cmpint(decode.room, ==, 300);
}

void
test_written_is_what_the_decoder_reports()
{
  const auto decompressor = own(gvc_decompressor_new());
  const Bytes wire = block(sample(Kind::noise, 100), 300);
  for (guint produced : {0, 5, 100, 299, 300}) {
    ippdouble::plan(Function::decodeLzo).produced = produced;
    ASSERT_CONVERTED(convert(decompressor.get(), wire, 300), G_CONVERTER_CONVERTED, 108, produced);
    ASSERT_CONVERTED(convert(decompressor.get(), wire, 300, G_CONVERTER_INPUT_AT_END),
                     G_CONVERTER_FINISHED, 108, produced);
  }
}

void
test_decompressor_failures()
{
  const auto decompressor = own(gvc_decompressor_new());
  const Bytes wire = block(sample(Kind::noise, 100), 300);
  for (IppStatus status : all_failures) {
    ippdouble::reset();
    ippdouble::failFrom(Function::decodeLzo, 1, status);
    for (int flags : {int{G_CONVERTER_NO_FLAGS}, int{G_CONVERTER_INPUT_AT_END}}) {
      const Conversion c = convert(decompressor.get(), wire, 1000, flags);
      if (status == 33)
        ASSERT_FAILED(c, G_IO_ERROR_NO_SPACE, "Not enough space");
      else
        ASSERT_FAILED(c, G_IO_ERROR_FAILED, "Failed to decode LZO");
    }
    ippdouble::reset();
    ASSERT_CONVERTED(convert(decompressor.get(), wire, 1000), G_CONVERTER_CONVERTED, 108, 100);
  }
}

void
test_checks_come_before_decoding()
{
  const auto decompressor = own(gvc_decompressor_new());
  const Bytes wire = block(sample(Kind::noise, 100), 300);
  const Bytes cut{wire.begin(), wire.end() - 1};
  ASSERT_FAILED(convert(decompressor.get(), Bytes(7), 1000), G_IO_ERROR_PARTIAL_INPUT,
                "Partial header");
  ASSERT_FAILED(convert(decompressor.get(), cut, 299), G_IO_ERROR_PARTIAL_INPUT, "Partial data");
  ASSERT_FAILED(convert(decompressor.get(), wire, 299), G_IO_ERROR_NO_SPACE, "Not enough space");
  ASSERT_CONVERTED(convert(decompressor.get(), wire, 300, G_CONVERTER_FLUSH), G_CONVERTER_FLUSHED,
                   0, 0);
  g_converter_reset(G_CONVERTER(decompressor.get()));
  g_assert_true(functions_called().empty());
}

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);

#define ADD(path, test) g_test_add_func("/failures/" path, with_double<test>)
  ADD("init", test_init);
  ADD("rand/generator-calls", test_generator_calls);
  ADD("rand/draw-fails-with-any-status", test_draw_fails_with_any_status);
  ADD("rand/generator-failures", test_generator_failures);
  ADD("rand/status-of-the-size-is-ignored", test_status_of_the_generator_size_is_ignored);
  ADD("encryptor/construction-calls", test_encryptor_construction_calls);
  ADD("encryptor/reset-calls", test_encryptor_reset_calls);
  ADD("encryptor/calls", test_encryption_calls);
  ADD("encryptor/whole-blocks-fail", test_failing_encryption_of_whole_blocks);
  ADD("encryptor/final-block-fails", test_failing_encryption_of_the_final_block);
  ADD("encryptor/only-block-fails", test_failing_encryption_of_an_only_block);
  ADD("encryptor/no-call-without-need", test_engine_is_not_called_without_need);
  ADD("encryptor/no-generator", test_encryptor_without_a_generator);
  ADD("encryptor/failing-draw", test_encryptor_with_a_failing_draw);
  ADD("encryptor/iv-is-what-the-generator-draws", test_iv_is_what_the_generator_draws);
  ADD("encryptor/no-context", test_encryptor_without_a_context);
  ADD("encryptor/recovers", test_encryptor_recovers);
  ADD("encryptor/failure-surfaces-through-the-stream", test_failure_surfaces_through_the_stream);
  ADD("decryptor/construction-calls", test_decryptor_construction_calls);
  ADD("decryptor/calls", test_decryption_calls);
  ADD("decryptor/decryption-fails", test_failing_decryption);
  ADD("decryptor/padding-beyond-the-record", test_padding_beyond_the_record);
  ADD("decryptor/checks-come-first", test_checks_come_before_decryption);
  ADD("decryptor/no-context", test_decryptor_without_a_context);
  ADD("contexts-are-released", test_contexts_are_released);
  ADD("compressor/calls", test_compression_calls);
  ADD("compressor/announced-room-is-the-whole-room", test_announced_room_is_the_whole_room);
  ADD("compressor/sizes-are-cut-to-32-bits", test_sizes_are_cut_to_32_bits);
  ADD("compressor/header-of-a-block", test_header_of_a_block);
  ADD("compressor/engine-fails", test_compressor_failures);
  ADD("compressor/checks-come-first", test_checks_come_before_encoding);
  ADD("decompressor/calls", test_decompression_calls);
  ADD("decompressor/written-is-what-the-decoder-reports", test_written_is_what_the_decoder_reports);
  ADD("decompressor/engine-fails", test_decompressor_failures);
  ADD("decompressor/checks-come-first", test_checks_come_before_decoding);
#undef ADD
  return g_test_run();
}
