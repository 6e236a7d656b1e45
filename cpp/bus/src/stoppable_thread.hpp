// A worker thread that any thread, the worker itself included, can stop without hanging.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace quorvex::bus::detail {

class StoppableThread {
 public:
  StoppableThread() = default;
  StoppableThread(const StoppableThread&) = delete;
  StoppableThread& operator=(const StoppableThread&) = delete;
  ~StoppableThread() { release(); }

  // `body` runs until it returns; it should return soon after stop_requested() turns true.
  // Whatever `body` captures stays alive until it returns, also when the thread was left detached.
  void start(std::function<void()> body) {
    // `this` is not touched after the notification: the captures, destroyed when the thread
    // exits, may hold the last reference to the object that owns this StoppableThread.
    thread_ = std::thread([this, body = std::move(body)]() mutable {
      body();
      std::lock_guard<std::mutex> lock(mutex_);
      finished_ = true;
      finished_cv_.notify_all();
    });
  }

  const std::atomic<bool>& stop_flag() const { return stop_; }
  // Sets the stop flag only; set it under the lock the body waits with, then wake the body.
  void request_stop() { stop_.store(true, std::memory_order_release); }
  bool stop_requested() const { return stop_.load(std::memory_order_acquire); }
  bool on_this_thread() const { return std::this_thread::get_id() == thread_.get_id(); }

  // Sets the stop flag; the caller wakes the body. Then waits up to `grace` for the body to return
  // (forever when grace is negative). From the thread itself, or when the grace runs out, the
  // thread is left to finish alone. Returns whether the body finished.
  bool stop(std::chrono::milliseconds grace) {
    stop_.store(true, std::memory_order_release);
    if (!thread_.joinable()) return true;
    if (on_this_thread()) {
      thread_.detach();
      return false;
    }
    std::unique_lock<std::mutex> lock(mutex_);
    const bool finished = grace.count() < 0 ? (finished_cv_.wait(lock, [&] { return finished_; }), true)
                                            : finished_cv_.wait_for(lock, grace, [&] { return finished_; });
    lock.unlock();
    if (finished) {
      thread_.join();
    } else {
      thread_.detach();
    }
    return finished;
  }

 private:
  void release() {
    if (!thread_.joinable()) return;
    if (on_this_thread()) {
      thread_.detach();
    } else {
      stop_.store(true, std::memory_order_release);
      thread_.join();
    }
  }

  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::condition_variable finished_cv_;
  bool finished_ = false;
};

}  // namespace quorvex::bus::detail
