/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/values.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace support
{

/* ---- Errors ---- */

void
Error::assert_is(GQuark domain, int code, const char *message)
{
  g_assert_error(error_, domain, code);
  g_assert_cmpstr(error_->message, ==, message);
  g_clear_error(&error_);
}

void
Error::assert_is(GQuark domain, int code)
{
  g_assert_error(error_, domain, code);
  g_clear_error(&error_);
}

void
Error::assert_none() const
{
  g_assert_no_error(error_);
}

/* ---- Bytes ---- */

std::string
bytes_string(GBytes *bytes)
{
  g_assert_nonnull(bytes);
  gsize size;
  const auto data = static_cast<const char *>(g_bytes_get_data(bytes, &size));
  return size != 0 ? std::string(data, size) : std::string();
}

BytesRef
new_bytes(std::string_view data)
{
  return BytesRef(g_bytes_new(data.data(), data.size()));
}

std::string
pattern(size_t size, guint32 seed)
{
  std::string result(size, '\0');
  guint32 state = seed * 2654435761u + 1;
  for (auto &byte : result) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return result;
}

std::string
le32(guint32 value)
{
  std::string result;
  for (int shift = 0; shift < 32; shift += 8)
    result.push_back(static_cast<char>(value >> shift & 0xff));
  return result;
}

std::string
frame(std::string_view payload)
{
  return le32(static_cast<guint32>(payload.size())).append(payload);
}

std::string
unhex(std::string_view digits)
{
  std::string result;
  int high = -1;
  for (const char digit : digits) {
    if (g_ascii_isspace(digit))
      continue;
    const int value = g_ascii_xdigit_value(digit);
    g_assert_cmpint(value, >=, 0);
    if (high < 0) {
      high = value;
    } else {
      result.push_back(static_cast<char>(high << 4 | value));
      high = -1;
    }
  }
  g_assert_cmpint(high, ==, -1);
  return result;
}

std::string
hex(std::string_view data)
{
  static const char digits[] = "0123456789abcdef";
  std::string result;
  for (const char c : data) {
    const auto byte = static_cast<unsigned char>(c);
    result.push_back(digits[byte >> 4]);
    result.push_back(digits[byte & 15]);
  }
  return result;
}

void
assert_text(const std::string &actual, const std::string &expected)
{
  g_assert_cmpstr(actual.c_str(), ==, expected.c_str());
}

void
assert_bytes(std::string_view actual, std::string_view expected)
{
  if (actual == expected)
    return;
  const auto differs =
      std::mismatch(actual.begin(), actual.end(), expected.begin(), expected.end());
  const auto at = static_cast<size_t>(differs.first - actual.begin());
  const size_t from = at > 16 ? at - 16 : 0;
  g_error("bytes differ at %zu: got %zu bytes, ...%s..., expected %zu bytes, ...%s...", at,
          actual.size(), hex(actual.substr(from, 48)).c_str(), expected.size(),
          hex(expected.substr(std::min(from, expected.size()), 48)).c_str());
}

} // namespace support
