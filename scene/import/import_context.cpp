#include "scene/import/import_context.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>

namespace scene::import {

int ImportContext::NumThreads() const {
    const int wanted =
        m_options.num_threads > 0 ? m_options.num_threads : static_cast<int>(std::thread::hardware_concurrency());
    return std::clamp(wanted, 1, 64);
}

void Refuse(const std::string& what, const std::string& why, const std::string& advice) {
    throw ImportError(OneLine(what + ": " + why + " (" + advice + ")"));
}

std::string OneLine(std::string text) {
    for (char& character : text) {
        if (static_cast<unsigned char>(character) < 0x20 || character == 0x7f) {
            character = ' ';
        }
    }
    return text;
}

std::string Text(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

namespace {

// What the threads of one ParallelFor share.
struct SharedLoop {
    std::atomic<int> next{0}, done{0};
    std::atomic<bool> stop{false};
    std::mutex failure_mutex;
    std::exception_ptr failure;

    void Fail() {
        const std::lock_guard<std::mutex> lock(failure_mutex);
        if (!failure) {
            failure = std::current_exception();
        }
        stop = true;
    }
};

// Takes items until none is left; `poll` is empty on helper threads.
void TakeItems(SharedLoop& loop, int count, const std::function<void(int)>& work,
               const std::function<void(int)>& poll) noexcept {
    try {
        for (int item = loop.next++; item < count && !loop.stop; item = loop.next++) {
            work(item);
            const int done = ++loop.done;
            if (poll) {
                poll(done);
            }
        }
    } catch (...) {
        loop.Fail();
    }
}

}  // namespace

void ParallelFor(int count, int num_threads, const std::function<void(int)>& work,
                 const std::function<void(int done)>& poll) {
    SharedLoop loop;
    std::vector<std::jthread> helpers;
    try {
        for (int helper = 1; helper < std::min(num_threads, count); ++helper) {
            helpers.emplace_back([&] { TakeItems(loop, count, work, {}); });
        }
    } catch (const std::system_error&) {
        // Fewer threads than wanted: the others do the work.
    }
    TakeItems(loop, count, work, poll);
    helpers.clear();
    if (loop.failure) {
        std::rethrow_exception(loop.failure);
    }
}

}  // namespace scene::import
