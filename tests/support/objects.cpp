/* SPDX-License-Identifier: LGPL-2.1-or-later */
#include "tests/support/objects.h"

#include "tests/support/mainloop.h"

#include <functional>
#include <mutex>

namespace support
{

/* ---- Lives ---- */

struct LifeWatch::State {
  std::mutex mutex;
  guint alive = 0;
};

namespace
{

struct CountedBytes {
  std::string data;
  std::shared_ptr<void> state;
  std::function<void()> gone;
};

} // namespace

std::shared_ptr<LifeWatch::State>
LifeWatch::state()
{
  if (state_ == nullptr)
    state_ = std::make_shared<State>();
  return state_;
}

LifeWatch::~LifeWatch()
{
  if (alive() != 0)
    g_error("%u objects are still alive", alive());
}

void
LifeWatch::object_gone(gpointer state, GObject *)
{
  const auto shared = static_cast<std::shared_ptr<State> *>(state);
  {
    const std::lock_guard lock((*shared)->mutex);
    (*shared)->alive--;
  }
  delete shared;
}

void
LifeWatch::add(gpointer object)
{
  const auto shared = state();
  {
    const std::lock_guard lock(shared->mutex);
    shared->alive++;
  }
  g_object_weak_ref(G_OBJECT(object), object_gone, new std::shared_ptr<State>(shared));
}

void
LifeWatch::bytes_gone(gpointer memory)
{
  const auto counted = static_cast<CountedBytes *>(memory);
  counted->gone();
  delete counted;
}

BytesRef
LifeWatch::add_bytes(std::string_view data)
{
  const auto shared = state();
  {
    const std::lock_guard lock(shared->mutex);
    shared->alive++;
  }
  const auto counted = new CountedBytes{std::string(data), shared, [shared] {
                                          const std::lock_guard lock(shared->mutex);
                                          shared->alive--;
                                        }};
  return BytesRef(
      g_bytes_new_with_free_func(counted->data.data(), counted->data.size(), bytes_gone, counted));
}

guint
LifeWatch::alive() const
{
  if (state_ == nullptr)
    return 0;
  const std::lock_guard lock(state_->mutex);
  return state_->alive;
}

void
LifeWatch::assert_all_gone()
{
  spin_until([this] { return alive() == 0; });
}

guint
refcount(gpointer object)
{
  return static_cast<guint>(g_atomic_int_get(&static_cast<GObject *>(object)->ref_count));
}

void
assert_refcount(gpointer object, guint expected)
{
  g_assert_cmpuint(refcount(object), ==, expected);
}

void
assert_refcount_becomes(gpointer object, guint expected)
{
  spin_until([object, expected] { return refcount(object) == expected; });
}

/* ---- Types ---- */

void
assert_property(GType owner, const char *name, GType value_type, const char *nick,
                const char *blurb, guint flags)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(owner));
  const GParamSpec *const spec = g_object_class_find_property(klass, name);
  g_assert_nonnull(spec);
  g_assert_cmpstr(spec->name, ==, name);
  g_assert_cmpstr(g_type_name(spec->owner_type), ==, g_type_name(owner));
  g_assert_cmpstr(g_type_name(spec->value_type), ==, g_type_name(value_type));
  g_assert_cmpstr(g_param_spec_get_nick(const_cast<GParamSpec *>(spec)), ==, nick);
  g_assert_cmpstr(g_param_spec_get_blurb(const_cast<GParamSpec *>(spec)), ==, blurb);
  g_assert_cmphex(spec->flags, ==, flags);
  g_type_class_unref(klass);
}

std::vector<std::string>
own_properties(GType owner)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(owner));
  guint count;
  const Mem<GParamSpec *> specs(g_object_class_list_properties(klass, &count));
  std::vector<std::string> result;
  for (guint i = 0; i < count; i++)
    if (specs.get()[i]->owner_type == owner)
      result.emplace_back(specs.get()[i]->name);
  g_type_class_unref(klass);
  return result;
}

std::vector<std::string>
own_signals(GType owner)
{
  const auto klass = g_type_class_ref(owner);
  guint count;
  const Mem<guint> ids(g_signal_list_ids(owner, &count));
  std::vector<std::string> result;
  for (guint i = 0; i < count; i++)
    result.emplace_back(g_signal_name(ids.get()[i]));
  g_type_class_unref(klass);
  return result;
}

void
assert_overrides_nothing(GType stream_type)
{
  const auto klass = static_cast<GObjectClass *>(g_type_class_ref(stream_type));
  const auto parent = static_cast<GObjectClass *>(g_type_class_peek_parent(klass));
  GTypeQuery query;
  g_type_query(g_type_parent(stream_type), &query);

  /* GObject itself clears these two for each new class. */
  g_assert_null(reinterpret_cast<gpointer>(klass->set_property));
  g_assert_null(reinterpret_cast<gpointer>(klass->get_property));
  g_assert_true(klass->constructor == parent->constructor);
  g_assert_true(klass->dispose == parent->dispose);
  g_assert_true(klass->finalize == parent->finalize);
  g_assert_true(klass->dispatch_properties_changed == parent->dispatch_properties_changed);
  g_assert_true(klass->notify == parent->notify);
  g_assert_true(klass->constructed == parent->constructed);
  /* Behind GObject's part a class is the operations of the classes below it and nothing else. */
  const size_t start = sizeof(GObjectClass);
  g_assert_cmpmem(reinterpret_cast<const char *>(klass) + start, query.class_size - start,
                  reinterpret_cast<const char *>(parent) + start, query.class_size - start);
  g_type_class_unref(klass);
}

} // namespace support
