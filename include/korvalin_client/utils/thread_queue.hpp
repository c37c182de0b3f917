// ThreadQueue: an unbounded first-in first-out queue shared by several threads.
//
// Every operation takes the queue's lock, so producers and consumers on different threads need
// no lock of their own. Nothing here waits: try_get() answers at once, with nothing when the
// queue is empty, which is how the download workers know their work is done.
#pragma once

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace korvalin_client::utils {

template <class T>
class ThreadQueue {
 public:
  ThreadQueue() = default;
  ThreadQueue(const ThreadQueue&) = delete;
  ThreadQueue& operator=(const ThreadQueue&) = delete;

  // Appends `item`; it also counts as an unfinished task until task_done() is called for it.
  void put(T item) {
    std::lock_guard<std::mutex> lock(mutex_);
    items_.push_back(std::move(item));
    ++unfinished_;
  }

  // Takes the oldest item, or nothing when the queue is empty at this moment.
  std::optional<T> try_get() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (items_.empty()) return std::nullopt;
    std::optional<T> item(std::move(items_.front()));
    items_.pop_front();
    return item;
  }

  // Marks one item taken with try_get() as processed.
  void task_done() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (unfinished_ > 0) --unfinished_;
  }

  bool empty() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.empty();
  }

  std::size_t size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return items_.size();
  }

  // Items put and not yet marked done (taken or not).
  std::size_t unfinished_tasks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return unfinished_;
  }

 private:
  mutable std::mutex mutex_;
  std::deque<T> items_;
  std::size_t unfinished_ = 0;
};

}  // namespace korvalin_client::utils
