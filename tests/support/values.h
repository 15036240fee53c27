/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* Owners of what GLib allocates, errors, and bytes. */
#pragma once

#include <gio/gio.h>

#include <memory>
#include <string>
#include <string_view>

namespace support
{

/* ---- Owners ---- */

struct ObjectUnref {
  void
  operator()(gpointer object) const
  {
    g_object_unref(object);
  }
};
struct BytesUnref {
  void
  operator()(GBytes *bytes) const
  {
    g_bytes_unref(bytes);
  }
};
struct VariantUnref {
  void
  operator()(GVariant *variant) const
  {
    g_variant_unref(variant);
  }
};
struct Free {
  void
  operator()(gpointer memory) const
  {
    g_free(memory);
  }
};

template <typename T> using Ref = std::unique_ptr<T, ObjectUnref>;
using BytesRef = std::unique_ptr<GBytes, BytesUnref>;
using VariantRef = std::unique_ptr<GVariant, VariantUnref>;
template <typename T> using Mem = std::unique_ptr<T, Free>;

/* Takes over a full reference; for `auto stream = own(gvc_..._new(...))`. */
template <typename T>
Ref<T>
own(T *object)
{
  return Ref<T>(object);
}

/* An error out-argument that is cleared at the end of its scope. */
class Error
{
public:
  Error() = default;
  Error(const Error &) = delete;
  Error &operator=(const Error &) = delete;
  ~Error()
  {
    g_clear_error(&error_);
  }
  GError **
  operator&()
  {
    return &error_;
  }
  const GError *
  get() const
  {
    return error_;
  }
  explicit operator bool() const
  {
    return error_ != nullptr;
  }
  GError *
  steal()
  {
    return static_cast<GError *>(g_steal_pointer(&error_));
  }
  void
  clear()
  {
    g_clear_error(&error_);
  }
  /* Fails unless exactly this error is set; clears it, so that the variable can be used again. */
  void assert_is(GQuark domain, int code, const char *message);
  /* The same without a look at the message (for texts that are GIO's). */
  void assert_is(GQuark domain, int code);
  void assert_none() const;

private:
  GError *error_ = nullptr;
};

/* ---- Bytes ---- */

std::string bytes_string(GBytes *bytes);
BytesRef new_bytes(std::string_view data);
/* `size` bytes that repeat with no short period; the same for the same seed on every run. */
std::string pattern(size_t size, guint32 seed = 1);
/* A frame length as it travels: four bytes, the lowest first. */
std::string le32(guint32 value);
/* One whole message frame. */
std::string frame(std::string_view payload);
/* "0a0b0c"; blanks between digits are skipped. */
std::string unhex(std::string_view digits);
std::string hex(std::string_view data);
/* As g_assert_cmpstr(), which keeps no temporary alive long enough. */
void assert_text(const std::string &actual, const std::string &expected);
/* Fails with both sides in hexadecimal (shortened) unless equal. */
void assert_bytes(std::string_view actual, std::string_view expected);

} // namespace support
