// SPDX-License-Identifier: Apache-2.0
// Owning pointers to the reference-counted objects of GLib and GStreamer.
#pragma once

#include <gst/gst.h>

#include <atomic>
#include <memory>
#include <utility>

namespace tq::stream {

struct GObjectRelease {
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
/// Owns one reference to an object derived from GObject.
template <typename T>
using GObjectPtr = std::unique_ptr<T, GObjectRelease>;

/// Takes a further reference.
template <typename T>
GObjectPtr<T> shareObject(T* object)
{
    return GObjectPtr<T>(object ? static_cast<T*>(g_object_ref(object)) : nullptr);
}

struct MiniObjectRelease {
    void operator()(gpointer object) const noexcept
    {
        gst_mini_object_unref(static_cast<GstMiniObject*>(object));
    }
};
using BufferPtr = std::unique_ptr<GstBuffer, MiniObjectRelease>;
using SamplePtr = std::unique_ptr<GstSample, MiniObjectRelease>;
using CapsPtr = std::unique_ptr<GstCaps, MiniObjectRelease>;

struct GErrorRelease {
    void operator()(GError* error) const noexcept { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorRelease>;

struct GFreeRelease {
    void operator()(gpointer memory) const noexcept { g_free(memory); }
};
using GCharPtr = std::unique_ptr<char, GFreeRelease>;

struct GSourceRelease {
    void operator()(GSource* source) const noexcept
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
/// Owns an event source: it is taken out of its context when the pointer goes.
using GSourcePtr = std::unique_ptr<GSource, GSourceRelease>;

/// A shared pointer as the user data of a GLib callback, with the function that releases it.
///
/// GLib orders making, calls and release by locks that the thread sanitizer does not see; the count
/// of hand-overs repeats that order in sight of it.
template <typename T>
struct SharedData {
    static gpointer make(std::shared_ptr<T> object)
    {
        gpointer const data = std::make_unique<std::shared_ptr<T>>(std::move(object)).release();
        handOvers.fetch_add(1);
        return data;
    }
    /// The object, kept alive for as long as the callback holds the result.
    static std::shared_ptr<T> get(gpointer data)
    {
        handOvers.fetch_add(1);
        std::shared_ptr<T> object = *static_cast<std::shared_ptr<T>*>(data);
        handOvers.fetch_add(1);
        return object;
    }
    static void release(gpointer data)
    {
        handOvers.fetch_add(1);
        std::unique_ptr<std::shared_ptr<T>> owner(static_cast<std::shared_ptr<T>*>(data));
    }
    static void releaseClosure(gpointer data, GClosure*) { release(data); }

private:
    static inline std::atomic<unsigned> handOvers{0};
};

}  // namespace tq::stream
