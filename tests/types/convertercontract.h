// SPDX-License-Identifier: LGPL-2.1-or-later
// The contracts that converters share: the two ciphers, the two codecs, those that encode and those
// that decode.
#pragma once

#include "tests/support/convert.h"
#include "tests/support/support.h"

#include <functional>

namespace contract
{

// ---- Converters ----

void is_a_plain_converter(GType type, const char *name, gsize class_size, gsize instance_size);
// `convert` uses the object, which has one reference.
void gives_one_reference(support::Ref<GConverter> converter,
                         const std::function<void(gpointer)> &convert);

// Registers a case for base streams that move everything, 7 bytes or 1 byte in a call; its argument
// is that number. And a case for each family of sockets.
void add_for_pieces(const std::string &path, GTestDataFunc test);
void add_for_sockets(const std::string &path, GTestDataFunc test);

support::Ref<GInputStream> input_over(gpointer converter, std::shared_ptr<support::Script> script);
std::shared_ptr<support::Script> script_of(ByteView data, gsize per_call);

// Each fails unless the stream or the socket carries what `plain` is encoded to.
using Open = std::function<Bytes(ByteView wire)>;
void input_stream_encodes(gpointer encoder, ByteView plain, gsize per_call, const Open &open);
void socket_carries_encoded(gconstpointer family, gpointer encoder, ByteView plain,
                            const Open &open);

// Each fails unless exactly `plain` comes out of `wire`.
void input_stream_decodes(gpointer decoder, ByteView wire, ByteView plain, gsize per_call,
                          std::mt19937 &random);
void output_stream_decodes(gpointer decoder, ByteView wire, ByteView plain, gsize per_call,
                           std::mt19937 &random);
void socket_decodes(gconstpointer family, gpointer decoder, ByteView wire, ByteView plain,
                    std::mt19937 &random);
// Fails unless the stream delivers `plain` and then this error.
void stream_fails(GInputStream *stream, ByteView plain, GIOErrorEnum code, const char *message);

// ---- Ciphers ----

inline constexpr gsize key_size = 32;
Bytes test_key();
support::BytesRef bytes_ref(ByteView data);

struct Cipher {
  const char *name; // "encryptor"
  const char *type_name;
  GType (*get_type)();
  gsize class_size;
  gsize instance_size;
  gpointer (*create)(GBytes *key);
  void (*set_key_length)(gpointer cipher, guint bits);
  // Starts to use a cipher that has not moved any record. The result fails unless the cipher goes
  // on with a record over `plain`, with the first `bits` of test_key().
  std::function<void(ByteView plain)> (*begin)(gpointer cipher, int bits);
  // Fails unless the cipher refuses every record.
  void (*assert_useless)(gpointer cipher);
};

void type(gconstpointer cipher);
void properties(gconstpointer cipher);
void property_values(gconstpointer cipher);
void new_checks_its_key(gconstpointer cipher);
void set_key_length_checks_its_arguments(gconstpointer cipher);
void property_rejects_other_lengths(gconstpointer cipher);
void construction_with_192_uses_the_whole_key(gconstpointer cipher);
void notifies_on_change_only(gconstpointer cipher);
void unknown_property_warns(gconstpointer cipher);
void owns_a_reference_to_its_key(gconstpointer cipher);
void refused_construction_keeps_no_reference(gconstpointer cipher);
void leaves_no_memory(gconstpointer cipher);
void without_a_key(gconstpointer cipher);
void with_a_key_of_the_wrong_size(gconstpointer cipher);

} // namespace contract
