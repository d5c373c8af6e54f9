#pragma once

// Faults on demand, counted and made to happen by number: allocations, calls into FFmpeg, calls into the host
// libraries, file operations. All that the encoder library and those below it allocate is followed until it
// is freed, so that a leak shows without a sanitizer too.
//
// Allocations are told apart by whose code asks for them. Those of libx264 and libx265 never fail: neither
// checks all of its own, and a process in which one of theirs fails may crash inside of them, whatever calls
// them.
//
// Defines functions with external linkage: include it from one source of a program.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/buffer.h>
#include <libavutil/dict.h>
#include <libavutil/frame.h>
}

#include <orb_utils_v4/comm.h>
#include <orb_utils_v4/h264.h>
#include <orb_utils_v4/io.h>
#include <orb_utils_v4/mpeg12_video.h>

// The allocator behind the functions below.
extern "C" {
#if defined(GSVE_SANITIZED_ADDRESS)
void* __interceptor_malloc(size_t);
void* __interceptor_calloc(size_t, size_t);
void* __interceptor_realloc(void*, size_t);
int __interceptor_posix_memalign(void**, size_t, size_t);
void __interceptor_free(void*);
#else
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);
#endif
}

namespace gsve::test {

enum class FaultKind { kNone, kAllocation, kCodecCall, kHostCall, kFileCall };

/// Whose code asks.
enum class Origin { kOther, kLibrary, kHost, kCodec, kStandardLibrary };

/// One thing that was made to fail.
struct Fault {
    Origin origin = Origin::kOther;
    const char* operation = "";   ///< the function that failed
    const char* codec_call = "";  ///< the FFmpeg call of the encoder library's that it failed in
};

/// The code of the loaded libraries that count.
class CodeMap {
public:
    CodeMap() {
        dl_iterate_phdr(
            [](dl_phdr_info* object, size_t, void* self) {
                static_cast<CodeMap*>(self)->add(*object);
                return 0;
            },
            this);
    }

    Origin origin_of(const void* code) const {
        const auto address = reinterpret_cast<uintptr_t>(code);
        for (size_t i = 0; i < count_; i++)
            if (address >= ranges_[i].first && address < ranges_[i].last) return ranges_[i].origin;
        return Origin::kOther;
    }

private:
    struct Range {
        uintptr_t first, last;
        Origin origin;
    };

    static Origin origin_of_file(std::string_view path) {
        constexpr std::pair<std::string_view, Origin> kFiles[] = {
            {"general_video_streaming_encoder", Origin::kLibrary},
            {"liborb_utils_v4_", Origin::kHost},
            {"libavcodec.so", Origin::kCodec},
            {"libavutil.so", Origin::kCodec},
            {"libstdc++.so", Origin::kStandardLibrary},
        };
        for (const auto& [part, origin] : kFiles)
            if (path.find(part) != path.npos) return origin;
        return Origin::kOther;
    }

    void add(const dl_phdr_info& object) {
        const Origin origin = origin_of_file(object.dlpi_name);
        if (origin == Origin::kOther) return;
        for (int i = 0; i < object.dlpi_phnum; i++) {
            const ElfW(Phdr)& segment = object.dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0 || count_ == ranges_.size())
                continue;
            const uintptr_t first = object.dlpi_addr + segment.p_vaddr;
            ranges_[count_++] = {first, first + segment.p_memsz, origin};
        }
    }

    std::array<Range, 32> ranges_ = {};
    size_t count_ = 0;
};

/// A set of pointers that allocates nothing.
class PointerSet {
public:
    void insert(void* pointer) {
        const Lock lock(busy_);
        size_t slot = first_slot(pointer);
        while (slots_[slot] != nullptr && slots_[slot] != tombstone()) slot = (slot + 1) % kSlots;
        slots_[slot] = pointer;
        count_++;
    }
    void erase(const void* pointer) {
        if (count_ == 0 || !pointer) return;
        const Lock lock(busy_);
        for (size_t slot = first_slot(pointer); slots_[slot] != nullptr; slot = (slot + 1) % kSlots)
            if (slots_[slot] == pointer) {
                slots_[slot] = tombstone();
                if (--count_ == 0) slots_.fill(nullptr);
                return;
            }
    }
    long count() const { return count_; }
    /// Stops following what is left.
    void clear() {
        slots_.fill(nullptr);
        count_ = 0;
    }

private:
    struct Lock {
        explicit Lock(std::atomic_flag& flag) : flag(flag) {
            while (flag.test_and_set(std::memory_order_acquire)) {
            }
        }
        ~Lock() { flag.clear(std::memory_order_release); }
        std::atomic_flag& flag;
    };
    static constexpr size_t kSlots = 1 << 14;
    static size_t first_slot(const void* pointer) {
        return reinterpret_cast<uintptr_t>(pointer) / 16 * 0x9e3779b97f4a7c15 >> 50;
    }
    static void* tombstone() { return reinterpret_cast<void*>(1); }

    std::array<void*, kSlots> slots_ = {};
    std::atomic<long> count_ = 0;
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
};

inline bool ever_armed = false;

/// What is to fail, and what happened. Everything counts from 1, on the arming thread alone, while armed.
struct FaultInjector {
    FaultKind kind = FaultKind::kNone;
    long number = 0;         ///< which one fails
    bool permanent = false;  ///< and all after it

    bool armed = false;
    pthread_t thread = {};
    long seen = 0;      ///< opportunities so far
    long injected = 0;  ///< failures so far
    Fault first;
    bool codec_only = true;       ///< every failure so far was libavcodec's or libavutil's allocation
    const char* codec_call = "";  ///< the FFmpeg call of the encoder library's that is under way
    PointerSet alive;             ///< allocated while armed
    std::string dump_directory;   ///< stands in for the encoder's own

    std::vector<Fault>* opportunities = nullptr;     ///< where all that could fail is noted
    std::function<void(const AVFrame&)> on_picture;  ///< sees what the encoder library sends

    void arm(FaultKind failing_kind, long failing_number, bool for_good) {
        kind = failing_kind;
        number = failing_number;
        permanent = for_good;
        thread = pthread_self();
        seen = injected = 0;
        first = {};
        codec_only = true;
        codec_call = "";
        ever_armed = true;
        armed = true;
    }
    void disarm() { armed = false; }

    bool listens() const { return armed && pthread_equal(thread, pthread_self()); }

    bool fails(FaultKind what, Origin origin, const char* operation) {
        if (what != kind || !listens()) return false;
        seen++;
        if (opportunities) opportunities->push_back({origin, operation, codec_call});
        if (permanent ? seen < number : seen != number) return false;
        if (injected++ == 0) first = {origin, operation, codec_call};
        codec_only &= origin == Origin::kCodec;
        return true;
    }
};

inline FaultInjector& fault_injector() {
    static FaultInjector injector;
    return injector;
}

inline Origin origin_of(const void* code) {
    static const CodeMap map;
    return map.origin_of(code);
}

template <typename Function>
Function* next_function(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Allocations

#if defined(GSVE_SANITIZED_ADDRESS)
inline constexpr auto real_malloc = __interceptor_malloc;
inline constexpr auto real_calloc = __interceptor_calloc;
inline constexpr auto real_realloc = __interceptor_realloc;
inline constexpr auto real_posix_memalign = __interceptor_posix_memalign;
inline constexpr auto real_free = __interceptor_free;
#else
inline constexpr auto real_malloc = __libc_malloc;
inline constexpr auto real_calloc = __libc_calloc;
inline constexpr auto real_realloc = __libc_realloc;
inline int real_posix_memalign(void** out, size_t alignment, size_t size) {
    void* const memory = __libc_memalign(alignment, size);
    if (memory) *out = memory;
    return memory ? 0 : ENOMEM;
}
inline constexpr auto real_free = __libc_free;
#endif

/// One allocation: whether it is followed, and whether it fails.
struct Allocation {
    Allocation(const char* operation, const void* caller) {
        FaultInjector& injector = fault_injector();
        if (!injector.listens()) return;
        const Origin origin = test::origin_of(caller);
        // libstdc++ works for the encoder library, unless libx265 has the thread.
        const bool counts =
            origin != Origin::kOther && (origin != Origin::kStandardLibrary || *injector.codec_call == '\0');
        if (!counts) return;
        fails = injector.fails(FaultKind::kAllocation, origin, operation);
        followed = !fails;
    }
    void* made(void* memory) const {
        if (followed && memory) fault_injector().alive.insert(memory);
        return memory;
    }
    bool fails = false;
    bool followed = false;
};

inline void* listened_new(size_t size, const char* operation, const void* caller) {
    if (!ever_armed) return real_malloc(size > 0 ? size : 1);
    const Allocation allocation(operation, caller);
    return allocation.fails ? nullptr : allocation.made(real_malloc(size > 0 ? size : 1));
}

inline void* listened_malloc(size_t size, const void* caller) {
    const Allocation allocation("malloc", caller);
    return allocation.fails ? nullptr : allocation.made(real_malloc(size));
}

inline void* listened_calloc(size_t count, size_t size, const void* caller) {
    const Allocation allocation("calloc", caller);
    return allocation.fails ? nullptr : allocation.made(real_calloc(count, size));
}

inline void* listened_realloc(void* memory, size_t size, const void* caller) {
    const Allocation allocation("realloc", caller);
    if (allocation.fails) return nullptr;
    fault_injector().alive.erase(memory);
    return allocation.made(real_realloc(memory, size));
}

inline int listened_posix_memalign(void** out, size_t alignment, size_t size, const void* caller) {
    const Allocation allocation("posix_memalign", caller);
    if (allocation.fails) return ENOMEM;
    const int error = real_posix_memalign(out, alignment, size);
    if (error == 0) allocation.made(*out);
    return error;
}

inline void listened_free(void* memory) {
    if (ever_armed) fault_injector().alive.erase(memory);
    real_free(memory);
}

/// One call out of the encoder library. Calls of anybody else's neither count nor fail.
struct ListenedCall {
    ListenedCall(FaultKind kind, const char* operation, const void* caller)
        : from_library(fault_injector().listens() && origin_of(caller) == Origin::kLibrary),
          fails(from_library && fault_injector().fails(kind, Origin::kLibrary, operation)),
          is_codec_call(from_library && kind == FaultKind::kCodecCall) {
        if (is_codec_call) fault_injector().codec_call = operation;
    }
    ~ListenedCall() {
        if (is_codec_call) fault_injector().codec_call = "";
    }
    const bool from_library, fails, is_codec_call;
};

}  // namespace gsve::test

#define GSVE_CALLER __builtin_return_address(0)

// The sanitizer allocates before its instrumentation works, and so before anything was armed.
#define GSVE_BEFORE_SANITIZER __attribute__((no_sanitize("address")))

extern "C" {

GSVE_BEFORE_SANITIZER void* malloc(size_t size) {
    return gsve::test::ever_armed ? gsve::test::listened_malloc(size, GSVE_CALLER)
                                  : gsve::test::real_malloc(size);
}

GSVE_BEFORE_SANITIZER void* calloc(size_t count, size_t size) {
    return gsve::test::ever_armed ? gsve::test::listened_calloc(count, size, GSVE_CALLER)
                                  : gsve::test::real_calloc(count, size);
}

GSVE_BEFORE_SANITIZER void* realloc(void* memory, size_t size) {
    return gsve::test::ever_armed ? gsve::test::listened_realloc(memory, size, GSVE_CALLER)
                                  : gsve::test::real_realloc(memory, size);
}

GSVE_BEFORE_SANITIZER int posix_memalign(void** out, size_t alignment, size_t size) noexcept {
    return gsve::test::ever_armed ? gsve::test::listened_posix_memalign(out, alignment, size, GSVE_CALLER)
                                  : gsve::test::real_posix_memalign(out, alignment, size);
}

GSVE_BEFORE_SANITIZER void free(void* memory) {
    if (gsve::test::ever_armed)
        gsve::test::listened_free(memory);
    else
        gsve::test::real_free(memory);
}

}  // extern "C"

// Inlined, they would look to the compiler like a new that is given to free.
[[gnu::noinline]] void* operator new(size_t size) {
    if (void* memory = gsve::test::listened_new(size, "new", GSVE_CALLER)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new[](size_t size) {
    if (void* memory = gsve::test::listened_new(size, "new", GSVE_CALLER)) return memory;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(size_t size, const std::nothrow_t&) noexcept {
    return gsve::test::listened_new(size, "new", GSVE_CALLER);
}
[[gnu::noinline]] void* operator new[](size_t size, const std::nothrow_t&) noexcept {
    return gsve::test::listened_new(size, "new", GSVE_CALLER);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { gsve::test::listened_free(memory); }
[[gnu::noinline]] void operator delete[](void* memory) noexcept { gsve::test::listened_free(memory); }
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept { gsve::test::listened_free(memory); }
[[gnu::noinline]] void operator delete[](void* memory, size_t) noexcept { gsve::test::listened_free(memory); }

// The body of a function in front of the real one: `failure` is what it returns when it is made to fail.
#define GSVE_FRONT(kind, name, failure, ...)                                              \
    static const auto next = gsve::test::next_function<decltype(name)>(#name);            \
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kind, #name, GSVE_CALLER); \
    return call.fails ? failure : next(__VA_ARGS__)

extern "C" {

// FFmpeg

const AVCodec* avcodec_find_encoder(AVCodecID id) {
    GSVE_FRONT(kCodecCall, avcodec_find_encoder, nullptr, id);
}
AVCodecContext* avcodec_alloc_context3(const AVCodec* codec) {
    GSVE_FRONT(kCodecCall, avcodec_alloc_context3, nullptr, codec);
}
AVFrame* av_frame_alloc(void) { GSVE_FRONT(kCodecCall, av_frame_alloc, nullptr); }
AVPacket* av_packet_alloc(void) { GSVE_FRONT(kCodecCall, av_packet_alloc, nullptr); }
int av_dict_set(AVDictionary** dictionary, const char* key, const char* value, int flags) {
    GSVE_FRONT(kCodecCall, av_dict_set, AVERROR(ENOMEM), dictionary, key, value, flags);
}
AVBufferRef* av_buffer_create(uint8_t* data, size_t size, void (*release)(void*, uint8_t*), void* opaque,
                              int flags) {
    GSVE_FRONT(kCodecCall, av_buffer_create, nullptr, data, size, release, opaque, flags);
}
int avcodec_open2(AVCodecContext* context, const AVCodec* codec, AVDictionary** options) {
    GSVE_FRONT(kCodecCall, avcodec_open2, AVERROR(ENOMEM), context, codec, options);
}
int avcodec_send_frame(AVCodecContext* context, const AVFrame* frame) {
    auto& injector = gsve::test::fault_injector();
    if (frame && injector.on_picture) {
        const bool armed = std::exchange(injector.armed, false);
        injector.on_picture(*frame);
        injector.armed = armed;
    }
    GSVE_FRONT(kCodecCall, avcodec_send_frame, AVERROR(ENOMEM), context, frame);
}
int avcodec_receive_packet(AVCodecContext* context, AVPacket* packet) {
    static const auto next =
        gsve::test::next_function<decltype(avcodec_receive_packet)>("avcodec_receive_packet");
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kCodecCall, "avcodec_receive_packet",
                                        GSVE_CALLER);
    const int result = next(context, packet);
    if (!call.fails) return result;
    // libavcodec keeps no packet that it could not deliver.
    av_packet_unref(packet);
    return AVERROR(ENOMEM);
}

// The host

sliding_window_v4* sliding_window_v4_create_buffer(size_t size) {
    GSVE_FRONT(kHostCall, sliding_window_v4_create_buffer, nullptr, size);
}
bool comm_socket_v4_packet_write_nv_pair(comm_socket_v4_packet* packet, const char* name, const char* value) {
    GSVE_FRONT(kHostCall, comm_socket_v4_packet_write_nv_pair, false, packet, name, value);
}
bool comm_socket_v4_packet_write_nv_pairf(comm_socket_v4_packet* packet, const char* name, const char* format,
                                          ...) {
    char value[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(value, sizeof(value), format, arguments);
    va_end(arguments);
    static const auto next = gsve::test::next_function<decltype(comm_socket_v4_packet_write_nv_pairf)>(
        "comm_socket_v4_packet_write_nv_pairf");
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kHostCall,
                                        "comm_socket_v4_packet_write_nv_pairf", GSVE_CALLER);
    return !call.fails && next(packet, name, "%s", value);
}
int h264_nal_write(uint8_t* out, unsigned long capacity, uint8_t* rbsp, unsigned long length,
                   unsigned nal_ref_idc, uint8_t nal_unit_type) {
    GSVE_FRONT(kHostCall, h264_nal_write, -1, out, capacity, rbsp, length, nal_ref_idc, nal_unit_type);
}
int mpeg2_get_frame_type(const uint8_t* data, size_t size, const uint8_t** picture_header) {
    GSVE_FRONT(kHostCall, mpeg2_get_frame_type, 0, data, size, picture_header);
}
int mpeg2_get_frame_type_and_gop(const uint8_t* data, size_t size, bool* open_gop, bool* gop_seen) {
    GSVE_FRONT(kHostCall, mpeg2_get_frame_type_and_gop, 0, data, size, open_gop, gop_seen);
}

// Without a clock that stands still, MPEG-2 encoding adapts to how busy the machine is.
uint64_t monotonic_clock_us(void) { return 0; }

// Files. The dump directory is absolute and need not exist on a test machine.

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, unsigned) : 0;
    va_end(arguments);
    static const auto next = gsve::test::next_function<int(const char*, int, ...)>("open");
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kFileCall, "open", GSVE_CALLER);
    if (call.fails) {
        errno = EMFILE;
        return -1;
    }
    constexpr std::string_view kDumpDirectory = "/mnt/main";
    if (!std::string_view(path).starts_with(kDumpDirectory)) return next(path, flags, mode);
    char led[512];
    std::snprintf(led, sizeof(led), "%s%s", gsve::test::fault_injector().dump_directory.c_str(),
                  path + kDumpDirectory.size());
    return next(led, flags, mode);
}

ssize_t write(int fd, const void* data, size_t size) {
    static const auto next = gsve::test::next_function<ssize_t(int, const void*, size_t)>("write");
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kFileCall, "write", GSVE_CALLER);
    if (!call.fails) return next(fd, data, size);
    errno = ENOSPC;
    return -1;
}

int close(int fd) {
    static const auto next = gsve::test::next_function<int(int)>("close");
    const gsve::test::ListenedCall call(gsve::test::FaultKind::kFileCall, "close", GSVE_CALLER);
    const int result = next(fd);
    if (!call.fails) return result;
    errno = EIO;  // Linux has closed the descriptor all the same
    return -1;
}

}  // extern "C"
