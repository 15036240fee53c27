// SPDX-License-Identifier: LGPL-2.1-or-later
#pragma once

// The initialisers that G_DEFINE_TYPE() calls, for a type that has nothing to initialise.
#define GVC_NO_INITIALISERS(TypeName, type_name)                                                   \
  static void type_name##_class_init(TypeName##Class *) {}                                         \
  static void type_name##_init(TypeName *) {}
