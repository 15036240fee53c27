// SPDX-License-Identifier: LGPL-2.1-or-later
#include "tests/support/resources.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

/* Exists if a sanitizer has replaced malloc(), which mallinfo2() does not notice. */
extern "C" __attribute__((weak)) size_t __sanitizer_get_current_allocated_bytes();

gsize
heap_in_use()
{
  if (__sanitizer_get_current_allocated_bytes != nullptr)
    return __sanitizer_get_current_allocated_bytes();
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

bool
heap_is_known()
{
  const char *const preloaded = g_getenv("LD_PRELOAD");
  return preloaded == nullptr || strstr(preloaded, "vgpreload") == nullptr;
}

namespace
{

gsize
directory_entries(const char *path)
{
  GDir *const directory = g_dir_open(path, 0, nullptr);
  g_assert_nonnull(directory);
  gsize entries = 0;
  while (g_dir_read_name(directory) != nullptr)
    entries++;
  g_dir_close(directory);
  return entries;
}

} // namespace

Resources
Resources::now()
{
  return {heap_in_use(), directory_entries("/proc/self/fd"), directory_entries("/proc/self/task")};
}

Resources
Resources::most()
{
  return {G_MAXSIZE, G_MAXSIZE, G_MAXSIZE};
}

Resources
Resources::least(const Resources &other) const
{
  return {std::min(heap, other.heap), std::min(descriptors, other.descriptors),
          std::min(threads, other.threads)};
}

void
Resources::print(const char *when) const
{
  g_print("# %s: %" G_GSIZE_FORMAT " bytes of heap, %" G_GSIZE_FORMAT
          " descriptors, %" G_GSIZE_FORMAT " threads\n",
          when, heap, descriptors, threads);
}

bool
Resources::returned_to(const Resources &before) const
{
  const bool heap_good = heap <= before.heap + heap_allowance;
  if (!heap_good)
    g_printerr("the heap has grown by %" G_GSIZE_FORMAT " bytes\n", heap - before.heap);
  if (descriptors > before.descriptors)
    g_printerr("there are more descriptors\n");
  if (threads > before.threads)
    g_printerr("there are more threads\n");
  return heap_good && descriptors <= before.descriptors && threads <= before.threads;
}

void
want_plain_heap(char **argv)
{
  /* GLib has read its environment by now. */
  if (g_strcmp0(g_getenv("G_SLICE"), "always-malloc") == 0)
    return;
  g_setenv("G_SLICE", "always-malloc", TRUE);
  execv("/proc/self/exe", argv);
  g_error("no second start: %s", g_strerror(errno));
}
