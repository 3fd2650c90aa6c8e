// SPDX-License-Identifier: Apache-2.0
// Owning pointers to the objects of GLib and GStreamer, for cameras, sender and receiver.
#pragma once

#include <gst/gst.h>

#include <memory>
#include <string>
#include <utility>

#include "cmake/threadsanitizer.h"

namespace tq {

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
using MessagePtr = std::unique_ptr<GstMessage, MiniObjectRelease>;
using BufferListPtr = std::unique_ptr<GstBufferList, MiniObjectRelease>;

struct GSourceRelease {
    void operator()(GSource* source) const noexcept
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};
/// Owns an event source: it is taken out of its context when the pointer goes.
using GSourcePtr = std::unique_ptr<GSource, GSourceRelease>;

struct MainLoopRelease {
    void operator()(GMainContext* context) const noexcept { g_main_context_unref(context); }
    void operator()(GMainLoop* loop) const noexcept { g_main_loop_unref(loop); }
};
using MainContextPtr = std::unique_ptr<GMainContext, MainLoopRelease>;
using MainLoopPtr = std::unique_ptr<GMainLoop, MainLoopRelease>;

/// The error of one call.
class Failure {
public:
    Failure() = default;
    ~Failure() { g_clear_error(&error); }
    Failure(const Failure&) = delete;
    Failure& operator=(const Failure&) = delete;

    /// Where the call puts it.
    GError** place() { return &error; }
    const GError* get() const { return error; }

    /// What it says; @p otherwise when the call left no error.
    const char* text(const char* otherwise) const { return error ? error->message : otherwise; }

private:
    GError* error = nullptr;
};

/// Why GStreamer cannot be initialised, or empty when it is. Any thread, any number of times.
inline std::string initialiseGStreamer()
{
    Failure failure;
    return gst_init_check(nullptr, nullptr, failure.place())
               ? ""
               : failure.text("GStreamer cannot be initialised");
}

/// A shared pointer as the user data of a GLib callback, with the function that releases it. GLib
/// orders making, calls and release by locks of its own.
template <typename T>
struct SharedData {
    static gpointer make(std::shared_ptr<T> object)
    {
        gpointer const data = std::make_unique<std::shared_ptr<T>>(std::move(object)).release();
        threadsanitizer::release(data);
        return data;
    }
    /// The object, kept alive for as long as the callback holds the result.
    static std::shared_ptr<T> get(gpointer data)
    {
        threadsanitizer::acquire(data);
        std::shared_ptr<T> object = *static_cast<std::shared_ptr<T>*>(data);
        threadsanitizer::release(data);
        return object;
    }
    static void release(gpointer data)
    {
        threadsanitizer::acquire(data);
        std::unique_ptr<std::shared_ptr<T>> owner(static_cast<std::shared_ptr<T>*>(data));
    }
    static void releaseClosure(gpointer data, GClosure*) { release(data); }
};

}  // namespace tq
