#pragma once

// Work that goes on in threads of its own, with a short queue in front of who waits for it.
//
// What comes out is what the same calls would give one after the other: values keep their order, and each
// carries all that its reader needs, so that nothing depends on how far a thread is.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

namespace gsve::programme {

/// Called before every step of a queue, by the thread that takes it, where a test wants to disturb them.
inline void (*disturb_queues)() = nullptr;

/// Values from one thread to another, a few of them at a time. Who fills it wakes once half of it is empty,
/// so that the two do not take turns at every value.
template <class Value>
class Queue {
public:
    explicit Queue(size_t depth) : depth_(depth) {}

    /// Waits for room. False where nobody takes values any more.
    bool put(Value value) {
        if (disturb_queues) disturb_queues();
        std::unique_lock lock(mutex_);
        if (values_.size() >= depth_)
            room_.wait(lock, [&] { return closed_ || values_.size() <= depth_ / 2; });
        if (closed_) return false;
        values_.push_back(std::move(value));
        lock.unlock();
        there_.notify_one();
        return true;
    }

    /// There are no more values, since the work is done, or since it failed.
    void end(std::exception_ptr failure = nullptr) {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        failure_ = std::move(failure);
        there_.notify_one();
    }

    /// Waits for a value. Nothing at the end; throws, once all values before it have been taken, what the
    /// work failed with.
    std::optional<Value> take() {
        if (disturb_queues) disturb_queues();
        std::unique_lock lock(mutex_);
        there_.wait(lock, [&] { return ended_ || !values_.empty(); });
        if (values_.empty()) {
            if (failure_) std::rethrow_exception(failure_);
            return std::nullopt;
        }
        std::optional<Value> value(std::move(values_.front()));
        values_.pop_front();
        const bool has_room = values_.size() == depth_ / 2;
        lock.unlock();
        if (has_room) room_.notify_one();
        return value;
    }

    /// Nobody takes values any more.
    void close() {
        const std::lock_guard lock(mutex_);
        closed_ = true;
        values_.clear();
        room_.notify_one();
    }

private:
    const size_t depth_;
    std::mutex mutex_;
    std::condition_variable room_, there_;
    std::deque<Value> values_;
    bool ended_ = false, closed_ = false;
    std::exception_ptr failure_;
};

/// Makes values in a thread of its own, some of them ahead of who takes them.
template <class Value>
class Ahead {
public:
    /// `make` gives the next value, and nothing at the end.
    Ahead(size_t depth, std::function<std::optional<Value>()> make)
        : queue_(depth), thread_([this, make = std::move(make)] { run(make); }) {}

    /// Whatever `make` waits for has to come to an end.
    ~Ahead() {
        queue_.close();
        thread_.join();
    }

    Ahead(const Ahead&) = delete;
    Ahead& operator=(const Ahead&) = delete;

    /// The next value; nothing at the end. Throws what `make` threw.
    std::optional<Value> next() { return queue_.take(); }

private:
    void run(const std::function<std::optional<Value>()>& make) {
        try {
            while (std::optional<Value> value = make())
                if (!queue_.put(std::move(*value))) return;
            queue_.end();
        } catch (...) {
            queue_.end(std::current_exception());
        }
    }

    Queue<Value> queue_;
    std::thread thread_;
};

/// Uses values in a thread of its own, some of them behind who gives them.
template <class Value>
class Behind {
public:
    /// `failed` is called from the thread where `use` throws, so that work in other threads can be ended.
    Behind(size_t depth, std::function<void(Value)> use, std::function<void()> failed)
        : queue_(depth),
          thread_([this, use = std::move(use), failed = std::move(failed)] { run(use, failed); }) {}

    /// Values that wait are left out, unless finish() was called.
    ~Behind() {
        if (!thread_.joinable()) return;
        queue_.close();
        queue_.end();
        thread_.join();
    }

    Behind(const Behind&) = delete;
    Behind& operator=(const Behind&) = delete;

    /// Throws what `use` threw at an earlier value.
    void put(Value value) {
        if (queue_.put(std::move(value))) return;
        if (thread_.joinable()) thread_.join();
        std::rethrow_exception(failure_);
    }

    /// Waits until all values have been used. Throws what `use` threw.
    void finish() {
        queue_.end();
        if (thread_.joinable()) thread_.join();
        if (failure_) std::rethrow_exception(failure_);
    }

private:
    void run(const std::function<void(Value)>& use, const std::function<void()>& failed) {
        try {
            while (std::optional<Value> value = queue_.take()) use(std::move(*value));
        } catch (...) {
            failure_ = std::current_exception();
            failed();
            queue_.close();
        }
    }

    Queue<Value> queue_;
    std::exception_ptr failure_;
    std::thread thread_;
};

}  // namespace gsve::programme
