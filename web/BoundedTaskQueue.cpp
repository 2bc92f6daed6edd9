#include "web/BoundedTaskQueue.h"

namespace parlova {

BoundedTaskQueue::BoundedTaskQueue(size_t workers, size_t waiting) : waiting_(waiting) {
  for (size_t i = 0; i < workers; ++i)
    workers_.emplace_back([this] { work(); });
}

BoundedTaskQueue::~BoundedTaskQueue() { shutdown(); }

void BoundedTaskQueue::enqueue(std::function<void()> task) {
  std::unique_lock lock(mutex_);
  taken_.wait(lock, [this] { return tasks_.size() < waiting_ || stopping_; });
  tasks_.push_back(std::move(task));
  added_.notify_one();
}

void BoundedTaskQueue::shutdown() {
  {
    const std::lock_guard lock(mutex_);
    if (stopping_ && workers_.empty())
      return;
    stopping_ = true;
  }
  added_.notify_all();
  taken_.notify_all();
  for (std::thread &worker : workers_)
    worker.join();
  workers_.clear();
}

void BoundedTaskQueue::work() {
  while (true) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      added_.wait(lock, [this] { return !tasks_.empty() || stopping_; });
      // The connections accepted already are answered before the end.
      if (tasks_.empty())
        return;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    taken_.notify_one();
    task();
  }
}

} // namespace parlova
