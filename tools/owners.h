// SPDX-License-Identifier: LGPL-2.1-or-later
// Owners of what GLib and the system hand out. In all of tools/, members have plain names without a
// prefix or suffix, and a constructor's parameters are called like the members that they set.
#pragma once

#include <gio/gio.h>

#include <memory>
#include <unistd.h>

template <auto release> struct Release {
  template <typename T>
  void
  operator()(T *value) const
  {
    release(value);
  }
};

template <typename T, auto release = g_object_unref>
using Owned = std::unique_ptr<T, Release<release>>;
using Bytes = Owned<GBytes, g_bytes_unref>;
using Variant = Owned<GVariant, g_variant_unref>;

// A file descriptor, or -1.
struct Descriptor {
  int fd = -1;

  Descriptor() = default;
  explicit Descriptor(int fd) : fd(fd) {}
  Descriptor(const Descriptor &) = delete;
  ~Descriptor()
  {
    if (fd >= 0)
      close(fd);
  }
  operator int() const
  {
    return fd;
  }
};
