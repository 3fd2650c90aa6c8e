// SPDX-License-Identifier: Apache-2.0
// Types of GLib that differ from their parents in a function or two.
#pragma once

#include <glib-object.h>

namespace tq::stream {

/// A type that differs from its parent in what @p initialise changes in its class.
inline GType deriveType(GType parent, const char* name, GClassInitFunc initialise)
{
    GTypeQuery query;
    g_type_query(parent, &query);
    return g_type_register_static_simple(parent, name, query.class_size, initialise,
                                         query.instance_size, nullptr, GTypeFlags(0));
}

}  // namespace tq::stream
