// Finishes written outputs (fsync, then close) on a thread of its own, so that the next
// disk is read while the previous one's image or target is still being flushed.
//
// Thread-safe. Wait() reports the first output that could not be flushed; the destructor
// waits too (its result is then lost: call Wait() where it matters).
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace hxagent::io {

class BackgroundSync {
public:
    BackgroundSync() = default;
    ~BackgroundSync();
    BackgroundSync(const BackgroundSync&) = delete;
    BackgroundSync& operator=(const BackgroundSync&) = delete;

    // Takes ownership of `fd` (an output opened for writing); `path` names it in errors.
    void Add(int fd, std::string path);
    // Blocks until every output added so far is flushed and closed. False with `error`
    // ("cannot flush <path>: <reason>") when one of them failed since the last Wait().
    bool Wait(std::string& error);

private:
    void Loop();

    std::mutex mu_;
    std::condition_variable cv_;
    std::deque<std::pair<int, std::string>> queue_;
    bool busy_ = false, stopping_ = false;
    std::string error_;
    std::thread worker_;  // started by the first Add
};

}  // namespace hxagent::io
