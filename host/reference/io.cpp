// Stand-in for the host framework's io library. It makes, checks and frees windows over one heap buffer of
// fixed size. It does not grow a buffer, move data inside one, clear its bytes, or read and write files.

#include <orb_utils_v4/io.h>

#include <cstdint>
#include <cstdlib>

sliding_window_v4* sliding_window_v4_create_buffer(size_t size) {
    // No object is larger than PTRDIFF_MAX: the distance of two window pointers must have a value.
    if (size > PTRDIFF_MAX) return nullptr;
    auto* const window = static_cast<sliding_window_v4*>(std::malloc(sizeof(sliding_window_v4)));
    // malloc(0) may answer null without having failed.
    auto* const base = static_cast<uint8_t*>(std::malloc(size > 0 ? size : 1));
    if (!window || !base) {
        std::free(base);
        std::free(window);
        return nullptr;
    }
    *window = {.base = base, .limit = base + size, .data = base, .end = base};
    return window;
}

bool sliding_window_v4_is_sane(const sliding_window_v4* window) {
    return window && window->base <= window->data && window->data <= window->end &&
           window->end <= window->limit;
}

sliding_window_v4* sliding_window_v4_destroy(sliding_window_v4* window) {
    if (window) std::free(window->base);
    std::free(window);
    return nullptr;
}
