#pragma once

// libavcodec and libavutil with a listener in front. A function that the executable defines takes precedence
// over the shared libraries' own, so the encoder's calls arrive here first: they are recorded, and made to
// fail when a test asks for it, before they go on to the real function.
//
// Defines functions with external linkage: include it from one source of a program.

#include <algorithm>
#include <cerrno>
#include <set>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include <dlfcn.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
}

namespace gsve::test {

using Option = std::pair<std::string, std::string>;
using Options = std::vector<Option>;

/// What avcodec_open2() was asked to open.
struct OpenRequest {
    AVCodecContext context;  ///< the fields as the encoder had filled them; its pointers are gone
    const AVCodec* codec;
    Options dictionary;  ///< the entries of the options dictionary
};

/// The calls that can be made to fail.
enum class Call { kNone, kFindEncoder, kAllocContext, kAllocFrame, kAllocPacket, kDictSet };

/// What becomes of avcodec_open2().
enum class Opening {
    kReal,
    kPretend,  ///< returns success and opens nothing: quick, and takes any combination of fields
    kRefuse,   ///< returns an error
};

/// What a pretended opening stores in the context, so that a test can tell that it is read back.
inline constexpr int kPretendedThreadCount = 7;
inline constexpr int kPretendedThreadType = FF_THREAD_SLICE;

struct CodecListener {
    // Orders.
    Opening opening = Opening::kReal;
    int refusal = AVERROR(EINVAL);
    Call failing = Call::kNone;
    bool frame_free_keeps_pointer = false;
    bool packet_free_keeps_pointer = false;

    // Observations.
    std::vector<AVCodecID> looked_up;
    Options option_calls;            ///< av_dict_set(), in order
    bool option_flags_seen = false;  ///< an av_dict_set() had flags other than 0
    std::vector<OpenRequest> opened;
    std::vector<std::string> calls;     ///< makers, opening, dictionary release, in order
    std::vector<std::string> releases;  ///< kinds of objects released, in order
    std::set<const void*> contexts, frames, packets, dictionaries;  ///< alive

    size_t alive() const { return contexts.size() + frames.size() + packets.size() + dictionaries.size(); }

    /// Forgets orders and observations, but not the objects that are alive.
    void reset() {
        CodecListener fresh;
        fresh.contexts.swap(contexts);
        fresh.frames.swap(frames);
        fresh.packets.swap(packets);
        fresh.dictionaries.swap(dictionaries);
        *this = std::move(fresh);
    }

    // Calls that libavcodec makes itself, while it opens or on its own threads, are not the encoder's.
    bool inside_codec = false;
    int depth = 0;  ///< above 0 while the listener itself works: allocations are its own then
    std::thread::id caller = std::this_thread::get_id();
    bool listens() const { return !inside_codec && std::this_thread::get_id() == caller; }

    void released(std::set<const void*>& kind, const void* object, const char* name) {
        if (listens() && kind.erase(object) != 0) releases.emplace_back(name);
    }
};

inline CodecListener codec_listener;

/// Marks the listener's own work.
struct Listening {
    Listening() { codec_listener.depth += owner; }
    ~Listening() { codec_listener.depth -= owner; }
    const bool owner = std::this_thread::get_id() == codec_listener.caller;
};

template <typename Function>
Function* next_function(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

inline Options dictionary_entries(const AVDictionary* dictionary) {
    Options entries;
    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(dictionary, "", entry, AV_DICT_IGNORE_SUFFIX)))
        entries.emplace_back(entry->key, entry->value);
    return entries;
}

/// The value that the encoder gave an option last; "(none)" when it gave none.
inline std::string option(const std::string& key) {
    const Options& calls = codec_listener.option_calls;
    const auto found =
        std::find_if(calls.rbegin(), calls.rend(), [&](const Option& o) { return o.first == key; });
    return found == calls.rend() ? "(none)" : found->second;
}

/// FFmpeg 8 dropped the field.
inline int ticks_per_frame([[maybe_unused]] const AVCodecContext& context) {
#if LIBAVCODEC_VERSION_MAJOR < 62
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    return context.ticks_per_frame;
#pragma GCC diagnostic pop
#else
    return 1;
#endif
}

}  // namespace gsve::test

extern "C" {

const AVCodec* avcodec_find_encoder(AVCodecID id) {
    const gsve::test::Listening listening;
    static const auto next =
        gsve::test::next_function<decltype(avcodec_find_encoder)>("avcodec_find_encoder");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next(id);
    listener.calls.emplace_back("avcodec_find_encoder");
    listener.looked_up.push_back(id);
    return listener.failing == gsve::test::Call::kFindEncoder ? nullptr : next(id);
}

AVCodecContext* avcodec_alloc_context3(const AVCodec* codec) {
    const gsve::test::Listening listening;
    static const auto next =
        gsve::test::next_function<decltype(avcodec_alloc_context3)>("avcodec_alloc_context3");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next(codec);
    listener.calls.emplace_back("avcodec_alloc_context3");
    if (listener.failing == gsve::test::Call::kAllocContext) return nullptr;
    AVCodecContext* context = next(codec);
    if (context) listener.contexts.insert(context);
    return context;
}

AVFrame* av_frame_alloc(void) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_frame_alloc)>("av_frame_alloc");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next();
    listener.calls.emplace_back("av_frame_alloc");
    if (listener.failing == gsve::test::Call::kAllocFrame) return nullptr;
    AVFrame* frame = next();
    if (frame) listener.frames.insert(frame);
    return frame;
}

AVPacket* av_packet_alloc(void) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_packet_alloc)>("av_packet_alloc");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next();
    listener.calls.emplace_back("av_packet_alloc");
    if (listener.failing == gsve::test::Call::kAllocPacket) return nullptr;
    AVPacket* packet = next();
    if (packet) listener.packets.insert(packet);
    return packet;
}

int av_dict_set(AVDictionary** dictionary, const char* key, const char* value, int flags) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_dict_set)>("av_dict_set");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next(dictionary, key, value, flags);
    listener.option_calls.emplace_back(key ? key : "(null)", value ? value : "(null)");
    listener.option_flags_seen |= flags != 0;
    if (listener.failing == gsve::test::Call::kDictSet) return AVERROR(ENOMEM);
    listener.dictionaries.erase(*dictionary);
    const int result = next(dictionary, key, value, flags);
    if (*dictionary) listener.dictionaries.insert(*dictionary);
    return result;
}

void av_dict_free(AVDictionary** dictionary) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_dict_free)>("av_dict_free");
    auto& listener = gsve::test::codec_listener;
    if (listener.listens() && dictionary) {
        listener.calls.emplace_back("av_dict_free");
        listener.dictionaries.erase(*dictionary);
    }
    next(dictionary);
}

int avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(avcodec_open2)>("avcodec_open2");
    auto& listener = gsve::test::codec_listener;
    if (!listener.listens()) return next(context, codec, options);
    listener.calls.emplace_back("avcodec_open2");
    listener.opened.push_back(
        {*context, codec, options ? gsve::test::dictionary_entries(*options) : gsve::test::Options{}});
    switch (listener.opening) {
        case gsve::test::Opening::kRefuse: return listener.refusal;
        case gsve::test::Opening::kPretend:
            context->thread_count = gsve::test::kPretendedThreadCount;
            context->active_thread_type = gsve::test::kPretendedThreadType;
            return 0;
        case gsve::test::Opening::kReal: break;
    }
    if (options) listener.dictionaries.erase(*options);
    listener.inside_codec = true;
    const int result = next(context, codec, options);
    listener.inside_codec = false;
    if (options && *options) listener.dictionaries.insert(*options);
    return result;
}

void avcodec_free_context(AVCodecContext** context) {
    const gsve::test::Listening listening;
    static const auto next =
        gsve::test::next_function<decltype(avcodec_free_context)>("avcodec_free_context");
    auto& listener = gsve::test::codec_listener;
    if (context && *context) listener.released(listener.contexts, *context, "context");
    next(context);
}

void av_free(void* memory) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_free)>("av_free");
    auto& listener = gsve::test::codec_listener;
    if (memory) listener.released(listener.contexts, memory, "context");
    next(memory);
}

void av_freep(void* pointer) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_freep)>("av_freep");
    auto& listener = gsve::test::codec_listener;
    if (pointer) {
        void* memory = *static_cast<void**>(pointer);
        if (memory) listener.released(listener.contexts, memory, "context");
    }
    next(pointer);
}

void av_frame_free(AVFrame** frame) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_frame_free)>("av_frame_free");
    auto& listener = gsve::test::codec_listener;
    if (listener.frame_free_keeps_pointer && listener.listens()) return;
    if (frame && *frame) listener.released(listener.frames, *frame, "frame");
    next(frame);
}

void av_packet_free(AVPacket** packet) {
    const gsve::test::Listening listening;
    static const auto next = gsve::test::next_function<decltype(av_packet_free)>("av_packet_free");
    auto& listener = gsve::test::codec_listener;
    if (listener.packet_free_keeps_pointer && listener.listens()) return;
    if (packet && *packet) listener.released(listener.packets, *packet, "packet");
    next(packet);
}

}  // extern "C"
