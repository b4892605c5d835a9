#include "io/BackgroundSync.h"

#include <unistd.h>

#include "io/FileIo.h"

namespace hxagent::io {

BackgroundSync::~BackgroundSync() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        stopping_ = true;
    }
    cv_.notify_all();
    if (worker_.joinable()) worker_.join();
}

void BackgroundSync::Add(int fd, std::string path) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        queue_.emplace_back(fd, std::move(path));
        if (!worker_.joinable()) worker_ = std::thread([this] { Loop(); });
    }
    cv_.notify_all();
}

bool BackgroundSync::Wait(std::string& error) {
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [&] { return queue_.empty() && !busy_; });
    if (error_.empty()) return true;
    error = std::move(error_);
    error_.clear();
    return false;
}

void BackgroundSync::Loop() {
    std::unique_lock<std::mutex> lock(mu_);
    for (;;) {
        cv_.wait(lock, [&] { return !queue_.empty() || stopping_; });
        if (queue_.empty()) return;  // stopping, nothing left
        auto [fd, path] = std::move(queue_.front());
        queue_.pop_front();
        busy_ = true;
        lock.unlock();
        const bool synced = ::fsync(fd) == 0;
        std::string why = synced ? "" : Why("cannot flush", path);
        if (::close(fd) != 0 && synced) why = Why("cannot flush", path);
        lock.lock();
        busy_ = false;
        if (!why.empty() && error_.empty()) error_ = why;
        cv_.notify_all();
    }
}

}  // namespace hxagent::io
