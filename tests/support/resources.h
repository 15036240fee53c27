/* SPDX-License-Identifier: LGPL-2.1-or-later */
/* The resources that this process holds. */
#ifndef TESTS_RESOURCES_H
#define TESTS_RESOURCES_H

#include <glib.h>

/* The bytes that the process has from malloc(). Under valgrind, which puts a malloc() of its own in
 * its place, they are not known. */
gsize heap_in_use();
bool heap_is_known();

struct Resources {
  gsize heap; /* bytes */
  gsize descriptors;
  gsize threads;

  static Resources now();
  /* Larger than any real value. */
  static Resources most();
  /* The least of both. What a moment of rest has beyond another one belongs to a cache, or to a
   * thread that has not ended yet. */
  Resources least(const Resources &other) const;
  void print(const char *when) const;
  /* Says on standard error what there is more of than before, and whether that is nothing. */
  bool returned_to(const Resources &before) const;

  /* A leak of one byte a channel shows in no test; one of an object a channel soon does. */
  static constexpr gsize heap_allowance = 1024 * 1024;
};

/* Starts the program anew where GLib keeps memory in slices, which would hide it from the heap. To
 * be called first in main(). */
void want_plain_heap(char **argv);

#endif /* TESTS_RESOURCES_H */
