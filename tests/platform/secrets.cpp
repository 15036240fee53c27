// SPDX-License-Identifier: LGPL-2.1-or-later
// Looks for secrets in the memory of a process after the objects that held them are gone.
//
// Every case is a process of its own. A child that it forks makes the secrets and hands them over
// masked, so that nothing but the case itself puts them into its memory. The case runs on a stack
// of its own, and then all writable memory of the process, that stack too, is searched for any 8
// bytes in a row of a secret. That the search finds what is there is shown while the objects live.
#include <zelgvc/zelgvc.h>

#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

constexpr gsize key_size = 32;
constexpr gsize text_size = 100;
constexpr gsize window = 8;

// Secrets lie masked here. Every process has another mask.
struct Secrets {
  guint64 mask;
  guint64 key[key_size / 8];
  guint64 rounds256[2 * 240 / 8]; // for encryption and for decryption
  guint64 rounds128[2 * 176 / 8];
  guint64 text[(text_size + 7) / 8];
  guint64 seconds; // of the clock that the generator is seeded with
  guint64 seed;
  guint64 generator[2][14]; // V and C, after the seeding and after the first vector
};

Secrets secrets;
bool is_secret_time; // GLib asks for the time too, before and after a case

} // namespace

// The library finds this clock. During a case its seconds are secret and do not change.
extern "C" int
gettimeofday(struct timeval *__restrict now, void *__restrict) noexcept
{
  now->tv_sec =
      is_secret_time ? static_cast<time_t>(secrets.seconds ^ secrets.mask) : time(nullptr);
  now->tv_usec = 0;
  return 0;
}

namespace
{

// ---- AES key expansion, FIPS 197 ----

guint8
times2(guint8 a)
{
  return static_cast<guint8>(a << 1U ^ (a & 0x80U ? 0x1bU : 0U));
}

guint8
times(guint8 a, guint8 b)
{
  guint8 product = 0;
  for (; b; b = static_cast<guint8>(b >> 1U), a = times2(a))
    if (b & 1U)
      product = static_cast<guint8>(product ^ a);
  return product;
}

guint8
substitute(guint8 a)
{
  guint8 inverse = a;
  for (int i = 0; i < 253; i++) // a to the 254th
    inverse = times(inverse, a);
  unsigned sum = 0x63;
  for (unsigned i = 0; i < 5; i++)
    sum ^= (inverse << i | inverse >> (8 - i)) & 0xffU;
  return static_cast<guint8>(sum);
}

std::vector<guint8>
expand(const guint8 *key, gsize size)
{
  gsize rounds = size / 4 + 6;
  std::vector<guint8> words(key, key + size);
  guint8 constant = 1;
  while (words.size() < 16 * (rounds + 1)) {
    std::array<guint8, 4> word;
    std::copy_n(words.end() - 4, 4, word.begin());
    if (words.size() % size == 0) {
      std::rotate(word.begin(), word.begin() + 1, word.end());
      std::transform(word.begin(), word.end(), word.begin(), substitute);
      word[0] = static_cast<guint8>(word[0] ^ constant);
      constant = times2(constant);
    } else if (size > 24 && words.size() % size == 16) {
      std::transform(word.begin(), word.end(), word.begin(), substitute);
    }
    for (guint8 byte : word)
      words.push_back(static_cast<guint8>(words[words.size() - size] ^ byte));
  }
  return words;
}

// The round keys as the decryption with the same order of steps has them.
std::vector<guint8>
invert(std::vector<guint8> words)
{
  for (gsize i = 16; i + 16 < words.size(); i += 4) {
    std::array<guint8, 4> in;
    std::copy_n(words.begin() + static_cast<gssize>(i), 4, in.begin());
    for (gsize j = 0; j < 4; j++)
      words[i + j] = static_cast<guint8>(times(in[j], 14) ^ times(in[(j + 1) % 4], 11) ^
                                         times(in[(j + 2) % 4], 13) ^ times(in[(j + 3) % 4], 9));
  }
  return words;
}

void
mask_bytes(guint64 *masked, const void *bytes, gsize size)
{
  for (gsize i = 0; i * 8 < size; i++) {
    guint64 word = 0;
    std::memcpy(&word, static_cast<const guint8 *>(bytes) + 8 * i, MIN(size - 8 * i, 8));
    masked[i] = word ^ secrets.mask;
  }
}

void
fill_randomly(void *buffer, gsize size)
{
  g_assert_cmpint(getrandom(buffer, size, 0), ==, size);
}

// The generator's state starts with a seal and a flag and ends with a counter of 8 bytes.
void
mask_generator(guint64 *masked, GvcRand *rand)
{
  guint8 *state;
  std::memcpy(&state, reinterpret_cast<void *>(rand), sizeof state);
  mask_bytes(masked, state + 5, 14 * 8 - 2);
}

void
make_secrets()
{
  guint8 key[key_size], text[text_size], vector[16];
  fill_randomly(&secrets.mask, sizeof secrets.mask);
  fill_randomly(key, sizeof key);
  fill_randomly(text, sizeof text);
  mask_bytes(secrets.key, key, sizeof key);
  mask_bytes(secrets.text, text, sizeof text);

  auto rounds = expand(key, 32);
  mask_bytes(secrets.rounds256, rounds.data(), 240);
  mask_bytes(secrets.rounds256 + 30, invert(rounds).data(), 240);
  rounds = expand(key, 16);
  mask_bytes(secrets.rounds128, rounds.data(), 176);
  mask_bytes(secrets.rounds128 + 22, invert(rounds).data(), 176);

  guint32 seconds[2];
  fill_randomly(seconds, sizeof seconds);
  guint64 clock = guint64{seconds[0]} << 10U | (seconds[1] & 0x3ffU);
  secrets.seconds = clock ^ secrets.mask;
  secrets.seed = clock * 1000000 ^ secrets.mask;
  is_secret_time = true;
  auto *rand = gvc_rand_new();
  mask_generator(secrets.generator[0], rand);
  g_assert_true(gvc_rand_array(rand, vector, sizeof vector));
  mask_generator(secrets.generator[1], rand);
  gvc_rand_free(rand);
}

// In another process, of which only the masked result comes here.
void
receive_secrets()
{
  int ends[2];
  g_assert_cmpint(pipe(ends), ==, 0);
  pid_t child = fork();
  if (child == 0) {
    make_secrets();
    _exit(write(ends[1], &secrets, sizeof secrets) == sizeof secrets ? 0 : 1);
  }
  close(ends[1]);
  g_assert_cmpint(read(ends[0], &secrets, sizeof secrets), ==, sizeof secrets);
  close(ends[0]);
  int status;
  g_assert_cmpint(waitpid(child, &status, 0), ==, child);
  g_assert_cmpint(status, ==, 0);
}

struct Needle {
  guint64 value; // masked
  const char *name;
  gsize at;

  bool
  operator<(const Needle &other) const
  {
    return value < other.value;
  }
};

// Any window of `window` bytes at a multiple of 4 of any secret, masked and sorted.
class Needles
{
public:
  Needles &
  add(const char *name, const guint64 *masked, gsize size)
  {
    for (gsize at = 0; at + window <= size; at += 4) {
      // Both halves keep the mask of the half of a word that they come from: the mask is the same
      // in all words, so a window that lies across two words only needs the halves swapped.
      guint64 mask = secrets.mask;
      guint8 bytes[16];
      gsize word = at / 8;
      std::memcpy(bytes, &masked[word], 8);
      if (at % 8 != 0)
        std::memcpy(bytes + 8, &masked[word + 1], 8);
      else
        std::memset(bytes + 8, 0, 8);
      guint64 value;
      std::memcpy(&value, bytes + at % 8, 8);
      if (at % 8 != 0)
        value ^= mask ^ (mask << 32U | mask >> 32U);
      values_.push_back({value, name, at});
    }
    std::sort(values_.begin(), values_.end());
    for (const auto &needle : values_)
      maybe_[hash(needle.value)] = true;
    return *this;
  }

  // The name of the secret in a masked word of memory, or NULL.
  const Needle *
  find(guint64 masked) const
  {
    if (!maybe_[hash(masked)])
      return nullptr;
    auto found = std::lower_bound(values_.begin(), values_.end(), Needle{masked, nullptr, 0});
    return found != values_.end() && found->value == masked ? &*found : nullptr;
  }

private:
  static gsize
  hash(guint64 value)
  {
    return value >> 48U;
  }

  std::vector<Needle> values_;
  std::vector<bool> maybe_ = std::vector<bool>(65536);
};

struct Range {
  const guint8 *begin;
  const guint8 *end;
  std::string name;
};

std::vector<Range>
writable_memory()
{
  std::vector<Range> ranges;
  std::FILE *maps = std::fopen("/proc/self/maps", "r");
  g_assert_nonnull(maps);
  char line[4352], flags[5], name[4097];
  unsigned long begin, end;
  while (std::fgets(line, sizeof line, maps)) {
    name[0] = '\0';
    g_assert_cmpint(std::sscanf(line, "%lx-%lx %4s %*s %*s %*s %4096s", &begin, &end, flags, name),
                    >=, 3);
    if (flags[0] == 'r' && flags[1] == 'w')
      ranges.push_back(
          {reinterpret_cast<const guint8 *>(begin), reinterpret_cast<const guint8 *>(end), name});
  }
  std::fclose(maps);
  return ranges;
}

// Counts the needles in writable memory.
unsigned
count_needles(const Needles &needles, bool report)
{
  unsigned count = 0;
  for (const auto &range : writable_memory()) {
    for (auto *at = range.begin; at + window <= range.end; at++) {
      guint64 value;
      std::memcpy(&value, at, sizeof value);
      auto *found = needles.find(value ^ secrets.mask);
      if (!found)
        continue;
      count++;
      if (report)
        g_printerr("%s + %zu at %p of %p to %p %s\n", found->name, found->at,
                   static_cast<const void *>(at), static_cast<const void *>(range.begin),
                   static_cast<const void *>(range.end), range.name.c_str());
    }
  }
  return count;
}

constexpr gsize stack_size = 256 * 1024;

struct Case {
  const char *path;
  void (*run)();
  void (*add)(Needles &);
};

const Needles *control; // what must be in memory at the control point of a case

void
expect_secrets_in_memory()
{
  g_assert_cmpuint(count_needles(*control, false), >, 0);
}

struct Host {
  guint8 *bytes;
  gsize size;
};

void
wipe_host(gpointer data)
{
  auto *host = static_cast<Host *>(data);
  explicit_bzero(host->bytes, host->size);
  g_free(host->bytes);
  g_free(host);
}

GBytes *
unmasked(const guint64 *masked, gsize size)
{
  auto *host = g_new(Host, 1);
  host->size = size;
  host->bytes = static_cast<guint8 *>(g_malloc((size + 7) / 8 * 8));
  for (gsize i = 0; i * 8 < size; i++) {
    guint64 word = masked[i] ^ secrets.mask;
    std::memcpy(host->bytes + 8 * i, &word, sizeof word);
  }
  return g_bytes_new_with_free_func(host->bytes, size, wipe_host, host);
}

GBytes *
the_key()
{
  return unmasked(secrets.key, key_size);
}

GBytes *
the_text()
{
  return unmasked(secrets.text, text_size);
}

// Converts `in`, which may be empty, to `out` and gives how much came out.
gsize
convert(gpointer converter, const void *in, gsize size, guint8 *out, gsize room)
{
  gsize consumed, produced;
  GError *error = nullptr;
  g_converter_convert(G_CONVERTER(converter), in, size, out, room, G_CONVERTER_NO_FLAGS, &consumed,
                      &produced, &error);
  g_assert_no_error(error);
  return produced;
}

gsize
convert_text(gpointer converter, guint8 *out, gsize room)
{
  g_autoptr(GBytes) text = the_text();
  return convert(converter, g_bytes_get_data(text, nullptr), text_size, out, room);
}

void
add_generator(Needles &needles)
{
  needles.add("seconds", &secrets.seconds, 8).add("seed", &secrets.seed, 8);
  for (auto &state : secrets.generator)
    needles.add("generator", state, 14 * 8 - 2);
}

void
add_all(Needles &needles)
{
  needles.add("key", secrets.key, key_size).add("text", secrets.text, text_size);
  needles.add("rounds256", secrets.rounds256, sizeof secrets.rounds256);
  needles.add("rounds128", secrets.rounds128, sizeof secrets.rounds128);
  add_generator(needles);
}

void
add_text(Needles &needles)
{
  needles.add("text", secrets.text, text_size);
}

// Only the round keys can be found here: nothing else holds the key by then.
void
expect_round_keys()
{
  Needles rounds;
  rounds.add("rounds256", secrets.rounds256 + key_size / 8, 240 - key_size);
  g_assert_cmpuint(count_needles(rounds, false), >, 0);
}

gsize
encrypt_for(guint key_length, GBytes *key, guint8 *out, gsize room)
{
  g_autoptr(GvcEncryptor) encryptor = gvc_encryptor_new(key);
  gvc_encryptor_set_key_length(encryptor, key_length);
  gsize size = convert(encryptor, nullptr, 0, out, room);
  return size + convert_text(encryptor, out + size, room - size);
}

void
decrypt_for(guint key_length)
{
  guint8 records[256];
  guint8 text[256];
  g_autoptr(GBytes) key = the_key();
  gsize size = encrypt_for(key_length, key, records, sizeof records);

  g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(key);
  expect_round_keys();
  gvc_decryptor_set_key_length(decryptor, key_length);
  g_assert_cmpuint(convert(decryptor, records, size, text, sizeof text), ==, 0);
  g_assert_cmpuint(convert(decryptor, records + 24, size - 24, text, sizeof text), ==, text_size);
  expect_secrets_in_memory();
  explicit_bzero(text, sizeof text);
}

// A channel with both stages over one end of a socket pair.
GvcConnection *
open_channel(GSocket *socket)
{
  g_autoptr(GSocketConnection) connection = g_socket_connection_factory_create_connection(socket);
  g_autoptr(GBytes) key = the_key();
  g_autoptr(GConverter) decryptor = G_CONVERTER(gvc_decryptor_new(key));
  g_autoptr(GConverter) encryptor = G_CONVERTER(gvc_encryptor_new(key));
  g_autoptr(GConverter) decompressor = G_CONVERTER(gvc_decompressor_new());
  g_autoptr(GConverter) compressor = G_CONVERTER(gvc_compressor_new());
  auto *channel = gvc_connection_new(connection);
  gvc_connection_add_converters(channel, decryptor, encryptor);
  gvc_connection_add_converters(channel, decompressor, compressor);
  return channel;
}

void
make_sockets(GSocket **near, GSocket **far)
{
  int ends[2];
  g_assert_cmpint(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), ==, 0);
  *near = g_socket_new_from_fd(ends[0], nullptr);
  *far = g_socket_new_from_fd(ends[1], nullptr);
}

void
send_text(GvcConnection *channel)
{
  g_autoptr(GBytes) text = the_text();
  g_autoptr(GvcBytesOutputStream) out =
      gvc_bytes_output_stream_new(g_io_stream_get_output_stream(G_IO_STREAM(channel)));
  GError *error = nullptr;
  gvc_bytes_output_stream_put_bytes(out, text, nullptr, &error);
  g_assert_no_error(error);
  g_filter_output_stream_set_close_base_stream(G_FILTER_OUTPUT_STREAM(out), FALSE);
}

// The key, all made from it and the generator are gone at the receiver as well. The text is not
// looked for: the message is the host's and the buffers of a converter input stream are GIO's.
void
add_all_but_text(Needles &needles)
{
  needles.add("key", secrets.key, key_size);
  needles.add("rounds256", secrets.rounds256, sizeof secrets.rounds256);
  add_generator(needles);
}

void
test_key_expansion()
{
  // The last round keys of the examples in FIPS 197, appendix A.
  const guint8 key128[] = {0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6,
                           0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};
  const guint8 last128[] = {0xd0, 0x14, 0xf9, 0xa8, 0xc9, 0xee, 0x25, 0x89,
                            0xe1, 0x3f, 0x0c, 0xc8, 0xb6, 0x63, 0x0c, 0xa6};
  const guint8 key256[] = {0x60, 0x3d, 0xeb, 0x10, 0x15, 0xca, 0x71, 0xbe, 0x2b, 0x73, 0xae,
                           0xf0, 0x85, 0x7d, 0x77, 0x81, 0x1f, 0x35, 0x2c, 0x07, 0x3b, 0x61,
                           0x08, 0xd7, 0x2d, 0x98, 0x10, 0xa3, 0x09, 0x14, 0xdf, 0xf4};
  const guint8 last256[] = {0xfe, 0x48, 0x90, 0xd1, 0xe6, 0x18, 0x8d, 0x0b,
                            0x04, 0x6d, 0xf3, 0x44, 0x70, 0x6c, 0x63, 0x1e};
  auto words = expand(key128, sizeof key128);
  g_assert_cmpmem(words.data() + 160, 16, last128, sizeof last128);
  words = expand(key256, sizeof key256);
  g_assert_cmpmem(words.data() + 224, 16, last256, sizeof last256);
}

// ---- Running a case ----

void *
run_on_stack(void *data)
{
  is_secret_time = true;
  static_cast<const Case *>(data)->run();
  is_secret_time = false;
  return nullptr;
}

void
run_case(gconstpointer data)
{
  if (!g_test_subprocess()) {
    g_test_trap_subprocess(nullptr, 0, G_TEST_SUBPROCESS_INHERIT_STDERR);
    g_test_trap_assert_passed();
    return;
  }

  auto *which = static_cast<const Case *>(data);
  receive_secrets();
  Needles needles;
  which->add(needles);
  control = &needles;
  g_assert_cmpuint(count_needles(needles, true), ==, 0);

  void *stack = mmap(nullptr, stack_size, PROT_READ | PROT_WRITE,
                     MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  g_assert_true(stack != MAP_FAILED);
  pthread_attr_t attributes;
  pthread_t thread;
  g_assert_cmpint(pthread_attr_init(&attributes), ==, 0);
  g_assert_cmpint(pthread_attr_setstack(&attributes, stack, stack_size), ==, 0);
  g_assert_cmpint(pthread_create(&thread, &attributes, run_on_stack, const_cast<Case *>(which)), ==,
                  0);
  g_assert_cmpint(pthread_join(thread, nullptr), ==, 0);
  g_assert_cmpuint(count_needles(needles, true), ==, 0);
}

// ---- The cases ----

void
run_generator()
{
  guint8 vector[16];
  auto *rand = gvc_rand_new();
  g_assert_true(gvc_rand_array(rand, vector, sizeof vector));
  expect_secrets_in_memory();
  gvc_rand_free(rand);
}

void
run_encryptor()
{
  guint8 out[256];
  g_autoptr(GBytes) key = the_key();
  auto *encryptor = gvc_encryptor_new(key);
  convert(encryptor, nullptr, 0, out, sizeof out);
  expect_secrets_in_memory();
  expect_round_keys();
  convert_text(encryptor, out, sizeof out);
  g_converter_reset(G_CONVERTER(encryptor));
  convert(encryptor, nullptr, 0, out, sizeof out);
  gvc_encryptor_set_key_length(encryptor, 128);
  convert(encryptor, nullptr, 0, out, sizeof out);
  convert_text(encryptor, out, sizeof out);
  expect_secrets_in_memory();
  g_object_unref(encryptor);
}

void
run_decryptor()
{
  decrypt_for(256);
  decrypt_for(128);
}

void
run_properties()
{
  g_autoptr(GBytes) key = the_key();
  auto *encryptor = GVC_ENCRYPTOR(g_object_new(GVC_TYPE_ENCRYPTOR, "key", key, nullptr));
  g_auto(GValue) value = G_VALUE_INIT;
  GBytes *copy = nullptr;

  g_value_init(&value, G_TYPE_BYTES);
  g_object_get_property(G_OBJECT(encryptor), "key", &value);
  g_object_get(encryptor, "key", &copy, nullptr);
  auto *decryptor = g_object_new(GVC_TYPE_DECRYPTOR, "key", copy, "key-length", 128, nullptr);
  expect_secrets_in_memory();
  g_bytes_unref(copy);
  g_object_unref(encryptor);
  g_object_unref(decryptor);
}

void
run_key_in_a_variant()
{
  g_autoptr(GBytes) key = the_key();
  g_autoptr(GVariant) variant =
      g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, key, TRUE));
  g_autoptr(GBytes) content = g_variant_get_data_as_bytes(variant);
  g_autoptr(GvcDecryptor) decryptor = gvc_decryptor_new(content);
  expect_secrets_in_memory();
}

void
run_refused_key()
{
  g_autoptr(GBytes) key = the_key();
  g_autoptr(GBytes) part = g_bytes_new_from_bytes(key, 0, 24);
  auto *decryptor = g_object_new(GVC_TYPE_DECRYPTOR, "key", part, nullptr);
  expect_secrets_in_memory();
  g_object_unref(decryptor);
}

void
run_compressor()
{
  guint8 block[256];
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();
  // A room of up to 128 bytes is encoded beside it.
  for (gsize room : {gsize{124}, sizeof block}) {
    convert_text(compressor, block, room);
    expect_secrets_in_memory();
    explicit_bzero(block, sizeof block);
  }
}

void
run_decompressor()
{
  guint8 block[256], text[256];
  g_autoptr(GvcCompressor) compressor = gvc_compressor_new();
  g_autoptr(GvcDecompressor) decompressor = gvc_decompressor_new();
  gsize size = convert_text(compressor, block, sizeof block);
  g_assert_cmpuint(convert(decompressor, block, size, text, sizeof text), ==, text_size);
  explicit_bzero(block, sizeof block);
  expect_secrets_in_memory();
  explicit_bzero(text, sizeof text);
}

// The sender forgets everything. Sent bytes are in the kernel's buffers.
void
run_sending_channel()
{
  g_autoptr(GSocket) near = nullptr;
  g_autoptr(GSocket) far = nullptr;
  make_sockets(&near, &far);
  g_autoptr(GvcConnection) channel = open_channel(near);
  send_text(channel);
  expect_secrets_in_memory();
  g_io_stream_close(G_IO_STREAM(channel), nullptr, nullptr);
}

// More than is kept in a stage's buffer: it grows and moves, and is released after the message.
void
run_sending_much()
{
  g_autoptr(GSocket) near = nullptr;
  g_autoptr(GSocket) far = nullptr;
  make_sockets(&near, &far);
  g_socket_set_blocking(near, FALSE);
  g_autoptr(GvcConnection) channel = open_channel(near);
  auto *out = G_POLLABLE_OUTPUT_STREAM(g_io_stream_get_output_stream(G_IO_STREAM(channel)));

  gsize size = 1000000;
  auto *filler = static_cast<guint8 *>(g_malloc(size));
  fill_randomly(filler, size);
  for (gsize at = 0; at + text_size + 8 < size; at += 10000)
    for (gsize i = 0; i * 8 < text_size; i++) {
      guint64 word = secrets.text[i] ^ secrets.mask;
      std::memcpy(filler + at + 8 * i, &word, sizeof word);
    }
  // The second one is refused, since the peer does not read.
  for (gsize part : {gsize{1000}, gsize{60000}, size, size})
    g_pollable_output_stream_write_nonblocking(out, filler, part, nullptr, nullptr);
  expect_secrets_in_memory();
  explicit_bzero(filler, size);
  g_free(filler);
  g_socket_close(near, nullptr);
}

void
run_receiving_channel()
{
  g_autoptr(GSocket) near = nullptr;
  g_autoptr(GSocket) far = nullptr;
  make_sockets(&near, &far);
  g_autoptr(GvcConnection) channel = open_channel(near);
  g_autoptr(GvcConnection) peer = open_channel(far);
  g_autoptr(GvcBytesInputStream) in =
      gvc_bytes_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(peer)));
  GError *error = nullptr;
  send_text(channel);
  g_autoptr(GBytes) message = gvc_bytes_input_stream_read_bytes(in, nullptr, &error);
  g_assert_no_error(error);
  g_autoptr(GBytes) text = the_text();
  g_assert_true(g_bytes_equal(message, text));
  expect_secrets_in_memory();
}

const Case cases[] = {
    {"/secrets/generator-leaves-no-seed-and-no-state", run_generator, add_generator},
    {"/secrets/encryptor-leaves-nothing", run_encryptor, add_all},
    {"/secrets/decryptor-leaves-nothing", run_decryptor, add_all},
    {"/secrets/properties-make-no-copy-of-the-key", run_properties, add_all},
    {"/secrets/key-in-a-variant-is-not-copied", run_key_in_a_variant, add_all},
    {"/secrets/refused-key-is-not-copied", run_refused_key, add_all},
    {"/secrets/compressor-leaves-no-text", run_compressor, add_text},
    {"/secrets/decompressor-leaves-no-text", run_decompressor, add_text},
    {"/secrets/sending-channel-leaves-nothing", run_sending_channel, add_all},
    {"/secrets/grown-stages-leave-nothing", run_sending_much, add_all},
    {"/secrets/receiving-channel-leaves-no-key", run_receiving_channel, add_all_but_text},
};

} // namespace

int
main(int argc, char **argv)
{
  g_test_init(&argc, &argv, nullptr);
  g_test_add_func("/secrets/key-expansion-is-that-of-the-standard", test_key_expansion);
  for (const auto &each : cases)
    g_test_add_data_func(each.path, &each, run_case);
  return g_test_run();
}
