#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

namespace Halo::OS {

// A call that may block on another process (a two-way Binder call to a peer that is stopped or
// hung), waited for at most a time limit. The Binder runtime's calls have no time limit of their
// own, so the call runs on a helper thread of its own and the caller stops waiting when the limit
// passes; the helper then finishes the call whenever the peer answers or dies, and drops the
// result.
class BoundedCall {
public:
    // Runs `call` on a new thread and returns its result, or nullopt when `limit` passed first.
    // `call` may outlive the caller: it must hold (by value, strong pointers) everything it uses.
    template <typename Result>
    static std::optional<Result> run(std::chrono::milliseconds limit,
                                     std::function<Result()> call) {
        auto task = std::make_shared<std::packaged_task<Result()>>(std::move(call));
        std::future<Result> result = task->get_future();
        std::thread([task] { (*task)(); }).detach();
        if (result.wait_for(limit) != std::future_status::ready) return std::nullopt;
        return result.get();
    }
};

}  // namespace Halo::OS
